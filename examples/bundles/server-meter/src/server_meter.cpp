// Measures the bundle server itself: its resident memory, threads and open descriptors, every five seconds, in the
// bundle's data/server.csv. A library whose function runs on a thread of the server, so it sees the server from within.
// A crash here is a crash of the server.
#include "common/samples.h"

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

namespace {

constexpr unsigned INTERVAL = 5; // seconds

/// The number in the line of /proc/self/status that begins with key.
std::string StatusValue(const std::string& key)
{
    std::ifstream stream("/proc/self/status");
    std::string word;
    while (stream >> word) {
        if (word == key) {
            stream >> word;
            return word;
        }
    }
    return "";
}

long OpenDescriptors()
{
    using Iterator = std::filesystem::directory_iterator;
    // The descriptor that reads the directory does not count.
    return std::distance(Iterator("/proc/self/fd"), Iterator()) - 1;
}

std::string OwnPath()
{
    Dl_info info{};
    return ::dladdr(reinterpret_cast<const void*>(&OwnPath), &info) != 0 ? info.dli_fname : "";
}

/// The server stops an item of this kind by cancelling its thread. A cancellation inside a destructor would end the
/// whole server. So cancellation is enabled only here, where no object needs a destructor.
void PauseCancellably()
{
    int before = 0;
    ::pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &before);
    ::sleep(INTERVAL);
    ::pthread_setcancelstate(before, nullptr);
}

[[noreturn]] void Measure(const Examples::Samples& samples)
{
    for (;;) {
        samples.Append(StatusValue("VmRSS:") + ',' + StatusValue("Threads:") + ',' + std::to_string(OpenDescriptors()));
        PauseCancellably();
    }
}

} // namespace

/// The function that the manifest names. No exception may leave it, except the one by which the C library unwinds a
/// cancelled thread. So catch the possible exceptions by name, never all of them.
extern "C" int server_meter_main()
{
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    try {
        Measure(Examples::Samples(Examples::BundleOf(OwnPath()), "server.csv", "resident_kb,threads,descriptors"));
    } catch (const std::exception& e) {
        std::cerr << "server_meter: " << e.what() << '\n';
        return 1;
    }
}
