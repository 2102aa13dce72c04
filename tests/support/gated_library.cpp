// A library whose constructor waits at a gate. In the directory that GATED_LIBRARY names it makes the file "reached"
// and waits for the file "open", but not forever. Its entry function makes the file "entered", also when it is
// cancelled.

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace {

std::string Path(const char* name)
{
    const char* const directory = std::getenv("GATED_LIBRARY");
    return std::string(directory != nullptr ? directory : "/nonexistent") + "/" + name;
}

void Make(const char* name)
{
    ::close(::open(Path(name).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
}

__attribute__((constructor)) void WaitAtGate()
{
    constexpr int attempts = 4000;
    Make("reached");
    for (int i = 0; i < attempts && ::access(Path("open").c_str(), F_OK) == -1; ++i) {
        ::usleep(5000); // a cancellation point
    }
}

} // namespace

extern "C" int Enter()
{
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    Make("entered");
    return 0;
}
