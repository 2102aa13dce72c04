// A library that is never loaded to its end.
#include <unistd.h>

namespace {

__attribute__((constructor)) void HoldTheLoader()
{
    for (;;) {
        ::pause();
    }
}

} // namespace

extern "C" int ReturnZero()
{
    return 0;
}
