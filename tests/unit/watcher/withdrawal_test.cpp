// Directories that the server itself removes: the watcher raises nothing of them but their end.

#include "unit/watcher/step_by_step.h"

#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <string>

namespace {

namespace fs = std::filesystem;

class Withdrawing : public StepByStep {
protected:
    using Withdrawal = SystemServer::BundleDirWatcher::Withdrawal;

    /// Ends with the directory still there: the rest is removed later or never.
    void WithdrawAndBegin()
    {
        Withdrawal withdrawal(*watcher, In("radio"));
        withdrawal.Begin();
    }
    bool IsWithdrawn() { return watcher->IsWithdrawn(In("radio")); }
    static ino_t NumberOf(const std::string& path)
    {
        struct stat status {};
        return ::stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
    }
};

} // namespace

TEST_F(Withdrawing, RaisesNothingOfTheDirectoryButItsEnd)
{
    std::optional<Withdrawal> withdrawal(std::in_place, *watcher, In("radio"));
    withdrawal->Begin();
    EXPECT_EQ(EventsOfSteps({Removing("data/1"), [] {}, [] {}, Removing("BundleManifest.ini"), [] {}, [] {},
                             [this] { fs::remove_all(In("radio") + "/bin"); }, [] {}, [] {}}),
              After(9, {}));
    EXPECT_TRUE(IsWithdrawn());
    EXPECT_EQ(EventsOf([&] {
                  fs::remove_all(In("radio"));
                  EXPECT_FALSE(IsWithdrawn());
                  withdrawal.reset();
              }),
              Events{"removed radio"});
    MakeBundle(Aside("radio"));
    EXPECT_EQ(EventsOf("mv \"$ASIDE\"/radio \"$COLLECTION\"/"), Events{"added radio"});
    EXPECT_EQ(EventsOf("touch \"$COLLECTION\"/radio"), Events{"modified radio"});
}

TEST_F(Withdrawing, CoversTheRestOfTheDirectory)
{
    WithdrawAndBegin();
    for (const char* const command : {"touch \"$COLLECTION\"/radio", "rm -r \"$COLLECTION\"/radio/bin",
                                      "echo >> \"$COLLECTION\"/radio/BundleManifest.ini"}) {
        EXPECT_EQ(EventsOf(command), Events{}) << command;
        EXPECT_TRUE(IsWithdrawn());
    }
    EXPECT_EQ(EventsOf([this] {
                  watcher->RetryAdd(In("radio"));
                  EXPECT_TRUE(watcher->RaiseOnceMore(In("radio")));
                  watcher->AcceptChanges(In("radio"));
              }),
              Events{});
    EXPECT_EQ(EventsOf("rm -r \"$COLLECTION\"/radio"), Events{"removed radio"});
}

TEST_F(Withdrawing, EndsWhenAnotherDirectoryTakesItsPlaceAtAnyTime)
{
    for (int i = 0; i < 3; ++i) {
        MakeBundle(Aside("radio"));
        WithdrawAndBegin();
        EXPECT_EQ(EventsBetweenTwoScans("mv \"$COLLECTION\"/radio \"$ASIDE\"/old && mv \"$ASIDE\"/radio "
                                        "\"$COLLECTION\"/ && rm -r \"$ASIDE\"/old"),
                  (Events{"removed radio", "added radio"}));
        EXPECT_FALSE(IsWithdrawn());
    }
}

TEST_F(Withdrawing, EndsWithTheRemovalEvenIfTheSameLinkIsMadeAgainAtOnce)
{
    fs::rename(In("radio"), Aside("radio"));
    recorder.PassScans(2);
    fs::create_directory_symlink(Aside("radio"), In("radio"));
    recorder.PassScans(4);
    EXPECT_EQ(EventsBetweenTwoScans([this] {
                  {
                      Withdrawal withdrawal(*watcher, In("radio"));
                      withdrawal.Begin();
                      fs::remove(In("radio"));
                  }
                  fs::create_directory_symlink(Aside("radio"), In("radio"));
              }),
              (Events{"removed radio", "added radio"}));
}

