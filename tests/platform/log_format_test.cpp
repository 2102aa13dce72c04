#include "platform/host/log/log_format.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

using HostPlatform::FormatRecord;
using HostPlatform::Prefix;
using HostPlatform::RECORD_SIZE;
using HostPlatform::RecordHead;

namespace {

constexpr bool HAS_WIDE_CLOCK = sizeof(std::time_t) == sizeof(std::int64_t);

RecordHead SomeHead()
{
    return {{1795234449, 123456789}, 4, 1, 0, 1234, 1236, "src/bundle_manager.cpp", 88};
}

__attribute__((format(printf, 3, 4))) std::string Format(Prefix prefix, const RecordHead& head, const char* format, ...)
{
    char record[RECORD_SIZE];
    va_list arguments;
    va_start(arguments, format);
    const std::size_t length = FormatRecord(record, prefix, head, format, arguments);
    va_end(arguments);
    return {record, length};
}

std::string Format(const RecordHead& head, const std::string& message)
{
    return Format(Prefix::NONE, head, "%s", message.c_str());
}

std::string MessageOf(const std::string& text)
{
    const std::string head = Format(SomeHead(), "");
    const std::string record = Format(SomeHead(), text);
    return record.substr(head.size() - 1, record.size() - head.size());
}

std::size_t MessageRoom()
{
    return RECORD_SIZE - Format(SomeHead(), "").size();
}

std::string TimeOf(std::int64_t seconds, long nanoseconds)
{
    RecordHead head = SomeHead();
    head.time = {static_cast<std::time_t>(seconds), nanoseconds};
    return Format(head, "x").substr(0, std::string("2026-11-21T04:14:09.123456Z").size());
}

std::string ExpectedTimeOf(std::int64_t seconds)
{
    const auto time = static_cast<std::time_t>(seconds);
    std::tm utc{};
    ::gmtime_r(&time, &utc);
    char text[64];
    return {text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc)};
}

} // namespace

TEST(ALogRecord, HasItsColumnsInOrderWithOneBlankBetween)
{
    EXPECT_EQ(Format(Prefix::NONE, SomeHead(), "load bundle[%s] success.", "media"),
              "2026-11-21T04:14:09.123456Z INFO 4 0 1234 1236 src/bundle_manager.cpp:88 load bundle[media] success.\n");
}

TEST(ALogRecord, NamesTheTwoLevelsInUseAndNumbersTheOthers)
{
    RecordHead head = SomeHead();
    head.level = 3;
    EXPECT_NE(Format(head, "x").find("Z ERROR 4 "), std::string::npos);
    head.level = 2;
    EXPECT_NE(Format(head, "x").find("Z LEVEL2 4 "), std::string::npos);
    head.level = -7;
    EXPECT_NE(Format(head, "x").find("Z LEVEL-7 4 "), std::string::npos);
}

TEST(ALogRecord, BeginsForTheJournalWithItsPriority)
{
    const std::vector<std::pair<int, std::string>> priorities{{-1, "<7>"}, {0, "<7>"}, {1, "<6>"}, {2, "<4>"},
                                                              {3, "<3>"},  {4, "<3>"}, {99, "<3>"}};
    for (const auto& [level, priority] : priorities) {
        RecordHead head = SomeHead();
        head.level = level;
        EXPECT_EQ(Format(Prefix::PRIORITY, head, "x"), priority + Format(head, "x"));
    }
}

TEST(ALogRecord, IsCutToFourKibibytesWithItsPriority)
{
    const std::string text(RECORD_SIZE, 'x');
    const std::string record = Format(Prefix::PRIORITY, SomeHead(), "%s", text.c_str());
    EXPECT_EQ(record.size(), RECORD_SIZE);
    EXPECT_EQ(record.substr(0, 5), "<6>20");
    EXPECT_EQ(record.back(), '\n');
}

TEST(ALogRecord, ShowsNumbersOfAnySize)
{
    RecordHead head = SomeHead();
    head.module = INT_MIN;
    head.flag = INT_MAX;
    head.line = 0;
    EXPECT_NE(Format(head, "x").find(" INFO -2147483648 2147483647 1234 1236 src/bundle_manager.cpp:0 x\n"),
              std::string::npos);
}

TEST(ALogRecord, HasADashIfTheCallGivesNoFile)
{
    RecordHead head = SomeHead();
    head.file = nullptr;
    EXPECT_NE(Format(head, "x").find(" 1234 1236 - x\n"), std::string::npos);
}

