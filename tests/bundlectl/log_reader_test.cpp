#include "model/log_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using Model::LogLine;
using Model::LogReader;
using Model::LogRecord;
using Model::LogSource;

namespace {

constexpr const char HEAD[] = "2026-11-21T04:14:09.123456Z INFO 4 0 1234 1236 src/bundle_manager.cpp:157 ";

/// A text in pieces of a few bytes, as a pipe may give them.
class TextSource : public LogSource {
public:
    explicit TextSource(std::string text, std::size_t piece = 7) : m_text(std::move(text)), m_piece(piece) {}
    std::size_t Read(char* buffer, std::size_t size) override
    {
        const std::size_t count = std::min({size, m_piece, m_text.size() - m_place});
        m_text.copy(buffer, count, m_place);
        m_place += count;
        return count;
    }

private:
    std::string m_text;
    const std::size_t m_piece;
    std::size_t m_place = 0;
};

std::string Record(const std::string& message)
{
    return HEAD + message + "\n";
}

LogReader ReaderOf(const std::string& text, std::size_t piece = 7)
{
    return LogReader(std::make_unique<TextSource>(text, piece));
}

std::vector<std::string> MessagesIn(LogReader& reader)
{
    std::vector<std::string> messages;
    LogRecord record;
    while (reader.Next(record)) {
        messages.emplace_back(record.message);
    }
    return messages;
}

using Messages = std::vector<std::string>;

} // namespace

TEST(AnyRecord, IsReadColumnByColumn)
{
    LogReader reader = ReaderOf("2026-11-21T04:14:09.123456Z ERROR 5 1 12 34 - radio.x[7] abnormal termination\n");
    LogRecord record;
    ASSERT_TRUE(reader.Next(record));
    EXPECT_EQ(record.time, Model::ParseLogTime("2026-11-21T04:14:09.123456Z"));
    EXPECT_EQ(record.level, LogRecord::ERROR);
    EXPECT_EQ(record.module, 5);
    EXPECT_EQ(record.flag, 1);
    EXPECT_EQ(record.pid, 12);
    EXPECT_EQ(record.thread, 34);
    EXPECT_EQ(record.source, "-");
    EXPECT_EQ(record.message, "radio.x[7] abnormal termination");
    EXPECT_FALSE(reader.Next(record));
}

TEST(AnyRecord, MayHaveAnyLevelAndAnEmptyMessage)
{
    LogReader reader = ReaderOf("2026-11-21T04:14:09.123456Z LEVEL7 4 0 12 34 a:1 \n");
    LogRecord record;
    ASSERT_TRUE(reader.Next(record));
    EXPECT_EQ(record.level, 7);
    EXPECT_EQ(record.message, "");
}

TEST(AnyRecord, MayHaveAPriorityBeforeIt)
{
    LogReader reader = ReaderOf("<3>" + Record("one") + "<6>" + Record("two"));
    EXPECT_EQ(MessagesIn(reader), (Messages{"one", "two"}));
}

TEST(ALogReader, SkipsLinesThatAreNoRecords)
{
    LogReader reader = ReaderOf("hello\n" + Record("one") + "\n\001\n" + Record("two"));
    EXPECT_EQ(MessagesIn(reader), (Messages{"one", "two"}));
    EXPECT_EQ(reader.Counts().records, 2U);
    EXPECT_EQ(reader.Counts().foreign, 3U);
}

TEST(ALogReader, HandsOutLinesThatAreNoRecords)
{
    LogReader reader = ReaderOf("hello\n" + Record("one"));
    LogLine line;
    ASSERT_TRUE(reader.Next(line));
    EXPECT_EQ(line.kind, LogLine::FOREIGN);
    EXPECT_EQ(line.text, "hello");
    ASSERT_TRUE(reader.Next(line));
    EXPECT_EQ(line.kind, LogLine::RECORD);
}

