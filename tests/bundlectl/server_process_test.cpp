// Tests which processes bundlectl treats as bundle servers, with a /proc of the test's own.
#include "model/server_process.h"

#include "support/files.h"
#include "support/temporary_directory.h"

#include <sys/types.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

class TheServersOfAMachine : public ::testing::Test {
public:
    void AddServer(pid_t pid, pid_t parent, pid_t group) const { Add(pid, parent, group, "/usr/sbin/bundle_server"); }
    void Add(pid_t pid, pid_t parent, pid_t group, const std::string& program) const
    {
        const std::string directory = m_root / std::to_string(pid);
        std::filesystem::create_directory(directory);
        WriteFile(directory + "/stat", std::to_string(pid) + " (name) S " + std::to_string(parent) + " " +
                                           std::to_string(group) + " 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 4711 0 0\n");
        WriteFile(directory + "/cmdline", program + '\0');
    }
    std::vector<pid_t> Found() const
    {
        std::vector<pid_t> pids;
        for (const Model::ServerProcess& server : Model::FindServers(Model::Proc(m_root.Path()))) {
            pids.push_back(server.stat.pid);
        }
        return pids;
    }

private:
    TemporaryDirectory m_root;
};

} // namespace

TEST_F(TheServersOfAMachine, AreAllThatRun)
{
    AddServer(300, 1, 300);
    AddServer(400, 1, 400);
    Add(500, 1, 500, "/usr/sbin/other");
    EXPECT_EQ(Found(), (std::vector<pid_t>{300, 400}));
}

TEST_F(TheServersOfAMachine, IncludeOneInTheGroupOfAShellThatHasEnded)
{
    AddServer(300, 1, 200);
    EXPECT_EQ(Found(), std::vector<pid_t>{300});
}

TEST_F(TheServersOfAMachine, AreWithoutAChildThatHasNotExecutedItsItem)
{
    AddServer(300, 1, 300);
    AddServer(310, 300, 300);
    EXPECT_EQ(Found(), std::vector<pid_t>{300});
}
