// bundlectl put, killed at each of its system calls that change files.
#include "bundlectl/verb_test.h"
#include "support/collection_builder.h"
#include "support/files.h"
#include "support/program.h"

#include <gtest/gtest.h>

#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

/// Whether a call changes files or what is on the disk. Between two such calls a kill leaves the same files.
bool ChangesFiles(const __ptrace_syscall_info& info)
{
    constexpr long calls[] = {
        SYS_write,     SYS_pwrite64, SYS_ftruncate, SYS_fsync,    SYS_mkdirat, SYS_unlinkat, SYS_linkat, SYS_symlinkat,
        SYS_renameat2, SYS_fchmod,   SYS_fchmodat,  SYS_fchownat, SYS_flock,
#ifdef SYS_mkdir // the calls of older machines
        SYS_mkdir,     SYS_rmdir,    SYS_unlink,    SYS_link,     SYS_symlink, SYS_rename,   SYS_chmod,  SYS_chown,
#endif
    };
    const auto call = static_cast<long>(info.entry.nr);
    const bool isOpening = call == SYS_openat && (info.entry.args[2] & O_CREAT) != 0;
    return isOpening || std::find(std::begin(calls), std::end(calls), call) != std::end(calls);
}

pid_t StartTraced(const std::vector<std::string>& arguments)
{
    std::vector<char*> words;
    for (const std::string& argument : arguments) {
        words.push_back(const_cast<char*>(argument.c_str()));
    }
    words.push_back(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, STDOUT_FILENO);
        ::dup2(null, STDERR_FILENO);
        ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        ::execv(words[0], words.data());
        ::_exit(127);
    }
    return child;
}

/// Runs a program and kills it when it enters, or leaves, one of these calls. False when it has ended before.
/// @param stops how many entries and exits to let pass
bool RunKilledAt(const std::vector<std::string>& arguments, int stops)
{
    const pid_t child = StartTraced(arguments);
    int status = 0;
    ::waitpid(child, &status, 0); // its exec
    ::ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_EXITKILL | PTRACE_O_TRACESYSGOOD);
    bool isChanging = false;
    for (int passed = 0; WIFSTOPPED(status);) {
        __ptrace_syscall_info info{};
        ::ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
            isChanging = ChangesFiles(info);
        }
        if (isChanging && info.op != PTRACE_SYSCALL_INFO_NONE && passed++ == stops) {
            ::kill(child, SIGKILL);
            ::waitpid(child, &status, 0);
            return true;
        }
        ::ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
        ::waitpid(child, &status, 0);
    }
    return false;
}

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

    /// Which version is in force, judged by all of its files; empty when there is none.
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

    /// Does it again and again, killed one stop later each time, until it comes to its end.
    /// @param prepare puts everything as it is before
    void KillEverywhere(const std::vector<std::string>& arguments, const std::function<void()>& prepare,
                        const std::string& before, const std::string& after)
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
            // What is left does not disturb the next one, which removes it.
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
        for (const auto& entry : fs::directory_iterator(Store() + "/versions/radio")) {
            if (!Exists(entry.path() / "BundleManifest.ini") || !Exists(entry.path() / "bin/tunerd") ||
                !Exists(entry.path() / ".bundlectl")) {
                return false;
            }
        }
        return true;
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
