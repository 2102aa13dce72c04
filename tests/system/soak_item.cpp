// An item that tells of its birth, and dies when and how it is told:
//   SOAK_BIRTHS=FILE  gets a line at each birth: pid, name, and the order that it was born with, or "-"
//   SOAK_DOOM=PREFIX  an order in the file PREFIX and the item's name is taken and obeyed at once at the next birth
//   SIGUSR1           brings an order to one that lives, as the signal's value
// An order is an exit status, or the negative number of a signal.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>

namespace {

std::string Variable(const char* name)
{
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::optional<int> TakeDoom(const std::string& name)
{
    const std::string path = Variable("SOAK_DOOM") + name;
    std::ifstream file(path);
    int order = 0;
    if (!(file >> order)) {
        return std::nullopt;
    }
    ::unlink(path.c_str());
    return order;
}

void TellOfBirth(const std::string& name, const std::optional<int>& doom)
{
    const std::string line =
        std::to_string(::getpid()) + " " + name + " " + (doom ? std::to_string(*doom) : "-") + "\n";
    const int fd = ::open(Variable("SOAK_BIRTHS").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (::write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        ::_exit(1); // a death that nobody expects
    }
    ::close(fd);
}

[[noreturn]] void Obey(int order)
{
    if (order < 0) {
        static_cast<void>(std::raise(-order));
    }
    ::_exit(order);
}

} // namespace

int main(int /*argc*/, char** argv)
{
    // Whoever runs the test in the background may have some signals ignored, and a sanitizer would make something else
    // of those of a fault. A core is of no use to anybody.
    for (int signal = 1; signal < SIGRTMIN; ++signal) {
        static_cast<void>(std::signal(signal, SIG_DFL));
    }
    const rlimit none{};
    ::setrlimit(RLIMIT_CORE, &none);
    sigset_t orders;
    sigemptyset(&orders);
    sigaddset(&orders, SIGUSR1);
    ::sigprocmask(SIG_BLOCK, &orders, nullptr); // before anybody is told of this process
    const std::optional<int> doom = TakeDoom(argv[0]);
    TellOfBirth(argv[0], doom);
    if (doom) {
        Obey(*doom);
    }
    siginfo_t order{};
    while (::sigwaitinfo(&orders, &order) == -1) {
    }
    Obey(order.si_value.sival_int);
}
