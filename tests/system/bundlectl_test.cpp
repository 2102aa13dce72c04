#include "system/system_test.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

namespace {

using namespace std::chrono_literals;

/// A run of bundlectl. The destructor kills it if it still runs.
class Bundlectl {
public:
    Bundlectl(std::string notes, std::vector<std::string> arguments) : m_notes(std::move(notes))
    {
        arguments.insert(arguments.begin(), BUNDLECTL_PROGRAM);
        std::vector<char*> pointers;
        pointers.reserve(arguments.size() + 1);
        for (std::string& argument : arguments) {
            pointers.push_back(argument.data());
        }
        pointers.push_back(nullptr);
        m_pid = ::fork();
        if (m_pid == 0) {
            Redirect(OutputFile(), STDOUT_FILENO);
            Redirect(ErrorsFile(), STDERR_FILENO);
            ::execv(pointers[0], pointers.data());
            ::_exit(127);
        }
    }
    Bundlectl(const Bundlectl&) = delete;
    Bundlectl& operator=(const Bundlectl&) = delete;
    ~Bundlectl()
    {
        if (m_pid != 0) {
            ::kill(m_pid, SIGKILL);
            Wait();
        }
    }

    /// The exit status.
    int Wait()
    {
        int end = 0;
        ::waitpid(m_pid, &end, 0);
        m_pid = 0;
        return WIFEXITED(end) ? WEXITSTATUS(end) : -1;
    }
    void Signal(int signal) const { ::kill(m_pid, signal); }
    std::string Output() const { return ReadFile(OutputFile()); }
    std::string Errors() const { return ReadFile(ErrorsFile()); }

private:
    std::string OutputFile() const { return m_notes + ".output"; }
    std::string ErrorsFile() const { return m_notes + ".errors"; }
    static void Redirect(const std::string& path, int target)
    {
        ::dup2(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), target);
    }

    std::string m_notes;
    pid_t m_pid = 0;
};

class BundlectlAndTheServer : public SystemTest {
public:
    int Delete(const std::string& name) { return Run({"delete", name}); }

    int Run(std::vector<std::string> arguments)
    {
        Bundlectl command(Note("run"), std::move(arguments));
        const int status = command.Wait();
        output = command.Output();
        errors = command.Errors();
        return status;
    }

    std::string output;
    std::string errors;
};

} // namespace

TEST_F(BundlectlAndTheServer, DeleteABundle)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(Delete("radio"), 0);
    EXPECT_EQ(output, "bundle \"radio\" is deleted.\n");
    EXPECT_FALSE(Exists(collection / "radio"));
}

TEST_F(BundlectlAndTheServer, TellWhatIsLeftOfADeletedBundlesDirectory)
{
    collection.BundleIn("receiver").Name("radio").Copy("radiod", TEST_SLEEPER).Write();
    const std::string data = collection / "receiver/data";
    ASSERT_EQ(::mkdir(data.c_str(), 0755), 0);
    ASSERT_EQ(::mount("none", data.c_str(), "tmpfs", 0, nullptr), 0);
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(Delete("radio"), 1);
    EXPECT_EQ(output, "");
    EXPECT_NE(errors.find("its directory is not: \"" + data + "\" cannot be removed"), std::string::npos) << errors;
    ::umount(data.c_str());
}

TEST_F(BundlectlAndTheServer, FindTheDirectoryByARelativeConfigurationToo)
{
    collection.Bundle("radio").Write();
    WriteFile(Note("server.ini"), "[global]\nbundle_collection_dir = " + collection.Path() + "\n");
    daemon.SetArguments({"--config-file=server.ini"});
    daemon.SetPreparation([directory = notes.Path()] {
        if (::chdir(directory.c_str()) != 0) {
            ::_exit(126);
        }
    });
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(Delete("radio"), 0);
    EXPECT_EQ(output, "bundle \"radio\" is deleted.\n");
}

