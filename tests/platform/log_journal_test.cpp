// The log on the stream of the system's journal.
#include "platform/log_fixture.h"
#include "support/match.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

namespace {

/// Standard error is a socket, which keeps each write separate.
class TheLogOnASocket : public TheLog {
protected:
    TheLogOnASocket()
    {
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, m_ends.data()) == 0) {
            ::fstat(m_ends[1], &m_status);
        }
    }
    ~TheLogOnASocket() override
    {
        ::close(m_ends[0]);
        ::close(m_ends[1]);
    }

    /// The values of JOURNAL_STREAM for the socket, and for another file of the same device.
    std::string Name(unsigned long long beside = 0) const
    {
        return std::to_string(m_status.st_dev) + ":" + std::to_string(m_status.st_ino + beside);
    }

    /// Runs the steps in a child with that JOURNAL_STREAM. Returns the writes.
    std::vector<std::string> Written(const std::string& journalStream, const std::function<void()>& steps)
    {
        EXPECT_EQ(InChild([&] {
                      ::dup2(m_ends[1], STDERR_FILENO);
                      ::setenv("JOURNAL_STREAM", journalStream.c_str(), 1);
                      steps();
                  }),
                  0);
        std::vector<std::string> pieces;
        std::array<char, 8192> piece{};
        for (ssize_t size = 0; (size = ::recv(m_ends[0], piece.data(), piece.size(), 0)) > 0;) {
            pieces.emplace_back(piece.data(), static_cast<std::size_t>(size));
        }
        return pieces;
    }

private:
    std::array<int, 2> m_ends{-1, -1};
    struct stat m_status {};
};

/// The prefixes of records; "" for those that begin with their time.
std::vector<std::string> PrefixesOf(const std::vector<std::string>& records)
{
    std::vector<std::string> prefixes;
    for (const std::string& record : records) {
        const auto found = Match(record, "(<[0-9]>)?[0-9]{4}-.*\n");
        prefixes.push_back(found.empty() ? "no record: " + record : record[0] == '<' ? found[1] : "");
    }
    return prefixes;
}

void LogBothLevels()
{
    ZQ_WriteLog(4, 1, 0, 0, "src/x.cpp", 7, "information");
    ZQ_WriteLog(4, 3, 0, 0, "src/x.cpp", 7, "error");
}

using Prefixes = std::vector<std::string>;

} // namespace

TEST_F(TheLogOnASocket, GivesTheJournalEachRecordsPriority)
{
    EXPECT_EQ(PrefixesOf(Written(Name(), LogBothLevels)), (Prefixes{"<6>", "<3>"}));
}

TEST_F(TheLogOnASocket, GivesTheJournalThePrioritiesOfAChildsRecordsToo)
{
    const auto logInChild = [] {
        const pid_t child = ::fork();
        if (child == 0) {
            LogBothLevels();
            ::_exit(0);
        }
        ::waitpid(child, nullptr, 0);
        LOG("parent");
    };
    EXPECT_EQ(PrefixesOf(Written(Name(), logInChild)), (Prefixes{"<6>", "<3>", "<6>"}));
}

TEST_F(TheLogOnASocket, GivesTheJournalThePriorityOfTheRecordThatALogCannotBeOpened)
{
    const auto logToNowhere = [] {
        ::setenv("ZQ_LOG_FILE", "/nowhere/to/be/found", 1);
        LOG("first");
    };
    EXPECT_EQ(PrefixesOf(Written(Name(), logToNowhere)), (Prefixes{"<3>", "<6>"}));
}

TEST_F(TheLogOnASocket, WritesARecordForTheJournalInOnePieceOfFourKibibytesAtMost)
{
    const auto records = Written(Name(), [] { LOG("%s", std::string(10000, 'x').c_str()); });
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].size(), 4096U);
    EXPECT_EQ(records[0].back(), '\n');
}

TEST_F(TheLogOnASocket, GivesNoPriorityUnlessJournalStreamNamesTheSocket)
{
    const std::string name = Name();
    for (const std::string& other :
         {Name(1), "1" + name, name + "0", name + " ", name.substr(0, name.find(':')),
          name.substr(0, name.find(':') + 1), name.substr(name.find(':')), std::string(), std::string("journal")}) {
        EXPECT_EQ(PrefixesOf(Written(other, LogBothLevels)), (Prefixes{"", ""})) << other;
    }
}

TEST_F(TheLogOnASocket, GivesNoPriorityInAFile)
{
    const auto logToFile = [this] {
        ::setenv("ZQ_LOG_FILE", m_file.c_str(), 1);
        LogBothLevels();
    };
    EXPECT_EQ(Written(Name(), logToFile).size(), 0U);
    const auto lines = Lines(ReadFile(m_file));
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(MessageOf(lines[0]), "information");
}
