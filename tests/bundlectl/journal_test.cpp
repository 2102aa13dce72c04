// The log in the journal, which a program of the test answers in place of journalctl.
#include "model/log_access.h"
#include "model/log_reader.h"

#include "support/files.h"
#include "support/temporary_directory.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

using Model::LogReader;

namespace {

constexpr const char RECORD[] = "2026-11-21T04:14:09.123456Z INFO 4 0 1234 1236 src/bundle_manager.cpp:157 ";

using Texts = std::vector<std::string>;

class TheJournal : public ::testing::Test {
public:
    TheJournal()
    {
        // The shell that runs the script needs no program, so the path has no other directory.
        ::setenv("PATH", m_programs.Path().c_str(), 1);
    }
    ~TheJournal() override { ::setenv("PATH", m_path.c_str(), 1); }

    /// @param script with which journalctl answers
    void Answer(const std::string& script) const
    {
        WriteProgram(m_programs / "journalctl", "#!/bin/sh\necho \"$@\" > " + m_programs / "arguments\n" + script);
    }

    /// The arguments that it was given.
    std::string Asked() const { return ReadFile(m_programs / "arguments"); }

    static LogReader Open(const Model::LogPart& part = {})
    {
        return LogReader(Model::OpenLog({Model::LogLocation::JOURNAL, "radio.service", ""}, part));
    }

    static Texts MessagesIn(LogReader& reader)
    {
        Texts messages;
        for (Model::LogRecord record; reader.Next(record);) {
            messages.emplace_back(record.message);
        }
        return messages;
    }

private:
    const TemporaryDirectory m_programs;
    const std::string m_path = ::getenv("PATH");
};

} // namespace

TEST_F(TheJournal, IsAskedForTheUnitsTextsAlone)
{
    Answer("");
    LogReader all = Open();
    MessagesIn(all);
    EXPECT_EQ(Asked(), "--unit=radio.service --output=cat --quiet --no-pager\n");
}

TEST_F(TheJournal, IsAskedForOneBootWhenOneServerIsWanted)
{
    Answer("");
    LogReader ofServer = Open({std::nullopt, 1234});
    MessagesIn(ofServer);
    EXPECT_EQ(Asked(), "--unit=radio.service --output=cat --quiet --no-pager --boot\n");
}

TEST_F(TheJournal, IsAskedForATimeAndFollowed)
{
    Answer("");
    LogReader recent = Open({Model::Time(std::chrono::seconds(1792670400)), 0, true});
    MessagesIn(recent);
    EXPECT_EQ(Asked(), "--unit=radio.service --output=cat --quiet --no-pager --since=@1792670400 --follow\n");
}

TEST_F(TheJournal, GivesItsRecords)
{
    Answer("echo '" + std::string(RECORD) + "one'; echo 'what an item prints'; echo '" + RECORD + "two'\n");
    LogReader reader = Open();
    EXPECT_EQ(MessagesIn(reader), (Texts{"one", "two"}));
    EXPECT_EQ(reader.Troubles(), Texts{});
}

TEST_F(TheJournal, LeavesOutHalfARecordAndSaysSo)
{
    Answer("echo '" + std::string(RECORD) + "one'; printf '" + RECORD + "tw'\n");
    LogReader reader = Open();
    EXPECT_EQ(MessagesIn(reader), Texts{"one"});
    EXPECT_EQ(reader.Troubles(), Texts{"1 record(s) are not whole and were left out."});
}

TEST_F(TheJournal, IsReportedWhenItsReadingFails)
{
    Answer("echo '" + std::string(RECORD) + "one'; exit 3\n");
    LogReader failed = Open();
    EXPECT_EQ(MessagesIn(failed), Texts{"one"});
    EXPECT_EQ(failed.Troubles(), Texts{"journalctl has failed with status 3: its output may not be complete."});
    EXPECT_EQ(MessagesIn(failed), Texts{}) << "the end remains the end";
    EXPECT_EQ(failed.Troubles().size(), 1U);

    Answer("kill -9 $$\n");
    LogReader killed = Open();
    MessagesIn(killed);
    EXPECT_EQ(killed.Troubles(), Texts{"journalctl was ended by signal 9: its output may not be complete."});
}

TEST_F(TheJournal, IsReportedWhenJournalctlIsMissing)
{
    LogReader reader = Open();
    EXPECT_EQ(MessagesIn(reader), Texts{});
    EXPECT_EQ(reader.Troubles(), Texts{"journalctl cannot be run: No such file or directory."});
}

// journalctl leaves out what its user may not read, and does not say so.
TEST_F(TheJournal, IsReportedWhenItHasNothing)
{
    Answer("");
    LogReader all = Open();
    MessagesIn(all);
    EXPECT_EQ(all.Troubles(),
              Texts{"The journal has nothing of radio.service that this user may read. Root may read it "
                    "all, and the members of the group systemd-journal."});
    LogReader recent = Open({Model::Time(std::chrono::seconds(1792670400))});
    MessagesIn(recent);
    EXPECT_EQ(recent.Troubles(), Texts{}) << "nothing may have happened since then";
}

TEST_F(TheJournal, IsNotWaitedForByOneWhoReadsNoFurther)
{
    Answer("echo '" + std::string(RECORD) + "one'; while :; do :; done\n");
    LogReader reader = Open({std::nullopt, 0, true});
    Model::LogRecord record;
    ASSERT_TRUE(reader.Next(record));
    EXPECT_EQ(record.message, "one");
}