TEST_F(BundlectlAndTheServer, WaitUntilAllBundlesAreStarted)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    collection.Bundle("tuner").Copy("tunerd", TEST_SLEEPER).Write();
    daemon.Start();
    EXPECT_EQ(Run({"wait", "--for", "serving", "--pid", std::to_string(daemon.Pid())}), 0) << errors;
    EXPECT_EQ(daemon.CountInLog("bundle[radio] state changing[Starting] -> [Active]"), 1);
    EXPECT_EQ(daemon.CountInLog("bundle[tuner] state changing[Starting] -> [Active]"), 1);
    EXPECT_EQ(RequestDelete("nothing"), 404);
}

TEST_F(BundlectlAndTheServer, TellThatABundleIsUnknown)
{
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(Delete("radio"), 3);
    EXPECT_NE(errors.find("is not known to the server"), std::string::npos) << errors;
}

TEST_F(BundlectlAndTheServer, TellThatABundleIsNotDeleted)
{
    // An update that takes a new name leaves the bundle where it can no longer be stopped.
    collection.Bundle("radio").Write();
    ASSERT_TRUE(daemon.StartServing());
    staging.BundleIn("draft").Name("wireless").Write();
    ASSERT_EQ(
        ::rename((staging / "draft/BundleManifest.ini").c_str(), (collection / "radio/BundleManifest.ini").c_str()), 0);
    ASSERT_TRUE(daemon.WaitForLog("update bundle[wireless] failed."));
    EXPECT_EQ(Delete("radio"), 1);
    EXPECT_NE(errors.find("is not deleted, or only in part"), std::string::npos) << errors;
    EXPECT_TRUE(Exists(collection / "radio"));
}

TEST_F(BundlectlAndTheServer, TellThatThereIsNoServer)
{
    EXPECT_EQ(Delete("radio"), 4);
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(daemon.Stop().status, 0);
    EXPECT_EQ(Delete("radio"), 4) << "a server that has ended counts as no server";
    ASSERT_TRUE(daemon.StartServing());
    daemon.Stop(SIGKILL);
    EXPECT_EQ(Delete("radio"), 4) << "a killed server leaves its socket, and counts as no server";
}

TEST_F(BundlectlAndTheServer, TellThatThereIsNoAnswer)
{
    collection.Bundle("radio").Uninstall(Shell("exec sleep 1000")).Write();
    ASSERT_TRUE(daemon.StartServing());
    Bundlectl command(Note("delete"), {"delete", "--timeout", "1", "radio"});
    EXPECT_EQ(command.Wait(), 5);
    EXPECT_NE(command.Errors().find("no answer within 1 s"), std::string::npos) << command.Errors();
}

TEST_F(BundlectlAndTheServer, ShowAnEventForEachBundleThatIsDeleted)
{
    for (const char* name : {"one", "two", "three"}) {
        collection.Bundle(name).Write();
    }
    ASSERT_TRUE(daemon.StartServing());
    Bundlectl listener(Note("events"), {"events", "--count", "2"});
    struct stat status {};
    ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE,
                           [&status] { return ::stat(EVENT_FIFO, &status) == 0 && S_ISFIFO(status.st_mode); }));
    ASSERT_EQ(Delete("one"), 0);
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [&listener] { return Lines(listener.Output()).size() == 1; }));
    ASSERT_EQ(Delete("one"), 3);
    ASSERT_EQ(Delete("two"), 0);
    EXPECT_EQ(listener.Wait(), 0);
    const std::vector<std::string> lines = Lines(listener.Output());
    ASSERT_EQ(lines.size(), 2U);
    for (const std::string& line : lines) {
        EXPECT_EQ(::fnmatch("[0-9]*-*-*T*:*:*Z bundle_service app.event.init", line.c_str(), 0), 0) << line;
    }
    EXPECT_EQ(listener.Errors(), "");
    EXPECT_EQ(Delete("three"), 0) << "a listener that has ended does not matter";
}
