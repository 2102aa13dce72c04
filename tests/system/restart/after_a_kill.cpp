#include "system/restart/after_a_kill.h"

#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

AfterAKill::AfterAKill()
{
    daemon.SetEnvironment("LD_PRELOAD", TEST_HURRY);
    daemon.SetEnvironment("ASAN_OPTIONS", "verify_asan_link_order=0");
    daemon.SetEnvironment("LC_ALL", "C");
    WriteFile(Note("server.properties"), "global.bundle_collection_dir = " + collection.Path() + "\n");
    daemon.SetArguments({"-f", Note("server.properties"), "--pidfile=" + PidFile()});
    // A group leader cannot start a session, and the runner makes the daemon a group leader. So it leaves the group
    // first. The runner sets the group in the parent as well, so the daemon may have to leave twice.
    daemon.SetPreparation([] {
        while (::setsid() == -1) {
            ::setpgid(0, ::getpgid(::getppid()));
        }
    });
}

void AfterAKill::EndWhatIsLeft()
{
    EndSession(daemon.Pid());
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return daemon.Descendants().empty(); }));
    // Orphans become children of this process.
    for (const pid_t pid : ProcessOf::Zombies(::getpid())) {
        if (pid != daemon.Pid()) {
            ::waitpid(pid, nullptr, 0);
        }
    }
}

std::string AfterAKill::UnfinishedDeletion() const
{
    return OutputOf("awk '$5 == $6 && / unload bundle\\[/ { begun[$5] = $0 }\n"
                    "     $5 == $6 && / success to rm : / { delete begun[$5] }\n"
                    "     END { for (server in begun) print begun[server] }' " +
                    daemon.LogFile() + " | awk '$5 == " + std::to_string(daemon.Pid()) + "'");
}

std::string AfterAKill::ProgramOf(const std::string& bundle, const std::string& item) const
{
    return std::filesystem::canonical(collection.Path()).string() + "/" + bundle + "/bin/" + item;
}

void EndSession(pid_t server)
{
    if (server > 0) { // 0 would be pkill's own session, the test's
        OutputOf("pkill -KILL -s " + std::to_string(server));
    }
}
