// Copies that take longer than a scan: they are raised when they are complete.

#include "unit/watcher/watched_collection.h"

#include <algorithm>
#include <filesystem>
#include <string>

namespace {

namespace fs = std::filesystem;

class ASlowCopy : public WatchingACollection {};

} // namespace

// The handler of a plain file writes each chunk, one file a scan, so that each scan finds more than the last one.
TEST_F(ASlowCopy, IsAddedOnceWhenItIsComplete)
{
    constexpr int chunks = 8;
    Watch();
    fs::create_directories(In("radio") + "/bin");
    WriteFile(In("radio") + "/BundleManifest.ini", "[global]\n");
    int written = 0;
    int writtenWhenAdded = 0;
    recorder.SetHandler([&](const std::string& event) {
        if (event == "added radio") {
            writtenWhenAdded = written;
        } else if (event.rfind("added tick-", 0) == 0 && written < chunks) {
            AppendFile(In("radio") + "/bin/tunerd", std::string(1000, 'x'));
            ++written;
            WriteFile(In("tick-" + std::to_string(written)), "");
        }
    });
    WriteFile(In("tick-0"), "");
    EXPECT_TRUE(recorder.WaitFor("added radio"));
    recorder.PassScans(4);
    Events events = recorder.Noted();
    events.erase(std::remove_if(events.begin(), events.end(),
                                [](const std::string& event) { return event.rfind("added tick-", 0) == 0; }),
                 events.end());
    watcher.reset();
    EXPECT_EQ(events, Events{"added radio"});
    EXPECT_EQ(writtenWhenAdded, chunks);
}

// A mirroring tool sets owner, mode and times of a directory before it fills it, and perhaps again meanwhile.
TEST_F(ASlowCopy, IsNotTakenForARenameWhenItsModeWasSetFirst)
{
    Watch();
    recorder.SetHandler([this](const std::string& event) {
        if (event == "added first-scan") {
            WriteFile(In("second-scan"), "");
        }
    });
    EXPECT_EQ(EventsBetweenTwoScans([this] {
                  fs::create_directory(In("radio"));
                  AwaitTickAfter(In("radio"));
                  RunShell("chmod 700 \"$COLLECTION\"/radio");
                  WriteFile(In("first-scan"), "");
              }),
              (Events{"added first-scan", "added second-scan", "added radio"}));
}

TEST_F(ASlowCopy, IsNotTakenForARenameWhenItsModeWasSetMeanwhile)
{
    Watch();
    recorder.SetHandler([this](const std::string& event) {
        if (event == "added first-scan") {
            AppendFile(In("radio/BundleManifest.ini"), "\n");
            AwaitTickAfter(In("radio/BundleManifest.ini"));
            RunShell("chmod 700 \"$COLLECTION\"/radio");
            WriteFile(In("second-scan"), "");
        } else if (event == "added second-scan") {
            WriteFile(In("third-scan"), "");
        }
    });
    EXPECT_EQ(EventsBetweenTwoScans([this] {
                  fs::create_directory(In("radio"));
                  WriteFile(In("radio/BundleManifest.ini"), "[global]\n");
                  WriteFile(In("first-scan"), "");
              }),
              (Events{"added first-scan", "added second-scan", "added third-scan", "added radio"}));
}

TEST_F(ASlowCopy, ThatIsAbandonedRaisesNothing)
{
    Watch();
    int written = 0;
    recorder.SetHandler([&](const std::string& event) {
        if (event.rfind("added tick-", 0) != 0) {
            return;
        }
        ++written;
        if (written < 4) {
            AppendFile(In("radio") + "/half", "x");
            WriteFile(In("tick-" + std::to_string(written)), "");
        } else {
            fs::remove_all(In("radio"));
        }
    });
    fs::create_directory(In("radio"));
    WriteFile(In("tick-0"), "");
    EXPECT_TRUE(recorder.WaitFor("added tick-3"));
    recorder.PassScans(4);
    watcher.reset();
    for (const std::string& event : recorder.Noted()) {
        EXPECT_EQ(event.rfind("added tick-", 0), 0U) << event;
    }
}
