// bundlectl put, killed at each of its system calls that change files.
#include "bundlectl/author/killed_program.h"
#include "bundlectl/verb_test.h"
#include "support/collection_builder.h"
#include "support/files.h"
#include "support/program.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

class AKilledPut : public ::testing::Test {
public:
    AKilledPut()
    {
        fs::create_directory(m_root / "bundles");
        one.Bundle("radio").Item("tunerd", "#!/bin/sh\n# one\n").Write();
        two.Bundle("radio").Item("tunerd", "#!/bin/sh\n# two\n").Item("watchd", "#!/bin/sh\n# two\n").Write();
    }

    std::string Bundles() const { return m_root / "bundles"; }
    std::vector<std::string> Words(const std::vector<std::string>& arguments) const
    {
        // The program that has the verb: bundlectl itself would only execute it.
        std::vector<std::string> words{BUNDLECTL_PUT_PROGRAM};
        words.insert(words.end(), arguments.begin(), arguments.end());
        words.insert(words.end(), {"--collection", Bundles(), "--wait", "0"});
        return words;
    }
    Ended Run(std::vector<std::string> arguments) const
    {
        arguments = Words(arguments);
        arguments.erase(arguments.begin());
        return RunToEnd(BUNDLECTL_PUT_PROGRAM, arguments);
    }

    /// The version in force, according to all of its files; empty: none.
    std::string PresentVersion() const
    {
        const std::string bundle = Bundles() + "/radio";
        if (!Exists(bundle)) {
            return "";
        }
        for (const auto* const version : {&one, &two}) {
            bool isWhole = true;
            for (const auto& entry : fs::recursive_directory_iterator(*version / "radio")) {
                const std::string path = bundle + "/" + fs::relative(entry.path(), *version / "radio").string();
                isWhole = isWhole && Exists(path) && (entry.is_directory() || ReadFile(path) == ReadFile(entry.path()));
            }
            if (isWhole && Exists(bundle + "/bin/watchd") == (version == &two)) {
                return version == &one ? "one" : "two";
            }
        }
        return "half a bundle";
    }

    /// Runs the command again and again, and kills it one stop later each time, until it ends by itself.
    /// @param prepare restores the state before the command
    void KillEverywhere(const std::vector<std::string>& arguments, const std::function<void()>& prepare,
                        const std::string& before, const std::string& after) const
    {
        bool wasKilled = true;
        int kills = 0;
        bool wasAfter = false;
        for (int stop = 0; wasKilled; ++stop) {
            prepare();
            ASSERT_EQ(PresentVersion(), before);
            wasKilled = RunKilledAt(Words(arguments), stop);
            kills += wasKilled ? 1 : 0;
            const std::string found = PresentVersion();
            ASSERT_TRUE(found == before || found == after) << "killed at stop " << stop << ": " << found;
            wasAfter = found == after;
            // Leftovers do not disturb the next command, which removes them.
            const Ended next = Run({"put", two / "radio"});
            ASSERT_EQ(next.status, 0) << "after stop " << stop << ": " << next.errors;
            ASSERT_EQ(PresentVersion(), "two");
            ASSERT_FALSE(Exists(Store() + "/unpacked"));
            ASSERT_FALSE(Exists(Store() + "/versions/radio/part"));
            ASSERT_FALSE(Exists(Store() + "/versions/radio/next"));
            ASSERT_TRUE(OnlyWholeVersionsAreKept()) << "after stop " << stop;
        }
        EXPECT_TRUE(wasAfter);
        EXPECT_GT(kills, 20) << "the program makes many such calls";
    }

    bool OnlyWholeVersionsAreKept() const
    {
        const fs::directory_iterator versions(Store() + "/versions/radio");
        return std::all_of(begin(versions), end(versions), [](const fs::directory_entry& entry) {
            return Exists(entry.path() / "BundleManifest.ini") && Exists(entry.path() / "bin/tunerd") &&
                   Exists(entry.path() / ".bundlectl");
        });
    }

    void Clear() const
    {
        fs::remove_all(Store());
        fs::remove_all(Bundles() + "/radio");
    }

    std::string Store() const { return m_root / ".bundles.bundlectl"; }

    CollectionBuilder one;
    CollectionBuilder two;

private:
    TemporaryDirectory m_root;
};

} // namespace

TEST_F(AKilledPut, LeavesNothingOrANewBundle)
{
    KillEverywhere(
        {"put", two / "radio"}, [this] { Clear(); }, "", "two");
}

TEST_F(AKilledPut, LeavesTheOldOrTheNewVersion)
{
    KillEverywhere(
        {"put", two / "radio"},
        [this] {
            Clear();
            fs::copy(one / "radio", Bundles() + "/radio", fs::copy_options::recursive);
        },
        "one", "two");
}

TEST_F(AKilledPut, LeavesOneOfTwoVersionsAfterARollback)
{
    KillEverywhere(
        {"rollback", "radio"},
        [this] {
            Clear();
            ASSERT_EQ(Run({"put", one / "radio"}).status, 0);
            ASSERT_EQ(Run({"put", two / "radio"}).status, 0);
        },
        "two", "one");
}