TEST_F(Withdrawing, RecognisesANewDirectoryOfTheSameNumberByItsTimeOfBirth)
{
    WithdrawAndBegin();
    bool isSameNumber = false;
    const Events events = EventsBetweenTwoScans([&] {
        const ino_t number = NumberOf(In("radio"));
        fs::remove_all(In("radio"));
        constexpr int attempts = 1000; // most file systems reuse the lowest free number
        for (int i = 0; i < attempts && !isSameNumber; ++i) {
            const std::string candidate = Aside(std::to_string(i));
            fs::create_directory(candidate);
            isSameNumber = NumberOf(candidate) == number;
            if (isSameNumber) {
                MakeBundle(candidate);
                fs::rename(candidate, In("radio"));
            }
        }
    });
    if (!isSameNumber) {
        GTEST_SKIP() << "this file system does not reuse inode numbers";
    }
    EXPECT_EQ(events, (Events{"removed radio", "added radio"}));
}

// A mount point, for example, can be emptied but not removed.
TEST_F(Withdrawing, EndsWhenTheEmptiedDirectoryIsFilledAgain)
{
    std::optional<Withdrawal> withdrawal(std::in_place, *watcher, In("radio"));
    withdrawal->Begin();
    EXPECT_EQ(EventsOf("rm -r \"$COLLECTION\"/radio/*"), Events{});
    withdrawal.reset();
    EXPECT_TRUE(IsWithdrawn());
    EXPECT_EQ(EventsOf([this] { MakeBundle(In("radio")); }), (Events{"removed radio", "added radio"}));
    EXPECT_FALSE(IsWithdrawn());
}

TEST_F(Withdrawing, LosesNoChangeWhenTheRemovalHasNotBegun)
{
    EXPECT_EQ(EventsOf([this] {
                  const Withdrawal withdrawal(*watcher, In("radio"));
                  RunShell("touch \"$COLLECTION\"/radio");
                  recorder.PassScans(2);
                  EXPECT_EQ(recorder.Noted(), Events{});
              }),
              Events{"modified radio"});
    EXPECT_FALSE(IsWithdrawn());
    EXPECT_EQ(EventsOf([this] {
                  RunShell("touch \"$COLLECTION\"/radio");
                  const Withdrawal withdrawal(*watcher, In("radio"));
              }),
              Events{"modified radio"})
        << "a change made before the withdrawal";
}

TEST_F(Withdrawing, StopsAChangeThatIsFoundAndNotYetRaised)
{
    recorder.SetHandler([this](const std::string& event) {
        if (event == "added first") {
            WithdrawAndBegin();
        }
    });
    EXPECT_EQ(EventsBetweenTwoScans([this] {
                  AppendFile(In("radio") + "/BundleManifest.ini", "\n");
                  WriteFile(In("first"), "");
              }),
              Events{"added first"});
}

TEST_F(Withdrawing, CoversADirectoryThatIsNotYetKnown)
{
    EXPECT_EQ(EventsBetweenTwoScans([this] {
                  MakeBundle(In("tuner"));
                  Withdrawal withdrawal(*watcher, In("tuner"));
                  withdrawal.Begin();
                  fs::remove_all(In("tuner") + "/bin");
              }),
              Events{});
    EXPECT_TRUE(watcher->IsWithdrawn(In("tuner")));
    EXPECT_EQ(EventsOf("rm -r \"$COLLECTION\"/tuner"), Events{}) << "it was never added";
}

TEST_F(Withdrawing, OfAPathThatIsNoItemDoesNothing)
{
    EXPECT_EQ(EventsOf([this] {
                  for (const std::string& path : {In(""), Aside("radio"), std::string("radio"), std::string()}) {
                      Withdrawal withdrawal(*watcher, path);
                      withdrawal.Begin();
                      EXPECT_FALSE(watcher->IsWithdrawn(path));
                  }
              }),
              Events{});
    EXPECT_FALSE(IsWithdrawn());
    EXPECT_EQ(EventsOf("touch \"$COLLECTION\"/radio"), Events{"modified radio"});
}
