#include "bundle_server.h"
#include "child_process.h"

#include <Poco/Exception.h>

#include <exception>
#include <iostream>

int main(int argc, char** argv)
{
    try {
        SystemServer::BoundDescriptorLimit();
        SystemServer::BundleServer server;
        const int status = server.run(argc, argv);
        server.RethrowStartupFailure();
        return status;
    } catch (const Poco::Exception& e) {
        std::cerr << e.displayText() << std::endl;
    } catch (const std::exception& e) {
        std::cerr << e.what() << std::endl;
    } catch (...) {
        std::cerr << "unknown exception" << std::endl;
    }
    return Poco::Util::Application::EXIT_SOFTWARE;
}
