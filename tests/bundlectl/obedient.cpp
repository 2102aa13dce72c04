// An item that a test ends as it likes: by SIGUSR1 with a status that lets it rest, by SIGUSR2 with one that asks for a
// relaunch, by any other signal as that signal does.
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

int main()
{
    constexpr int rest = 5;
    constexpr int relaunch = 2;
    // A sanitizer handles the signals of a fault. No core dumps are needed.
    for (int signal = 1; signal < SIGRTMIN; ++signal) {
        static_cast<void>(std::signal(signal, SIG_DFL));
    }
    const rlimit none{};
    ::setrlimit(RLIMIT_CORE, &none);
    static_cast<void>(std::signal(SIGUSR1, [](int) { ::_exit(rest); }));
    static_cast<void>(std::signal(SIGUSR2, [](int) { ::_exit(relaunch); }));
    for (;;) {
        ::pause();
    }
}
