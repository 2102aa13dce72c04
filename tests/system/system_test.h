#ifndef TESTS_SYSTEM_SYSTEM_TEST_H
#define TESTS_SYSTEM_SYSTEM_TEST_H

#include "support/collection_builder.h"
#include "support/daemon_runner.h"
#include "support/event_fifo.h"
#include "support/eventually.h"
#include "support/files.h"
#include "support/packets.h"
#include "support/shell.h"
#include "support/temporary_directory.h"
#include "support/unix_client.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

constexpr const char SERVICE_SOCKET[] = "/mnt/bolt/bundlesvr.paas.kov";

/// A collection and a daemon on it that is not started yet. Each test program has a private /mnt.
///
/// Items of a bundle: a copy of TEST_SLEEPER runs until it is killed; a copy of TEST_LIBRARY has the entry functions of
/// items/library.cpp; Shell(...) makes a script.
class SystemTest : public ::testing::Test {
public:
    void TearDown() override; // shows the log of a failed test

    /// Causes an event in the daemon that is rare by itself: see items/interposer.cpp.
    void Interpose(const std::string& what, const std::string& value);

    /// Moves a bundle's directory from the staging directory into the collection.
    void MoveIn(const std::string& name) const;

    /// A path for the notes of items and scripts. It is outside their bundle, where a new file would count as a change.
    std::string Note(const std::string& name) const { return notes / name; }

    TemporaryDirectory notes;
    CollectionBuilder collection;
    CollectionBuilder staging;
    DaemonRunner daemon{collection.Path()};
};

/// A script whose first run writes a note and exits with the status. The second run continues until it is killed.
std::string ExitOnFirstRun(const std::string& note, int status);

/// Asks the daemon to delete a bundle. Returns the status of the reply, 0 when no reply comes.
std::uint16_t RequestDelete(const std::string& name);

#endif