TEST(ALogReader, FindsARecordBehindTextWithoutALineEnd)
{
    LogReader reader = ReaderOf("items print: T" + Record("one"));
    LogLine line;
    ASSERT_TRUE(reader.Next(line));
    EXPECT_EQ(line.kind, LogLine::FOREIGN);
    EXPECT_EQ(line.text, "items print: T");
    ASSERT_TRUE(reader.Next(line));
    EXPECT_EQ(line.kind, LogLine::RECORD);
    EXPECT_EQ(line.record.message, "one");
    EXPECT_FALSE(reader.Next(line));
}

TEST(ALogReader, CountsHalfRecords)
{
    const std::string half = "2026-11-21T04:14:09.123456Z INFO 4 0 12";
    LogReader reader = ReaderOf(half + "\n" + half + Record("one") + HEAD + "not to its end");
    EXPECT_EQ(MessagesIn(reader), Messages{"one"});
    EXPECT_EQ(reader.Counts().broken, 3U);
    EXPECT_EQ(reader.Troubles().size(), 1U);
}

TEST(ALogReader, LeavesALastLineThatMayStillGetItsEnd)
{
    LogReader reader(std::make_unique<TextSource>(Record("one") + HEAD + "half"), LogReader::LastLine::LEAVE);
    EXPECT_EQ(MessagesIn(reader), Messages{"one"});
    EXPECT_EQ(reader.Counts().broken, 0U);
}

TEST(ALogReader, CountsRecordsThatAreCut)
{
    std::string text(4095 - std::string(HEAD).size(), 'x');
    LogReader reader = ReaderOf(Record(text), 1000);
    EXPECT_EQ(MessagesIn(reader), Messages{text});
    EXPECT_EQ(reader.Counts().cut, 1U);
}

TEST(ALogReader, CountsRecordsThatWereLost)
{
    const std::string error = "2026-11-21T04:14:09.123456Z ERROR 4 0 1234 1236 platform/host/zq_log.cpp:1 ";
    LogReader reader =
        ReaderOf(error + "17 earlier records are lost: no room for them, or nobody has read them.\n" + Record("one"));
    EXPECT_EQ(MessagesIn(reader).size(), 2U);
    EXPECT_EQ(reader.Counts().lost, 17U);
}

TEST(ALogReader, CountsStepsOfTheClock)
{
    LogReader reader = ReaderOf("2026-11-21T04:14:09.000000Z INFO 4 0 1 1 - a\n"
                                "1970-01-01T00:00:05.000000Z INFO 4 0 1 1 - b\n"
                                "2026-11-21T04:14:10.000000Z INFO 4 0 1 1 - c\n"
                                "2026-11-21T04:14:09.999000Z INFO 4 0 1 1 - another thread's\n");
    EXPECT_EQ(MessagesIn(reader).size(), 4U);
    EXPECT_EQ(reader.Counts().stepsBack, 1U);
}

TEST(ALogReader, SkipsLinesOfAnyLength)
{
    const std::string endless(1'000'000, 'T');
    LogReader reader = ReaderOf(Record("one") + endless + "\n" + Record("two") + endless, 10'000);
    EXPECT_EQ(MessagesIn(reader), (Messages{"one", "two"}));
    EXPECT_EQ(reader.Counts().foreign, 2U);
}

TEST(ALogReader, ReadsTheSameInPiecesOfAnySize)
{
    std::string text;
    for (int i = 0; i < 3000; ++i) {
        text += i % 7 == 0 ? "foreign " + std::to_string(i) + "\n"
                           : Record(std::string(static_cast<std::size_t>(i % 300), 'm'));
    }
    LogReader inOne = ReaderOf(text, text.size());
    const Messages expected = MessagesIn(inOne);
    for (const std::size_t piece : {1U, 13U, 4096U, 65'536U}) {
        LogReader reader = ReaderOf(text, piece);
        EXPECT_EQ(MessagesIn(reader), expected) << piece;
    }
}
