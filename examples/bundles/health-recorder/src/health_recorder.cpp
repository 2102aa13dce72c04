// Records the machine's load, its available memory and its number of processes in the bundle's data/samples.csv, every
// five seconds. A native program that the server runs as a child process.
#include "common/samples.h"

#include <chrono>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>

namespace {

constexpr std::chrono::seconds INTERVAL(5);

/// The word of a file of /proc with that number, counted from zero; empty when the file has fewer words.
std::string Word(const char* file, int place)
{
    std::ifstream stream(file);
    std::string word;
    for (int i = 0; i <= place && stream; ++i) {
        stream >> word;
    }
    return stream ? word : "";
}

/// The value of a line "KEY: VALUE kB" of /proc/meminfo.
std::string MemoryValue(const std::string& key)
{
    std::ifstream stream("/proc/meminfo");
    std::string line;
    while (std::getline(stream, line)) {
        if (line.compare(0, key.size() + 1, key + ":") == 0) {
            const std::size_t begin = line.find_first_not_of(' ', key.size() + 1);
            return line.substr(begin, line.find(' ', begin) - begin);
        }
    }
    return "";
}

/// The second number of "RUNNING/ALL" in /proc/loadavg.
std::string Tasks()
{
    const std::string tasks = Word("/proc/loadavg", 3);
    return tasks.substr(tasks.find('/') + 1);
}

[[noreturn]] void Record(const Examples::Samples& samples)
{
    for (;;) {
        samples.Append(Word("/proc/loadavg", 0) + ',' + MemoryValue("MemAvailable") + ',' + Tasks());
        std::this_thread::sleep_for(INTERVAL);
    }
}

} // namespace

int main()
{
    try {
        // Argument zero is the bare name of the item. Only the kernel knows the program's path.
        const std::string bundle = Examples::BundleOf(std::filesystem::read_symlink("/proc/self/exe"));
        std::cerr << "health_recorder: a sample every " << INTERVAL.count() << " s to " << bundle
                  << "/data/samples.csv\n";
        Record(Examples::Samples(bundle, "samples.csv", "load_1min,memory_available_kb,tasks"));
    } catch (const std::exception& e) {
        // Status 1 asks for no relaunch: trying once a second does not empty a full disk.
        std::cerr << "health_recorder: " << e.what() << '\n';
        return 1;
    }
}
