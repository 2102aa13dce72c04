// Many directories at once: none is missed, none is raised twice, and their order is kept.

#include "unit/watcher/watched_collection.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>

namespace {

namespace fs = std::filesystem;

class ManyDirectories : public WatchingACollection {};

} // namespace

TEST_F(ManyDirectories, AreAddedModifiedAndRemovedWithoutAMissedOrDoubledEvent)
{
    Watch();
    const auto expected = [](const std::string& what) {
        Events events;
        for (int i = 100; i < 200; ++i) {
            events.push_back(what + " b" + std::to_string(i));
        }
        return events;
    };
    const auto sorted = [](Events events) {
        std::sort(events.begin(), events.end());
        return events;
    };
    const auto forAll = [](const std::function<void(const std::string&)>& action) {
        for (int i = 100; i < 200; ++i) {
            action("b" + std::to_string(i));
        }
    };
    for (int round = 0; round < 3; ++round) {
        forAll([this](const std::string& name) { MakeBundle(Aside(name)); });
        // During scans: some directories are added before a scan and some after it.
        EXPECT_EQ(
            sorted(EventsOf([&] { forAll([this](const std::string& name) { fs::rename(Aside(name), In(name)); }); })),
            expected("added"));
        EXPECT_EQ(sorted(EventsOf(
                      [&] { forAll([this](const std::string& name) { WriteFile(In(name) + "/bin/new", ""); }); })),
                  expected("modified"));
        EXPECT_EQ(sorted(EventsBetweenTwoScans(
                      [&] { forAll([this](const std::string& name) { fs::remove_all(In(name)); }); })),
                  expected("removed"));
    }
    Watch(UNHURRIED);
    EXPECT_EQ(sorted(EventsOf([&] { forAll([this](const std::string& name) { MakeBundle(In(name)); }); })),
              expected("added"));
}

TEST_F(ManyDirectories, AreAddedInTheOrderOfTheirArrival)
{
    Watch();
    Events expected;
    EXPECT_EQ(EventsBetweenTwoScans([&] {
                  for (const char* const name : {"tuner", "base", "radio", "alarm"}) {
                      MakeBundle(Aside(name));
                      AwaitTickAfter(Aside(name) + "/BundleManifest.ini"); // otherwise the move has the same time
                      fs::rename(Aside(name), In(name));
                      AwaitTickAfter(In(name));
                      expected.push_back(std::string("added ") + name);
                  }
              }),
              expected);
}

TEST_F(ManyDirectories, AreModifiedInTheOrderInWhichTheyWereChanged)
{
    for (const char* const name : {"alarm", "base", "radio", "tuner"}) {
        MakeBundle(In(name));
    }
    Watch();
    Events expected;
    EXPECT_EQ(EventsBetweenTwoScans([&] {
                  for (const char* const name : {"tuner", "base", "radio", "alarm"}) {
                      AppendFile(In(name) + "/BundleManifest.ini", "\n");
                      AwaitTickAfter(In(name) + "/BundleManifest.ini");
                      expected.push_back(std::string("modified ") + name);
                  }
              }),
              expected);
}