TEST(ALogRecord, StaysOneLineAndKeepsRoomForTheMessageForAnyFileName)
{
    RecordHead head = SomeHead();
    const std::string longName = "a\nb" + std::string(5000, 'c');
    head.file = longName.c_str();
    const std::string record = Format(head, "message");
    EXPECT_LT(record.size(), RECORD_SIZE);
    EXPECT_NE(record.find(" a\\nbccc"), std::string::npos);
    EXPECT_NE(record.find("c:88 message\n"), std::string::npos);
    EXPECT_EQ(record.find('\n'), record.size() - 1);
}

TEST(TheTimeOfALogRecord, IsTheUtcTimeOnEachDayOfFourCenturiesAndMore)
{
    constexpr std::int64_t day = 86400;
    // In the year 2435, past four centuries and their leap days, where the machine's clock goes that far.
    constexpr std::int64_t lastDay = HAS_WIDE_CLOCK ? 170000 : 24000;
    for (std::int64_t i = 0; i <= lastDay; ++i) {
        const std::int64_t second = i * day + (i * 7919) % day;
        ASSERT_EQ(TimeOf(second, 0), ExpectedTimeOf(second) + ".000000Z");
    }
}

TEST(TheTimeOfALogRecord, IsRightAtTheEdgesOfDaysAndYears)
{
    // 1972, 2000 and 2400 are leap years, 2100 is not.
    for (const std::int64_t newYear : {63072000LL, 946684800LL, 4102444800LL, 13569465600LL}) {
        if (newYear > INT32_MAX && !HAS_WIDE_CLOCK) {
            continue;
        }
        constexpr std::int64_t day = 86400;
        for (const std::int64_t march :
             {newYear + 58 * day, newYear + 59 * day, newYear + 60 * day, newYear + day * 365}) {
            for (const std::int64_t second : {march - 1, march, march + 1, march + day - 1}) {
                EXPECT_EQ(TimeOf(second, 999999999), ExpectedTimeOf(second) + ".999999Z");
            }
        }
    }
}

TEST(TheTimeOfALogRecord, KeepsItsWidthForImpossibleTimes)
{
    EXPECT_EQ(TimeOf(-1, 5000), "1970-01-01T00:00:00.000005Z");
    if (HAS_WIDE_CLOCK) {
        EXPECT_EQ(TimeOf(253402300799, 0), "9999-12-31T23:59:59.000000Z");
        EXPECT_EQ(TimeOf(253402300800, 0), "9999-12-31T23:59:59.000000Z");
        EXPECT_EQ(TimeOf(INT64_MAX, 0), "9999-12-31T23:59:59.000000Z");
    }
}

TEST(TheMessageOfALogRecord, HasItsControlCharactersAsCEscapes)
{
    EXPECT_EQ(MessageOf("a\nb\tc"), "a\\nb\\tc");
    for (int c = 1; c < 0x80; ++c) {
        const std::string message = MessageOf(std::string(1, static_cast<char>(c)));
        char octal[8];
        static_cast<void>(std::snprintf(octal, sizeof octal, "\\%03o", static_cast<unsigned>(c)));
        if (c == '\n' || c == '\t') {
            EXPECT_EQ(message, c == '\n' ? "\\n" : "\\t");
        } else if (c < 0x20 || c == 0x7F) {
            EXPECT_EQ(message, octal);
        } else {
            EXPECT_EQ(message, std::string(1, static_cast<char>(c)));
        }
    }
}

TEST(TheMessageOfALogRecord, HasTheControlCharactersBeyondAsciiAsTwoEscapes)
{
    EXPECT_EQ(MessageOf("\xC2\x80|\xC2\x9B|\xC2\x9F"), "\\302\\200|\\302\\233|\\302\\237");
}

TEST(TheMessageOfALogRecord, FindsAControlCharacterAtEveryPlaceOfALongText)
{
    for (std::size_t place = 0; place < 40; ++place) {
        std::string text(40, 'x');
        text[place] = '\x1B';
        std::string expected(40, 'x');
        expected.replace(place, 1, "\\033");
        EXPECT_EQ(MessageOf(text), expected);
    }
}

