// Measures the bundle server itself: its resident memory, threads and open descriptors, every five seconds, in the
// bundle's data/server.csv. A library whose function runs on a thread inside the server, which is what lets it look
// from within; a fault in here is a fault of the server.
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
    // The one that reads the directory is not counted.
    return std::distance(Iterator("/proc/self/fd"), Iterator()) - 1;
}

std::string OwnPath()
{
    Dl_info info{};
    return ::dladdr(reinterpret_cast<const void*>(&OwnPath), &info) != 0 ? info.dli_fname : "";
}

/// The server stops an item of this kind by cancelling its thread. A cancellation that strikes in the middle of a
/// destructor would end the whole server, so it is let in here only, where nothing needs an end.
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

/// The function that the manifest names. An exception must not leave it, except the one by which the C library unwinds
/// a cancelled thread: catch what can be thrown by name, never everything.
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
