#ifndef BUNDLECTL_DELETION_H
#define BUNDLECTL_DELETION_H

#include "exit_status.h"

#include <chrono>
#include <string>

/// What is to be deleted, and where its directory is looked for.
struct DeletionOrder {
    std::string name;
    std::string collection;    ///< empty: the running server's
    std::string configuration; ///< empty: the running server's
    std::chrono::seconds timeout{};
};

/// What became of it.
struct DeletionResult {
    ExitStatus status = EXIT_FAILED;
    std::string text;       ///< a sentence for people that begins with the bundle
    bool isRefused = false; ///< the server could not stop, unload or remove it
};

/// Asks the server to delete a bundle, and looks whether its directory has gone. Waits for the answer.
DeletionResult DeleteBundle(const DeletionOrder& order);

#endif
