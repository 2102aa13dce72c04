#ifndef BUNDLECTL_PUT_VERDICT_H
#define BUNDLECTL_PUT_VERDICT_H

#include "model/installation.h"

#include <chrono>
#include <optional>
#include <string>

namespace Put {

/// A bundle whose directory has just been installed.
struct Awaited {
    std::string bundle;    ///< its name
    std::string directory; ///< its directory's name in the collection
};

/// The result of a bundle's start, according to the server's log.
struct Outcome {
    enum Kind {
        ACTIVE,     ///< it has become Active, and no item has died
        FAILED,     ///< the server has refused it, or an item has died
        NO_VERDICT, ///< the time is over
        UNKNOWN,    ///< the log cannot be read
    };

    Kind kind = UNKNOWN;
    std::string reason; ///< a sentence; empty when it is ACTIVE
};

/// Follows the log of a server from a moment on.
class Verdict {
public:
    /// Sets the moment. Earlier records do not count.
    explicit Verdict(const Model::Installation& installation);

    /// @param patience the longest time for the bundle to become Active
    /// @param soak the time for which its items must live then
    Outcome Wait(const Awaited& awaited, std::chrono::milliseconds patience, std::chrono::milliseconds soak) const;

private:
    const Model::Installation& m_installation;
    const Model::Time m_since;
};

/// The installation whose server works on a collection; its server is empty if no server does.
Model::Installation FindServerOf(const std::string& collection, const Model::Choice& choice);

} // namespace Put

#endif
