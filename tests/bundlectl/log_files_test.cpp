#include "model/log_files.h"
#include "model/log_follower.h"
#include "model/log_reader.h"

#include "support/collection_builder.h"
#include "support/files.h"
#include "support/temporary_directory.h"

#include <Poco/DeflatingStream.h>
#include <Poco/FileStream.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

using namespace std::chrono_literals;
using Model::LogFollower;
using Model::LogPlace;
using Model::LogReader;
using Model::LogRecord;
using Model::PlaceOfServerStart;
using Model::PlaceOfTime;
using Model::ReadFrom;
using Model::RotatedFiles;
using Model::Time;

namespace {

using Texts = std::vector<std::string>;

/// The first second of 2026.
const Time START{std::chrono::seconds(1767225600)};

std::string RecordAt(long long second, const std::string& message, int pid = 12)
{
    const Time time = START + std::chrono::seconds(second);
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm utc{};
    ::gmtime_r(&seconds, &utc);
    std::array<char, 64> text{};
    EXPECT_NE(std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S.000000Z", &utc), 0U);
    const std::string number = std::to_string(pid);
    return std::string(text.data()) + " INFO 4 0 " + number + " " + number + " a.cpp:1 " + message + "\n";
}

Texts MessagesOf(LogReader& reader)
{
    Texts messages;
    LogRecord record;
    while (reader.Next(record)) {
        messages.emplace_back(record.message);
    }
    return messages;
}

Texts MessagesFrom(const Texts& files, LogPlace place)
{
    LogReader reader(ReadFrom(files, place));
    return MessagesOf(reader);
}

void WriteCompressed(const std::string& path, const std::string& text)
{
    Poco::FileOutputStream file(path);
    Poco::DeflatingOutputStream deflated(file, Poco::DeflatingStreamBuf::STREAM_GZIP);
    deflated << text;
    deflated.close();
}

class ALogThatIsRotated : public ::testing::Test {
public:
    std::string Path(const std::string& ending = "") const { return directory / ("log" + ending); }

    TemporaryDirectory directory;
};

class AFollowedLog : public ALogThatIsRotated {
public:
    std::unique_ptr<LogReader> Follow(std::uint64_t offset = LogFollower::END) const
    {
        return std::make_unique<LogReader>(std::make_unique<LogFollower>(Path(), offset), LogReader::LastLine::LEAVE);
    }
};

} // namespace

TEST_F(ALogThatIsRotated, HasItsOldestFileFirst)
{
    for (const char* ending : {"", ".1", ".2.gz", ".10.gz", ".txt", ".old", "-20260102", "-20260101.gz", ".1.gz.tmp"}) {
        WriteFile(Path(ending), "");
    }
    EXPECT_EQ(RotatedFiles(Path()),
              (Texts{Path("-20260101.gz"), Path("-20260102"), Path(".10.gz"), Path(".2.gz"), Path(".1"), Path()}));
}

TEST_F(ALogThatIsRotated, IsReadAcrossItsFiles)
{
    WriteCompressed(Path(".2.gz"), RecordAt(1, "one"));
    WriteFile(Path(".1"), RecordAt(2, "two"));
    WriteFile(Path(), RecordAt(3, "three"));
    EXPECT_EQ(MessagesFrom(RotatedFiles(Path()), {}), (Texts{"one", "two", "three"}));
}

TEST_F(ALogThatIsRotated, SaysWhichFileCannotBeRead)
{
    WriteFile(Path(".1.gz"), "this was never compressed");
    WriteFile(Path(), RecordAt(3, "three"));
    LogReader reader(ReadFrom(RotatedFiles(Path()), {}));
    EXPECT_EQ(MessagesOf(reader), Texts{"three"});
    ASSERT_EQ(reader.Troubles().size(), 1U);
    EXPECT_NE(reader.Troubles()[0].find("log.1.gz"), std::string::npos) << reader.Troubles()[0];
}

TEST_F(ALogThatIsRotated, SaysThatACompressedFileLacksItsEnd)
{
    std::string text;
    for (int i = 0; i < 5000; ++i) {
        text += RecordAt(i, std::to_string(i * 7919 % 10007));
    }
    WriteCompressed(Path(".1.gz"), text);
    std::filesystem::resize_file(Path(".1.gz"), std::filesystem::file_size(Path(".1.gz")) / 2);
    LogReader reader(ReadFrom({Path(".1.gz")}, {}));
    EXPECT_GT(MessagesOf(reader).size(), 100U);
    EXPECT_FALSE(reader.Troubles().empty());
}

TEST_F(ALogThatIsRotated, IsReadFromATimeOn)
{
    std::string text;
    for (int i = 0; i < 50'000; ++i) {
        text += RecordAt(i, std::to_string(i));
    }
    WriteFile(Path(), text);
    for (const int second : {0, 1, 12'345, 49'998}) {
        const Texts messages = MessagesFrom({Path()}, PlaceOfTime({Path()}, START + std::chrono::seconds(second)));
        ASSERT_FALSE(messages.empty()) << second;
        EXPECT_LE(std::stoi(messages.front()), second);
        EXPECT_EQ(messages.back(), "49999");
    }
    // Much earlier records are not read.
    EXPECT_GT(PlaceOfTime({Path()}, START + 49'000s).offset, text.size() / 2);
}

TEST_F(ALogThatIsRotated, IsReadFromTheFileThatHasTheTime)
{
    WriteCompressed(Path(".2.gz"), RecordAt(1, "one"));
    WriteFile(Path(".1"), RecordAt(100, "two"));
    WriteFile(Path(), RecordAt(200, "three"));
    const Texts files = RotatedFiles(Path());
    EXPECT_EQ(PlaceOfTime(files, START + 300s).file, 2U);
    EXPECT_EQ(PlaceOfTime(files, START + 150s).file, 1U);
    EXPECT_EQ(PlaceOfTime(files, START + 50s).file, 0U);
    EXPECT_EQ(PlaceOfTime(files, START - 50s).file, 0U);
}

TEST_F(ALogThatIsRotated, LosesNothingByAClockThatIsSetBack)
{
    std::string text;
    for (int i = 0; i < 20'000; ++i) {
        text += RecordAt(i, "before");
    }
    text += RecordAt(30'000, "wanted");
    for (int i = 0; i < 3000; ++i) {
        text += RecordAt(-1'000'000'000 + i, "set back");
    }
    for (int i = 30'001; i < 30'100; ++i) {
        text += RecordAt(i, "after");
    }
    WriteFile(Path(), text);
    const Texts messages = MessagesFrom({Path()}, PlaceOfTime({Path()}, START + 29'999s));
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "wanted"), 1);
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "after"), 99);
}

TEST_F(ALogThatIsRotated, IsReadFromTheStartOfAServer)
{
    std::string text = RecordAt(1, "load config from [a.ini]...", 77);
    for (int i = 0; i < 5000; ++i) {
        text += RecordAt(i, "an older one of that number", 77);
    }
    const std::size_t place = text.size();
    text += RecordAt(9000, "load config from [b.ini]...", 77);
    for (int i = 0; i < 5000; ++i) {
        text += RecordAt(9000 + i, "load config from [c.ini]...", 78);
    }
    WriteFile(Path(), text);
    const auto found = PlaceOfServerStart({Path()}, 77);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->offset, place);
    EXPECT_FALSE(PlaceOfServerStart({Path()}, 79));
}

TEST_F(ALogThatIsRotated, HasTheStartOfAServerInACompressedFile)
{
    std::string text;
    for (int i = 0; i < 5000; ++i) {
        text += RecordAt(i, "before");
    }
    WriteCompressed(Path(".1.gz"), text + RecordAt(9000, "load config from [b.ini]...", 77) + RecordAt(9001, "after"));
    WriteFile(Path(), RecordAt(9002, "last"));
    const Texts files = RotatedFiles(Path());
    const auto found = PlaceOfServerStart(files, 77);
    ASSERT_TRUE(found);
    EXPECT_EQ(MessagesFrom(files, *found), (Texts{"load config from [b.ini]...", "after", "last"}));
}

TEST_F(AFollowedLog, GivesWhatIsWrittenFromNowOn)
{
    WriteFile(Path(), RecordAt(1, "old"));
    const auto reader = Follow();
    EXPECT_EQ(MessagesOf(*reader), Texts{});
    AppendFile(Path(), RecordAt(2, "new"));
    EXPECT_EQ(MessagesOf(*reader), Texts{"new"});
    const std::string record = RecordAt(3, "in two pieces");
    AppendFile(Path(), record.substr(0, 30));
    EXPECT_EQ(MessagesOf(*reader), Texts{});
    AppendFile(Path(), record.substr(30));
    EXPECT_EQ(MessagesOf(*reader), Texts{"in two pieces"});
}

TEST_F(AFollowedLog, NeedNotBeThereYet)
{
    const auto reader = Follow();
    EXPECT_EQ(MessagesOf(*reader), Texts{});
    WriteFile(Path(), RecordAt(1, "first"));
    EXPECT_EQ(MessagesOf(*reader), Texts{"first"});
}

TEST_F(AFollowedLog, IsFollowedAcrossARotationByRenaming)
{
    WriteFile(Path(), RecordAt(1, "one"));
    const auto reader = Follow(0);
    EXPECT_EQ(MessagesOf(*reader), Texts{"one"});
    std::filesystem::rename(Path(), Path(".1"));
    AppendFile(Path(".1"), RecordAt(2, "two"));
    AppendFile(Path(), RecordAt(3, "three"));
    Texts messages = MessagesOf(*reader);
    const Texts rest = MessagesOf(*reader);
    messages.insert(messages.end(), rest.begin(), rest.end());
    EXPECT_EQ(messages, (Texts{"two", "three"}));
}

TEST_F(AFollowedLog, IsFollowedAcrossARotationByCopyingAndTruncating)
{
    WriteFile(Path(), RecordAt(1, "one"));
    const auto reader = Follow(0);
    EXPECT_EQ(MessagesOf(*reader), Texts{"one"});
    AppendFile(Path(), RecordAt(2, "only in the copy"));
    std::filesystem::copy_file(Path(), Path(".1"));
    std::filesystem::resize_file(Path(), 0);
    AppendFile(Path(), RecordAt(3, "three"));
    EXPECT_EQ(MessagesOf(*reader), (Texts{"only in the copy", "three"}));
}

TEST_F(AFollowedLog, IsSeenToBeTruncatedWhenItHasGrownAgain)
{
    WriteFile(Path(), RecordAt(1, "one"));
    const auto reader = Follow(0);
    EXPECT_EQ(MessagesOf(*reader), Texts{"one"});
    std::filesystem::resize_file(Path(), 0);
    AppendFile(Path(), RecordAt(2, "two") + RecordAt(3, "three") + RecordAt(4, "four"));
    EXPECT_EQ(MessagesOf(*reader), (Texts{"two", "three", "four"}));
    EXPECT_FALSE(reader->Troubles().empty()); // the records that were cut off are lost
}
