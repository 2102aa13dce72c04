// Measures the network traffic of the machine, without loopback: bytes received and sent, every five seconds, in the
// bundle's data/traffic.csv. A library whose function runs in its own process, which is the server's loader.
#include "common/samples.h"

#include <dlfcn.h>

#include <chrono>
#include <exception>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>

namespace {

constexpr std::chrono::seconds INTERVAL(5);

struct Traffic {
    unsigned long long received = 0;
    unsigned long long sent = 0;
};

/// The sum over all interfaces. A line of /proc/net/dev is "NAME: RECEIVED seven-more SENT ...".
Traffic Count()
{
    std::ifstream stream("/proc/net/dev");
    Traffic sum;
    std::string line;
    while (std::getline(stream, line)) {
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos || line.substr(0, colon).find("lo") != std::string::npos) {
            continue;
        }
        std::istringstream fields(line.substr(colon + 1));
        Traffic one;
        unsigned long long other = 0;
        fields >> one.received;
        for (int i = 0; i < 7; ++i) {
            fields >> other;
        }
        fields >> one.sent;
        sum.received += one.received;
        sum.sent += one.sent;
    }
    return sum;
}

[[noreturn]] void Measure(const Examples::Samples& samples)
{
    for (Traffic before = Count();;) {
        std::this_thread::sleep_for(INTERVAL);
        const Traffic now = Count();
        samples.Append(std::to_string(now.received - before.received) + ',' + std::to_string(now.sent - before.sent));
        before = now;
    }
}

/// The library's own path: /proc/self/exe would be the loader's.
std::string OwnPath()
{
    Dl_info info{};
    return ::dladdr(reinterpret_cast<const void*>(&OwnPath), &info) != 0 ? info.dli_fname : "";
}

} // namespace

/// The function that the manifest names. What it returns is the exit status of the process.
extern "C" int net_meter_main()
{
    try {
        Measure(Examples::Samples(Examples::BundleOf(OwnPath()), "traffic.csv", "received_bytes,sent_bytes"));
    } catch (const std::exception& e) {
        std::cerr << "net_meter: " << e.what() << '\n';
        return 1;
    }
}
