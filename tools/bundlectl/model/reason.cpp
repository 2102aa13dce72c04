#include "reason.h"

#include "history.h"

#include <cstring>

namespace Model {

std::string NameOfSignal(int signal)
{
    const char* const name = ::sigabbrev_np(signal);
    return name != nullptr ? std::string("SIG") + name : "signal " + std::to_string(signal);
}

std::string NameOfEnd(const ItemEnd& end)
{
    return end.isSignal ? NameOfSignal(end.number) : "status " + std::to_string(end.number);
}

} // namespace Model
