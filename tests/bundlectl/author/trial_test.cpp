#include "bundlectl/author/trial_test.h"

#include "support/files.h"
#include "support/process_info.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <sstream>

namespace fs = std::filesystem;

std::vector<std::string> TrialTest::Words(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), BUNDLECTL_PROGRAM);
    arguments.insert(arguments.end(), {"--server", BUNDLE_SERVER_PROGRAM, "--loader", LOADER_DIRECTORY});
    return arguments;
}

void TrialTest::SetUp()
{
    // The address sanitizer's look for leaks fails inside a namespace of process numbers.
    ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
}

Ended TrialTest::Run(const std::vector<std::string>& arguments)
{
    std::vector<std::string> words = Words(arguments);
    words.erase(words.begin());
    return RunToEnd(BUNDLECTL_PROGRAM, words);
}

bool TrialTest::IsAnySleeping() const
{
    const std::vector<pid_t> all = ProcessOf::All();
    return std::any_of(all.begin(), all.end(), [this](pid_t pid) {
        const std::vector<std::string> words = ProcessOf::CommandLine(pid);
        return ProcessOf::IsAlive(pid) && std::find(words.begin(), words.end(), m_mark) != words.end();
    });
}

std::set<std::string> TrialTest::Surroundings()
{
    std::set<std::string> found;
    std::istringstream mounts(ReadFile("/proc/self/mounts"));
    for (std::string mount; std::getline(mounts, mount);) {
        found.insert(mount);
    }
    for (const fs::path& directory : {fs::path("/mnt"), fs::temp_directory_path()}) {
        for (const auto& entry : fs::directory_iterator(directory)) {
            found.insert(entry.path().string());
        }
    }
    return found;
}

// A number of seconds.
std::string TrialTest::NewMark()
{
    return std::to_string(10'000'000 + std::random_device()() % 1'000'000) + "." + std::to_string(::getpid());
}
