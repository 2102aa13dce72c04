// The lowest possible memory of a daemon of this framework: a ServerApplication with only a directory watcher.
//
//     floor_memory DIRECTORY
#include <Poco/DirectoryWatcher.h>
#include <Poco/Util/ServerApplication.h>

#include <iostream>
#include <string>
#include <vector>

namespace {

class WatchingApplication : public Poco::Util::ServerApplication {
protected:
    int main(const std::vector<std::string>& arguments) override
    {
        if (arguments.size() != 1) {
            std::cerr << "usage: floor_memory DIRECTORY" << std::endl;
            return EXIT_USAGE;
        }
        constexpr int interval = 1;
        const Poco::DirectoryWatcher watcher(arguments.front(), Poco::DirectoryWatcher::DW_FILTER_ENABLE_ALL, interval);
        waitForTerminationRequest();
        return EXIT_OK;
    }
};

} // namespace

int main(int argc, char** argv)
{
    WatchingApplication application;
    return application.run(argc, argv);
}
