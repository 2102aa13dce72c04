#include "reason.h"

#include "history.h"

#include <utility>

namespace Model {

Reason& AddReason(std::vector<Reason>& reasons, const char* kind, std::string text, std::string brief,
                  std::string remedy)
{
    Reason reason;
    reason.kind = kind;
    reason.text = std::move(text);
    reason.brief = std::move(brief);
    reason.remedy = std::move(remedy);
    reasons.push_back(std::move(reason));
    return reasons.back();
}

std::string NameOfEnd(const ItemEnd& end)
{
    return NameOfEnd(end.isSignal, end.number);
}

} // namespace Model
