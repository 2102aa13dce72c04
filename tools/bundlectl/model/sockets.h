#ifndef BUNDLECTL_MODEL_SOCKETS_H
#define BUNDLECTL_MODEL_SOCKETS_H

#include "proc.h"

#include <map>
#include <string>
#include <vector>

namespace Model {

/// The sockets of this machine that other programs can reach: listening TCP, bound UDP, Unix with a path. Maps the
/// target of a descriptor ("socket:[1234]") to a name such as "tcp 0.0.0.0:80", "udp [::]:53" or "unix /run/x". Read
/// once, by the constructor.
class Sockets {
public:
    /// @param proc must outlive this
    /// @param pid a process of the network namespace to read; the result is empty if reading is not allowed
    Sockets(const Proc& proc, pid_t pid);

    /// The sockets of a process, each once. Also empty when its descriptors may not be read.
    std::vector<std::string> Of(pid_t pid) const;

private:
    const Proc& m_proc;
    std::map<std::string, std::string> m_names;
};

} // namespace Model

#endif
