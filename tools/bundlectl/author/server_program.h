#ifndef BUNDLECTL_AUTHOR_SERVER_PROGRAM_H
#define BUNDLECTL_AUTHOR_SERVER_PROGRAM_H

#include <string>

namespace Trials {

/// The places of the server's programs on this machine.
struct ServerPrograms {
    std::string server;          ///< absolute; empty: not found
    std::string loaderDirectory; ///< the directory of dyn_lib_process_loader; empty: not found
    std::string advice;          ///< what to do when the server is not found
};

/// @param server what the user has named; empty: it is looked for beside this program, where it is installed, and in
///               PATH
/// @param loader the directory that the user has named; empty: it is looked for beside this program and the server
ServerPrograms FindServerPrograms(const std::string& server, const std::string& loader);

} // namespace Trials

#endif
