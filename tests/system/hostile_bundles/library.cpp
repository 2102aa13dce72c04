// The harms that a library on a thread of the server can do.
#include <array>
#include <csignal>
#include <cstdlib>

namespace {

// Recurses far deeper than any stack. It is no tail call, and the compiler cannot optimise it away.
int Deeper(int levels, const volatile char* above)
{
    if (levels == 0) {
        return 0;
    }
    std::array<volatile char, 4096> room{};
    room[0] = *above;
    return Deeper(levels - 1, room.data()) + room[0];
}

} // namespace

extern "C" {

int Abort()
{
    std::abort();
}

int Overflow()
{
    volatile char top = 1;
    return Deeper(10'000'000, &top);
}

int Crash()
{
    return ::raise(SIGSEGV);
}

int Exit()
{
    std::exit(3);
}
}
