// An item that announces its start, and ends when and how it is ordered to:
//   SOAK_STARTS=FILE   gets a line at each start: pid, name, and the order for this start, or "-"
//   SOAK_ORDER=PREFIX  a file named PREFIX plus the item's name holds an order for the next start, obeyed at once
//   SIGUSR1            carries an order as its value
#include "system/soak/orders.h"

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

std::optional<int> TakeOrder(const std::string& name)
{
    const std::string path = Variable("SOAK_ORDER") + name;
    std::ifstream file(path);
    int order = 0;
    if (!(file >> order)) {
        return std::nullopt;
    }
    ::unlink(path.c_str());
    return order;
}

void AnnounceStart(const std::string& name, const std::optional<int>& order)
{
    const std::string line =
        std::to_string(::getpid()) + " " + name + " " + (order ? std::to_string(*order) : NO_ORDER) + "\n";
    const int fd = ::open(Variable("SOAK_STARTS").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (::write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        ::_exit(1); // a death that the test does not expect
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
    // A test that runs in the background may have inherited ignored signals, and a sanitizer handles those of a fault.
    // No core dumps are needed.
    for (int signal = 1; signal < SIGRTMIN; ++signal) {
        static_cast<void>(std::signal(signal, SIG_DFL));
    }
    const rlimit none{};
    ::setrlimit(RLIMIT_CORE, &none);
    sigset_t orders;
    sigemptyset(&orders);
    sigaddset(&orders, SIGUSR1);
    ::sigprocmask(SIG_BLOCK, &orders, nullptr); // before the test learns of this process
    const std::optional<int> atStart = TakeOrder(argv[0]);
    AnnounceStart(argv[0], atStart);
    if (atStart) {
        Obey(*atStart);
    }
    siginfo_t order{};
    while (::sigwaitinfo(&orders, &order) == -1) {
    }
    Obey(order.si_value.sival_int);
}
