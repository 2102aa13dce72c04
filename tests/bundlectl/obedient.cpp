// An item that a test can end in several ways. SIGUSR1: a status that causes no relaunch. SIGUSR2: a status that causes
// a relaunch. Any other signal has its default effect.
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

int main()
{
    constexpr int rest = 5;
    constexpr int relaunch = 2;
    // Resets the signals of a fault, because a sanitizer handles them. Core dumps are not needed.
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
