// Runs a fuzz target on files, such as those of its corpus. So what the fuzzer once found stays tested in every build,
// also without a fuzzer.
#include "fuzz/fuzz_target.h"

#include "support/collection_builder.h"

#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> FilesOf(const fs::path& place)
{
    if (!fs::is_directory(place)) {
        return {place};
    }
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(place)) {
        files.push_back(entry.path());
    }
    return files;
}

void Run(const fs::path& path)
{
    const std::string content = ReadFile(path.string());
    if (content.size() != fs::file_size(path)) {
        throw std::runtime_error(path.string() + " cannot be read");
    }
    // In a buffer of exactly its size, so that a sanitizer sees every read beyond it.
    const std::vector<std::uint8_t> input(content.begin(), content.end());
    // Before the run, so that an input that ends the process is named.
    std::cout << path.string() << std::endl;
    LLVMFuzzerTestOneInput(input.data(), input.size());
}

} // namespace

int main(int argc, char** argv)
{
    if (LLVMFuzzerInitialize != nullptr) {
        LLVMFuzzerInitialize(&argc, &argv);
    }
    try {
        int count = 0;
        for (int i = 1; i < argc; ++i) {
            for (const fs::path& path : FilesOf(argv[i])) {
                Run(path);
                ++count;
            }
        }
        std::cout << count << " files without a finding" << std::endl;
        return count > 0 ? EXIT_SUCCESS : EXIT_FAILURE; // an empty corpus proves nothing
    } catch (const std::exception& e) {
        std::cerr << "finding: an exception: " << e.what() << std::endl;
        return EXIT_FAILURE;
    }
}
