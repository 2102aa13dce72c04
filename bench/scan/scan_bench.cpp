// Prints the cost of one scan for collections of several sizes in which nothing changes.
//
//     bench_scan [DIRECTORY]    makes its collections below DIRECTORY; the default is the temporary directory

#include "floor/scan.h"

#include <collection_scan.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

namespace {

namespace fs = std::filesystem;
using SystemServer::CollectionScan;

class Collection {
public:
    Collection(const fs::path& place, int bundles)
    {
        std::string name = (place / "bench_scan_XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), name);
        }
        path = name;
        for (int i = 0; i < bundles; ++i) {
            const fs::path bundle = fs::path(path) / ("bundle-" + std::to_string(i));
            for (const char* const folder : {"bin", "script", "data"}) {
                fs::create_directories(bundle / folder);
            }
            std::ofstream(bundle / "BundleManifest.ini")
                << "[global]\nbundle_name = b" << i << "\nbundle_load_mode = 0\n";
            std::ofstream(bundle / "bin" / "itemd") << "#!/bin/sh\n";
        }
    }
    ~Collection()
    {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
    Collection(const Collection&) = delete;
    Collection& operator=(const Collection&) = delete;

    std::string path;
};

/// Microseconds of processor time of this thread.
double ProcessorTime()
{
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

double Median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

template <class Action> double Measure(const Action& action)
{
    const double before = ProcessorTime();
    action();
    return ProcessorTime() - before;
}

void MeasureCollection(const fs::path& place, int bundles)
{
    const Collection collection(place, bundles);
    CollectionScan scan(collection.path + "/");
    scan.Find(); // the first scan learns the entries
    const int rounds = std::clamp(200'000 / bundles, 20, 2'000);
    std::vector<double> scans;
    std::vector<double> floors;
    bool isQuiet = true;
    long long seen = 0;
    for (int i = 0; i < rounds; ++i) { // alternating, so that both run under the same load
        scans.push_back(Measure([&] { isQuiet = scan.Find().empty() && isQuiet; }));
        floors.push_back(Measure([&] { seen += floor_scan(collection.path.c_str()); }));
    }
    if (!isQuiet || seen <= 0) {
        std::fprintf(stderr, "the collection of %d bundles has changed or cannot be read\n", bundles);
        std::exit(EXIT_FAILURE);
    }
    const double cost = Median(scans);
    const double floor = Median(floors);
    std::printf("| %7d | %12.1f | %12.1f | %5.2f | %12.2f | %10.3f |\n", bundles, cost, floor, cost / floor,
                cost / bundles, cost / 1e6 * 100);
}

} // namespace

int main(int argc, char** argv)
{
    try {
        const fs::path place = argc > 1 ? fs::path(argv[1]) : fs::temp_directory_path();
        std::printf("Processor time of one scan, median; a scan is made once a second.\n\n"
                    "| bundles |     scan, us |    floor, us | ratio | us a bundle | %% of a CPU |\n"
                    "|--------:|-------------:|-------------:|------:|-------------:|-----------:|\n");
        for (const int bundles : {10, 100, 1'000, 10'000}) {
            MeasureCollection(place, bundles);
        }
        return EXIT_SUCCESS;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return EXIT_FAILURE;
    }
}
