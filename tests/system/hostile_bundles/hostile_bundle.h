#ifndef TESTS_SYSTEM_HOSTILE_BUNDLES_HOSTILE_BUNDLE_H
#define TESTS_SYSTEM_HOSTILE_BUNDLES_HOSTILE_BUNDLE_H

#include "system/system_test.h"

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

/// A daemon and bundles that try to harm it. After each of them the tests ask the same: does the server still work, and
/// does it hold no more resources than before?
///
/// The items are made of two files. A copy of HOSTILE_PROGRAM does what its own name says, a copy of HOSTILE_LIBRARY
/// has an entry function for each harm that a library can do (see hostile_bundle_program.cpp,
/// hostile_bundle_library.cpp).
class HostileBundles : public SystemTest {
protected:
    /// Shortens the daemon's pauses of a second, because there are many bundles.
    HostileBundles();

    /// Root can read every file. This drops that right, so that file modes count as they do for other users.
    static void ReadAsOthersDo(DaemonRunner& runner);

    /// Starts the daemon and records its threads and descriptors when it serves.
    testing::AssertionResult StartServing();

    /// Whether a good bundle that is dropped in is started, its item is relaunched when it is killed, and a request
    /// removes it. The daemon must then have the descriptors and threads with which it began to serve, apart from the
    /// monitor, and no dead child.
    testing::AssertionResult IsUnharmed();

    /// Moves every entry of the staging directory into the collection.
    void MoveAllIn() const;

    /// Waits until the bundle has been started that many times in all.
    testing::AssertionResult IsStarted(const std::string& bundle, int times = 1);

    /// Whether the daemon knows a bundle of that name. Asks by a deletion, so a known bundle is gone afterwards.
    static bool IsUnknown(const std::string& bundle) { return RequestDelete(bundle) == 404; }

    /// Whether the same thread has written the two records in this order.
    bool IsFollowed(const std::string& record, const std::string& next);

    /// The children of the daemon that are dead and have not been waited for.
    std::vector<pid_t> DeadChildren() const;

    std::string In(const std::string& name) const { return collection / name; }

private:
    testing::AssertionResult TakesInAGoodBundle();
    testing::AssertionResult HoldsWhatItHeld() const;
    std::vector<std::string> OtherThreads() const;

    std::map<int, std::string> m_descriptors;
    std::vector<std::string> m_threads;
    int m_goodBundles = 0;
};

#endif
