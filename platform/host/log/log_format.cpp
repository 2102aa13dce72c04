#include "log_format.h"

#include "common/control_characters.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>

namespace HostPlatform {

namespace {

/// A file name beyond this is cut: the columns always leave room for a message.
constexpr std::size_t FILE_LIMIT = 1024;

/// True for every text with a control character, and for some without: those with a byte C2. Eight bytes at
/// a time, because this runs over each message and nearly all are clean.
bool MayHoldControl(const char* text, std::size_t length)
{
    constexpr std::uint64_t ones = 0x0101010101010101U;
    constexpr std::uint64_t highs = ones * 0x80U;
    const auto holdsZero = [](std::uint64_t word) { return ((word - ones) & ~word & highs) != 0; };

    for (; length >= sizeof(std::uint64_t); text += sizeof(std::uint64_t), length -= sizeof(std::uint64_t)) {
        std::uint64_t word = 0;
        std::memcpy(&word, text, sizeof word);
        const bool holdsBelowBlank = ((word - ones * 0x20U) & ~word & highs) != 0;
        if (holdsBelowBlank || holdsZero(word ^ (ones * Common::DELETE_CHARACTER)) ||
            holdsZero(word ^ (ones * Common::C1_LEAD))) {
            return true;
        }
    }
    return std::any_of(text, text + length,
                       [](char c) { return Common::IsControl(c) || Common::Byte(c) == Common::C1_LEAD; });
}

/// Appends to a record. What could be too long is bounded by the caller; the numbers always fit.
class RecordWriter {
public:
    explicit RecordWriter(char (&record)[RECORD_SIZE]) : m_begin(record), m_at(record) {}

    char* At() const { return m_at; }
    std::size_t Length() const { return static_cast<std::size_t>(m_at - m_begin); }
    void Advance(std::size_t bytes) { m_at += bytes; }
    void Put(char c) { *m_at++ = c; }

    void PutText(const char* text, std::size_t length)
    {
        std::memcpy(m_at, text, length);
        m_at += length;
    }

    /// A number below a hundred, as two digits.
    void PutPair(unsigned value)
    {
        Put(static_cast<char>('0' + value / 10));
        Put(static_cast<char>('0' + value % 10));
    }

    void PutNumber(int number)
    {
        unsigned value = static_cast<unsigned>(number);
        if (number < 0) {
            Put('-');
            value = 0U - value;
        }
        std::array<char, 10> digits{};
        char* first = digits.data() + digits.size();
        do {
            *--first = static_cast<char>('0' + value % 10);
            value /= 10;
        } while (value != 0);
        PutText(first, static_cast<std::size_t>(digits.data() + digits.size() - first));
    }

    /// The text with its control characters as C escapes, at most limit bytes of it; the cut falls between characters
    /// and between escapes.
    void PutEscaped(const char* text, std::size_t length, std::size_t limit)
    {
        const char* const end = m_at + limit;
        while (length > 0) {
            const std::size_t size = Common::UnitSize(text, length);
            if (!PutUnit(text, size, static_cast<std::size_t>(end - m_at))) {
                return;
            }
            text += size;
            length -= size;
        }
    }

private:
    bool PutUnit(const char* unit, std::size_t size, std::size_t room)
    {
        if (!Common::IsControlUnit(unit, size)) {
            if (size > room) {
                return false;
            }
            PutText(unit, size);
            return true;
        }
        const Common::Escape escape = Common::EscapeOf(unit, size);
        if (escape.length > room) {
            return false;
        }
        PutText(escape.text.data(), escape.length);
        return true;
    }

    char* m_begin;
    char* m_at;
};

struct Date {
    unsigned year;
    unsigned month;
    unsigned day;
};

/// The date of a day counted from 1 January 1970. Done here because the C library's conversions take a lock, which the
/// child of a fork may find held by a thread that it does not have.
Date DateOfDay(std::uint32_t day)
{
    // Counted from 1 March of the year 0, so that a leap day is the last of its year, of its four years and of its four
    // centuries; the days of an era of 400 years repeat.
    constexpr std::uint32_t daysBefore1970 = 719468;
    constexpr std::uint32_t daysOfEra = 146097;
    day += daysBefore1970;
    const std::uint32_t era = day / daysOfEra;
    const std::uint32_t dayOfEra = day % daysOfEra;
    const std::uint32_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const std::uint32_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);

