// The input is a record: the values of its columns, in binary, then the bytes of its message (see TakeInput). The
// record must be one line of at most 4 KiB without control characters. It must show all values, cut only where it may
// be.
#include "fuzz/fuzz_target.h"

#include "platform/host/log/log_format.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

using HostPlatform::FormatRecord;
using HostPlatform::RECORD_SIZE;
using HostPlatform::RecordHead;

namespace {

constexpr std::size_t FILE_LIMIT = 1024;

/// The input, piece by piece. After its end come zeros.
class Source {
public:
    Source(const std::uint8_t* data, std::size_t size) : m_at(data), m_left(size) {}

    template <class Number> Number Take()
    {
        Number number{};
        const std::size_t size = std::min(m_left, sizeof number);
        std::copy_n(m_at, size, reinterpret_cast<std::uint8_t*>(&number));
        Skip(size);
        return number;
    }

    std::string TakeText(std::size_t length)
    {
        const std::size_t size = std::min(m_left, length);
        std::string text(m_at, m_at + size);
        Skip(size);
        return text;
    }

    std::string TakeRest() { return TakeText(m_left); }

private:
    void Skip(std::size_t size)
    {
        m_at += size;
        m_left -= size;
    }

    const std::uint8_t* m_at;
    std::size_t m_left;
};

/// The text repeated that many times, up to a little more than the longest record. So a short input reaches the cut.
std::string Repeated(const std::string& text, unsigned times)
{
    std::string result = text;
    for (unsigned i = 0; i < times && result.size() <= RECORD_SIZE; ++i) {
        result += text;
    }
    return result;
}

std::string UpToNul(const std::string& text)
{
    return text.substr(0, text.find('\0'));
}

struct Input {
    unsigned format = 0;
    RecordHead head{};
    bool hasFile = false;
    std::string file;
    std::string text;
};

Input TakeInput(const std::uint8_t* data, std::size_t size)
{
    Source source(data, size);
    Input input;
    input.format = source.Take<std::uint8_t>();
    input.head.time.tv_sec = static_cast<std::time_t>(source.Take<std::int64_t>());
    input.head.time.tv_nsec = static_cast<long>(source.Take<std::uint32_t>() % 1'000'000'000U);
    for (int* const number : {&input.head.module, &input.head.level, &input.head.flag, &input.head.pid, &input.head.tid,
                              &input.head.line}) {
        *number = source.Take<std::int32_t>();
    }
    const auto fileLength = source.Take<std::uint8_t>();
    input.hasFile = fileLength != 0;
    const auto fileTimes = source.Take<std::uint16_t>();
    const auto textTimes = source.Take<std::uint16_t>();
    input.file = UpToNul(Repeated(source.TakeText(fileLength), fileTimes));
    input.text = UpToNul(Repeated(source.TakeRest(), textTimes));
    input.head.file = input.hasFile ? input.file.c_str() : nullptr;
    return input;
}

std::string Written(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Written(const char* format, ...)
{
    char text[128];
    va_list arguments;
    va_start(arguments, format);
    static_cast<void>(std::vsnprintf(text, sizeof text, format, arguments));
    va_end(arguments);
    return text;
}

/// A record of exactly its size on the heap, where a sanitizer sees an access beyond it.
struct Record {
    char text[RECORD_SIZE];
};

__attribute__((format(printf, 2, 3))) std::string Formatted(const RecordHead& head, const char* format, ...)
{
    const auto record = std::make_unique<Record>();
    va_list arguments;
    va_start(arguments, format);
    const std::size_t length = FormatRecord(record->text, HostPlatform::Prefix::NONE, head, format, arguments);
    va_end(arguments);
    Require(length <= RECORD_SIZE, "the record is longer than it may be");
    return {record->text, length};
}

struct Result {
    std::string record;
    std::string message; ///< that the record has to show
};

Result Format(const Input& input)
{
    const RecordHead& head = input.head;
    const char* const text = input.text.c_str();
    const auto length = static_cast<int>(input.text.size());
    const wchar_t none[] = {static_cast<wchar_t>(0x7FFFFFFF), 0}; // no character of any locale
    switch (input.format % 6) {
    case 0:
        return {Formatted(head, "%s", text), input.text};
    case 1:
        return {Formatted(head, "load bundle[%s] success.", text), "load bundle[" + input.text + "] success."};
    case 2:
        return {Formatted(head, "%s:%d\n", text, head.line), input.text + Written(":%d\n", head.line)};
    case 3:
        return {Formatted(head, "%s|%s", text, text), input.text + "|" + input.text};
    case 4: {
        // Without a NUL behind it. An empty vector would have no address.
        const auto bare = std::make_unique<char[]>(input.text.size());
        input.text.copy(bare.get(), input.text.size());
        return {Formatted(head, "\t%.*s", length, bare.get()), "\t" + input.text};
    }
    default:
        return {Formatted(head, "wide %ls\n", none), "wide %ls\n"};
    }
}

/// The form that a text must have in a record.
struct Shown {
    std::string text;
    std::vector<std::size_t> escapes; ///< where in it escapes begin, in ascending order
    std::vector<std::size_t> escapeEnds;

    /// Whether the text may be cut there, which is never inside an escape.
    bool MayEndAt(std::size_t position) const
    {
        const auto next = std::lower_bound(escapes.begin(), escapes.end(), position);
        return next == escapes.begin() || escapeEnds[static_cast<std::size_t>(next - escapes.begin()) - 1] <= position;
    }

    void PutEscape(const std::string& escape)
    {
        escapes.push_back(text.size());
        text += escape;
        escapeEnds.push_back(text.size());
    }
};

std::string Octal(unsigned byte)
{
    return {'\\', static_cast<char>('0' + byte / 64), static_cast<char>('0' + byte / 8 % 8),
            static_cast<char>('0' + byte % 8)};
}

Shown Escaped(const std::string& text)
{
    Shown shown;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
        if (byte == '\n' || byte == '\t') {
            shown.PutEscape(byte == '\n' ? "\\n" : "\\t");
        } else if (byte < 0x20 || byte == 0x7F) {
            shown.PutEscape(Octal(byte));
        } else if (byte == 0xC2 && next >= 0x80 && next < 0xA0) { // U+0080 to U+009F
            shown.PutEscape(Octal(byte) + Octal(next));
            ++i;
        } else {
            shown.text += text[i];
        }
    }
    return shown;
}

/// The bytes of the UTF-8 character at the beginning of the text; 0 when it does not begin with one.
std::size_t CharacterAt(const unsigned char* text, std::size_t length)
{
    const auto follows = [&](std::size_t count) {
        return length > count && std::all_of(text + 1, text + 1 + count, [](unsigned char c) { return c / 64 == 2; });
    };
    const unsigned char lead = text[0];
    if (lead < 0x80) {
        return 1;
    }
    if (lead >= 0xC2 && lead < 0xE0) {
        return follows(1) ? 2 : 0;
    }
    if (lead >= 0xE0 && lead < 0xF0) {
        const bool isOverlong = lead == 0xE0 && length > 1 && text[1] < 0xA0;
        const bool isSurrogate = lead == 0xED && length > 1 && text[1] >= 0xA0;
        return follows(2) && !isOverlong && !isSurrogate ? 3 : 0;
    }
    if (lead >= 0xF0 && lead < 0xF5) {
        const bool isOverlong = lead == 0xF0 && length > 1 && text[1] < 0x90;
        const bool isTooHigh = lead == 0xF4 && length > 1 && text[1] >= 0x90;
        return follows(3) && !isOverlong && !isTooHigh ? 4 : 0;
    }
    return 0;
}

bool IsUtf8(const std::string& text)
{
    const std::vector<unsigned char> bytes(text.begin(), text.end());
    for (std::size_t at = 0; at < bytes.size();) {
        const std::size_t size = CharacterAt(bytes.data() + at, bytes.size() - at);
        if (size == 0) {
            return false;
        }
        at += size;
    }
    return true;
}

/// What is wrong with the part of a text that a record shows; null when it shows as much as fits. A record leaves out a
/// character or an escape that it would have to split; the longest is an escape of eight bytes.
const char* FaultOf(const std::string& part, const std::string& text, std::size_t room)
{
    const Shown whole = Escaped(text);
    if (whole.text.size() <= room) {
        return part == whole.text ? nullptr : "the record shows another text";
    }
    if (part.size() > room || part.size() + 8 <= room) {
        return "the record is cut at another length";
    }
    if (whole.text.compare(0, part.size(), part) != 0) {
        return "what is before the cut is another text";
    }
    if (!whole.MayEndAt(part.size())) {
        return "the cut parts an escape";
    }
    return IsUtf8(text) && !IsUtf8(part) ? "the cut parts a character" : nullptr;
}

std::string TimeOf(const timespec& time)
{
    const auto seconds = static_cast<std::time_t>(
        std::clamp<std::int64_t>(time.tv_sec, 0, std::int64_t{253402300799})); // the years 1970 to 9999
    std::tm utc{};
    ::gmtime_r(&seconds, &utc);
    return Written("%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour,
                   utc.tm_min, utc.tm_sec, time.tv_nsec / 1000);
}

std::string LevelOf(int level)
{
    if (level == 1 || level == 3) {
        return level == 1 ? "INFO" : "ERROR";
    }
    return Written("LEVEL%d", level);
}

/// The columns before the file.
std::string FrontOf(const RecordHead& head)
{
    return TimeOf(head.time) + " " + LevelOf(head.level) +
           Written(" %d %d %d %d ", head.module, head.flag, head.pid, head.tid);
}

const char* FaultOfMessage(const Result& result, std::size_t begin)
{
    const std::size_t lineEnd = result.record.size() - 1;
    return FaultOf(result.record.substr(begin, lineEnd - begin), result.message, RECORD_SIZE - 1 - begin);
}

/// The columns after the front: file, line and message. A record does not show where the file's name has been cut: a
/// name may contain the same text as the next column.
const char* FaultBehindFront(const Result& result, std::size_t front, const Input& input)
{
    const std::string line = Written(":%d ", input.head.line);
    const std::size_t longest = std::min(FILE_LIMIT, Escaped(input.file).text.size());
    const char* fault = "the line is not shown behind the file";
    for (std::size_t length = longest + 1; length-- > 0 && longest - length < 8;) {
        const std::size_t end = front + length + line.size();
        if (end >= result.record.size() || result.record.compare(front + length, line.size(), line) != 0) {
            continue;
        }
        fault = FaultOf(result.record.substr(front, length), input.file, FILE_LIMIT);
        fault = fault != nullptr ? fault : FaultOfMessage(result, end);
        if (fault == nullptr) {
            return nullptr;
        }
    }
    return fault;
}

void RequireColumns(const Result& result, const Input& input)
{
    const std::string front = FrontOf(input.head);
    Require(result.record.compare(0, front.size(), front) == 0, "a column shows something else");
    if (input.hasFile) {
        const char* const fault = FaultBehindFront(result, front.size(), input);
        Require(fault == nullptr, fault);
        return;
    }
    Require(result.record.compare(front.size(), 2, "- ") == 0, "no dash stands for the file");
    const char* const fault = FaultOfMessage(result, front.size() + 2);
    Require(fault == nullptr, fault);
}

void RequireOneCleanLine(const std::string& record)
{
    Require(!record.empty() && record.back() == '\n', "the record does not end in a line end");
    for (std::size_t i = 0; i + 1 < record.size(); ++i) {
        const auto byte = static_cast<unsigned char>(record[i]);
        const auto next = static_cast<unsigned char>(record[i + 1]);
        Require(byte >= 0x20 && byte != 0x7F && !(byte == 0xC2 && next >= 0x80 && next < 0xA0),
                "there is a control character in the record");
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const Input input = TakeInput(data, size);
    const Result result = Format(input);
    RequireOneCleanLine(result.record);
    RequireColumns(result, input);
    return 0;
}
