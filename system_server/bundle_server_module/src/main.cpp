#include "bundle_log.h"
#include "bundle_server.h"
#include "inherited_state.h"

#include <fcntl.h>
#include <unistd.h>

#include <exception>
#include <iostream>

namespace {

// If the server is started with one of the three closed, the next descriptor that is opened takes its number. A
// client's connection could become standard error, and the client would get the log.
void HoldStandardDescriptors()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) == -1) {
            open("/dev/null", O_RDWR); // gets the lowest free number, which is this one
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    try {
        HoldStandardDescriptors();
        SystemServer::IgnoreFileSizeSignal();
        SystemServer::BoundDescriptorLimit();
        SystemServer::BundleServer server;
        const int status = server.run(argc, argv);
        server.RethrowStartupFailure();
        return status;
    } catch (const std::exception& e) {
        std::cerr << SystemServer::ReasonOf(e) << std::endl;
    } catch (...) {
        std::cerr << "unknown exception" << std::endl;
    }
    return Poco::Util::Application::EXIT_SOFTWARE;
}
