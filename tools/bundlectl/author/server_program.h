#ifndef BUNDLECTL_AUTHOR_SERVER_PROGRAM_H
#define BUNDLECTL_AUTHOR_SERVER_PROGRAM_H

#include <string>

namespace Trials {

/// Where the server's programs are on this machine.
struct ServerPrograms {
    std::string server;          ///< absolute; empty when there is none
    std::string loaderDirectory; ///< of dyn_lib_process_loader; empty when there is none
    std::string advice;          ///< what to do where there is no server
};

/// @param server what the user has named; empty: it is looked for beside this program, where it is installed, and in
///               PATH
/// @param loader the directory that the user has named; empty: it is looked for beside this program and the server
ServerPrograms FindServerPrograms(const std::string& server, const std::string& loader);

} // namespace Trials

#endif
