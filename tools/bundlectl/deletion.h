#ifndef BUNDLECTL_DELETION_H
#define BUNDLECTL_DELETION_H

#include "exit_status.h"

#include <chrono>
#include <string>

/// The bundle to delete, and the place of its directory.
struct DeletionOrder {
    std::string name;
    std::string collection;    ///< empty: the running server's
    std::string configuration; ///< empty: the running server's
    std::chrono::seconds timeout{};
};

/// The result of the deletion.
struct DeletionResult {
    ExitStatus status = EXIT_FAILED;
    std::string text;       ///< a sentence for people that begins with the bundle
    bool isRefused = false; ///< the server could not stop, unload or remove it
};

/// Asks the server to delete a bundle, and checks that its directory has gone. Waits for the answer.
DeletionResult DeleteBundle(const DeletionOrder& order);

#endif
