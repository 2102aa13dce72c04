#ifndef TESTS_SYSTEM_SYSTEM_TEST_H
#define TESTS_SYSTEM_SYSTEM_TEST_H

#include "support/collection_builder.h"
#include "support/daemon_runner.h"
#include "support/eventually.h"
#include "support/temporary_directory.h"
#include "support/unix_client.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

constexpr const char SERVICE_SOCKET[] = "/mnt/bolt/bundlesvr.paas.kov";
constexpr const char EVENT_FIFO[] = "/mnt/bolt/event.paas.kov";

/// A collection and a daemon on it, which is not yet started. Each test program has a /mnt of its own.
///
/// Items of a bundle: a copy of TEST_SLEEPER runs until it is killed, a copy of TEST_LIBRARY has the entry functions of
/// items/library.cpp, Shell(...) makes a script.
class SystemTest : public ::testing::Test {
public:
    void TearDown() override; // shows the log of a failed test

    /// Has something happen to the daemon that happens too seldom by itself: see items/interposer.cpp.
    void Interpose(const std::string& what, const std::string& value);

    /// Moves a bundle's directory from beside the collection into it.
    void MoveIn(const std::string& name) const;

    /// A path for what items and scripts leave behind: not in their bundle, where it would count as a change.
    std::string Note(const std::string& name) const { return notes / name; }

    TemporaryDirectory notes;
    CollectionBuilder collection;
    CollectionBuilder staging;
    DaemonRunner daemon{collection.Path()};
};

/// The text of a shell script.
std::string Shell(const std::string& commands);

/// Commands that make a note of the first run and then ask to be run again, or what else the status means; the second
/// run goes on until it is killed.
std::string ExitOnFirstRun(const std::string& note, int status);

/// The content of a delete request: a name in a field of 128 bytes.
std::string NameField(const std::string& name);

/// Asks the daemon to delete a bundle. Returns the status of its reply, 0 when there is none.
std::uint16_t RequestDelete(const std::string& name);

std::vector<std::string> Lines(const std::string& text);

/// Whether the list has the messages in this order, others among them.
::testing::AssertionResult InOrder(const std::vector<std::string>& messages, const std::vector<std::string>& expected);

#endif