    // From March on the lengths of the months go 31 30 31 30 31 twice and once more in part: 153 days in five months.
    const std::uint32_t monthFromMarch = (5 * dayOfYear + 2) / 153;
    const std::uint32_t dayOfMonth = dayOfYear - (153 * monthFromMarch + 2) / 5 + 1;
    const std::uint32_t month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
    const std::uint32_t year = 400 * era + yearOfEra + (month <= 2 ? 1 : 0);
    return {year, month, dayOfMonth};
}

void PutTime(RecordWriter& writer, const timespec& time)
{
    // A clock outside the years 1970 to 9999 is wrong anyhow; held within them, the column keeps its width.
    constexpr std::int64_t endOf9999 = 253402300799;
    const std::int64_t seconds = std::clamp<std::int64_t>(time.tv_sec, 0, endOf9999);
    constexpr std::int64_t secondsOfDay = 86400;
    const Date date = DateOfDay(static_cast<std::uint32_t>(seconds / secondsOfDay));
    const auto second = static_cast<unsigned>(seconds % secondsOfDay);
    const auto microsecond = static_cast<unsigned>(time.tv_nsec / 1000);

    writer.PutPair(date.year / 100);
    writer.PutPair(date.year % 100);
    writer.Put('-');
    writer.PutPair(date.month);
    writer.Put('-');
    writer.PutPair(date.day);
    writer.Put('T');
    writer.PutPair(second / 3600);
    writer.Put(':');
    writer.PutPair(second / 60 % 60);
    writer.Put(':');
    writer.PutPair(second % 60);
    writer.Put('.');
    writer.PutPair(microsecond / 10000);
    writer.PutPair(microsecond / 100 % 100);
    writer.PutPair(microsecond % 100);
    writer.Put('Z');
}

void PutLevel(RecordWriter& writer, int level)
{
    struct LevelName {
        int level;
        char text[6];
    };
    constexpr std::array<LevelName, 2> levelNames{{{1, "INFO"}, {3, "ERROR"}}};
    for (const LevelName& name : levelNames) {
        if (name.level == level) {
            writer.PutText(name.text, std::strlen(name.text));
            return;
        }
    }
    constexpr char other[] = "LEVEL";
    writer.PutText(other, sizeof other - 1);
    writer.PutNumber(level);
}

/// The journal's priorities grow less urgent: 3 is an error, 4 a warning, 6 information, 7 for debugging. Levels grow
/// more urgent, and of those above an error nothing more is known.
void PutPriority(RecordWriter& writer, int level)
{
    constexpr char priorities[] = {'7', '6', '4', '3'};
    writer.Put('<');
    writer.Put(priorities[std::clamp(level, 0, 3)]);
    writer.Put('>');
}

void PutPlace(RecordWriter& writer, const char* file, int line)
{
    if (file == nullptr) {
        writer.Put('-');
        return;
    }
    const std::size_t length = std::strlen(file);
    if (length <= FILE_LIMIT && !MayHoldControl(file, length)) {
        writer.PutText(file, length);
    } else {
        writer.PutEscaped(file, length, FILE_LIMIT);
    }
    writer.Put(':');
    writer.PutNumber(line);
}

void PutHead(RecordWriter& writer, const RecordHead& head)
{
    PutTime(writer, head.time);
    writer.Put(' ');
    PutLevel(writer, head.level);
    for (const int number : {head.module, head.flag, head.pid, head.tid}) {
        writer.Put(' ');
        writer.PutNumber(number);
    }
    writer.Put(' ');
    PutPlace(writer, head.file, head.line);
    writer.Put(' ');
}

/// The length of a cut text without the beginning of a character whose end the cut has taken.
std::size_t WithoutHalfCharacter(const char* text, std::size_t length)
{
    constexpr std::size_t longestCharacter = 4;
    for (std::size_t back = 1; back <= std::min(length, longestCharacter); ++back) {
        const char c = text[length - back];
        if (!Common::IsContinuation(c)) {
            return Common::CharacterSize(c) > back ? length - back : length;
        }
    }
    return length;
}

/// A function of its own, because the second copy of the message is not needed in the common case.
__attribute__((noinline)) void EscapeMessage(RecordWriter& writer, std::size_t length, std::size_t room)
{
    char message[RECORD_SIZE];
    std::memcpy(message, writer.At(), length);
    writer.PutEscaped(message, length, room);
}

__attribute__((format(printf, 2, 0))) void PutMessage(RecordWriter& writer, const char* format, va_list arguments)
{
    // vsnprintf needs a byte for its NUL, which becomes the line end.
    const std::size_t size = RECORD_SIZE - writer.Length();
    const std::size_t room = size - 1;
    const int wanted = std::vsnprintf(writer.At(), size, format, arguments);
    if (wanted < 0) {
        // Nothing can be said about the arguments; the format still leads to the call.
        writer.PutEscaped(format, std::strlen(format), room);
        return;
    }
    auto length = static_cast<std::size_t>(wanted);
    if (length > room) {
        length = WithoutHalfCharacter(writer.At(), room);
    }
    if (MayHoldControl(writer.At(), length)) {
        EscapeMessage(writer, length, room);
    } else {
        writer.Advance(length);
    }
}

} // namespace

std::size_t FormatRecord(char (&record)[RECORD_SIZE], Prefix prefix, const RecordHead& head, const char* format,
                         va_list arguments)
{
    RecordWriter writer(record);
    if (prefix == Prefix::PRIORITY) {
        PutPriority(writer, head.level);
    }
    PutHead(writer, head);
    PutMessage(writer, format, arguments);
    writer.Put('\n');
    return writer.Length();
}

} // namespace HostPlatform