TEST(TheMessageOfALogRecord, KeepsTextOfOtherLanguagesAndBackslashes)
{
    const std::string text = "C:\\n \xC2\xA0 \xC2\xB5 \xC3\xA9 \xE6\x9D\x9F \xF0\x9F\x93\xA6";
    EXPECT_EQ(MessageOf(text), text);
    EXPECT_EQ(MessageOf(text + "\n"), text + "\\n");
}

TEST(TheMessageOfALogRecord, KeepsInvalidUtf8)
{
    for (const std::string text : {"\xC2", "\x80", "\xFF\xFE", "\xE6\x9D", "\xC2x", "\xF0\x9F\x93"}) {
        EXPECT_EQ(MessageOf(text), text);
        EXPECT_EQ(MessageOf(text + "\n"), text + "\\n");
    }
}

TEST(TheMessageOfALogRecord, IsCutToFourKibibytesOfRecord)
{
    const std::size_t room = MessageRoom();
    EXPECT_EQ(MessageOf(std::string(room, 'x')), std::string(room, 'x'));
    EXPECT_EQ(MessageOf(std::string(room + 1, 'x')), std::string(room, 'x'));
    const std::string record = Format(SomeHead(), std::string(100000, 'x'));
    EXPECT_EQ(record.size(), RECORD_SIZE);
    EXPECT_EQ(record.back(), '\n');
}

TEST(TheMessageOfALogRecord, IsNeverCutInsideACharacter)
{
    const std::size_t room = MessageRoom();
    for (const std::string character : {"\xC3\xA9", "\xE6\x9D\x9F", "\xF0\x9F\x93\xA6"}) {
        for (std::size_t shift = 0; shift < 8; ++shift) {
            std::string text(shift, 'x');
            while (text.size() <= 2 * RECORD_SIZE) {
                text += character;
            }
            const std::size_t whole = (room - shift) / character.size();
            EXPECT_EQ(MessageOf(text), text.substr(0, shift + whole * character.size()));
        }
    }
}

TEST(TheMessageOfALogRecord, IsNeverCutInsideACharacterAfterAnEscape)
{
    const std::size_t room = MessageRoom();
    for (std::size_t shift = 0; shift < 8; ++shift) {
        std::string text = "\n" + std::string(shift, 'x');
        const std::string shown = "\\n" + std::string(shift, 'x');
        std::string characters;
        while (characters.size() <= RECORD_SIZE) {
            characters += "\xE6\x9D\x9F";
        }
        const std::size_t whole = (room - shown.size()) / 3;
        EXPECT_EQ(MessageOf(text + characters), shown + characters.substr(0, whole * 3));
    }
}

TEST(TheMessageOfALogRecord, IsNeverCutInsideAnEscape)
{
    const std::size_t room = MessageRoom();
    for (std::size_t shift = 0; shift < 10; ++shift) {
        std::string oneByte;
        for (std::size_t used = shift; used + 4 <= room; used += 4) {
            oneByte += "\\001";
        }
        EXPECT_EQ(MessageOf(std::string(shift, 'x') + std::string(RECORD_SIZE, '\1')),
                  std::string(shift, 'x') + oneByte);

        std::string twoBytes;
        std::string controls;
        for (std::size_t used = shift; used + 8 <= room; used += 8) {
            twoBytes += "\\302\\205";
        }
        for (std::size_t i = 0; i < RECORD_SIZE / 4; ++i) {
            controls += "\xC2\x85";
        }
        EXPECT_EQ(MessageOf(std::string(shift, 'x') + controls), std::string(shift, 'x') + twoBytes);
    }
}

TEST(TheMessageOfALogRecord, IsCutAnywhereInInvalidUtf8)
{
    const std::size_t room = MessageRoom();
    EXPECT_EQ(MessageOf(std::string(RECORD_SIZE, '\x80')), std::string(room, '\x80'));
}

TEST(TheMessageOfALogRecord, AcceptsANullText)
{
    const char* volatile null = nullptr;
    EXPECT_NE(Format(Prefix::NONE, SomeHead(), "name %s.", null).find(":88 name (null).\n"), std::string::npos);
}

TEST(TheMessageOfALogRecord, IsTheFormatIfTheArgumentsCannotBeShown)
{
    // Not a character in any locale.
    const wchar_t none[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
    EXPECT_NE(Format(Prefix::NONE, SomeHead(), "wide %ls\n", none).find(":88 wide %ls\\n\n"), std::string::npos);
}
