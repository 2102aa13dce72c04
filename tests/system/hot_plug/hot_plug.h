#ifndef TESTS_SYSTEM_HOT_PLUG_HOT_PLUG_H
#define TESTS_SYSTEM_HOT_PLUG_HOT_PLUG_H

#include "system/system_test.h"

#include <sys/types.h>

#include <string>
#include <vector>

/// A daemon that serves, on a collection that is empty at first. The environment variables COLLECTION and STAGING name
/// the two directories for shell commands.
class HotPlug : public SystemTest {
protected:
    HotPlug();
    void SetUp() override;

    /// Waits until the bundle has been started that many times in all.
    testing::AssertionResult IsStarted(const std::string& bundle, int times = 1);

    /// Waits for that many scans by adding a plain file for each, which stays. A scan raises the event of such a file
    /// before others. So when the second file's event comes, every event of the first scan has been handled.
    void PassScans(int count = 2);

    /// The handlers' records since the last call, without those of children.
    std::vector<std::string> NewRecords();

    /// How often each kind of event has been raised since the start, without the events of PassScans.
    int Added() { return daemon.CountInLog("dir item add event happen.") - m_files; }
    int Modified() { return daemon.CountInLog("dir item modified event happen."); }
    int Removed() { return daemon.CountInLog("dir item remove event happen."); }

    /// Whether the daemon knows no bundle of that name.
    static bool IsUnknown(const std::string& bundle) { return RequestDelete(bundle) == 404; }

    std::string In(const std::string& name) const { return collection / name; }

private:
    int m_files = 0;        // added by PassScans
    std::size_t m_seen = 0; // records that NewRecords has returned
};

#endif
