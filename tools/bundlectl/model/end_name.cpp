#include "end_name.h"

#include <cstring>

namespace Model {

std::string NameOfSignal(int signal)
{
    const char* const name = ::sigabbrev_np(signal);
    return name != nullptr ? std::string("SIG") + name : "signal " + std::to_string(signal);
}

std::string NameOfEnd(bool isSignal, int number)
{
    return isSignal ? NameOfSignal(number) : "status " + std::to_string(number);
}

} // namespace Model
