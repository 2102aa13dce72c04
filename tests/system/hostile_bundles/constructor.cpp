// A library whose loading never ends.
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
