#include "reason.h"

#include "history.h"

namespace Model {

std::string NameOfEnd(const ItemEnd& end)
{
    return NameOfEnd(end.isSignal, end.number);
}

} // namespace Model
