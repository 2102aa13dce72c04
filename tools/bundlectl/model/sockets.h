#ifndef BUNDLECTL_MODEL_SOCKETS_H
#define BUNDLECTL_MODEL_SOCKETS_H

#include "proc.h"

#include <map>
#include <string>
#include <vector>

namespace Model {

/// The sockets of this machine that somebody can reach: TCP that listens, UDP that is bound, Unix with a path. By what
/// a descriptor leads to ("socket:[1234]"), as "tcp 0.0.0.0:80", "udp [::]:53", "unix /run/x".
class Sockets {
public:
    /// @param pid in whose network namespace to look
    Sockets(const Proc& proc, pid_t pid);

    /// Those of a process, each once. Empty too when its descriptors may not be read.
    std::vector<std::string> Of(pid_t pid) const;

private:
    const Proc& m_proc;
    std::map<std::string, std::string> m_names;
};

} // namespace Model

#endif
