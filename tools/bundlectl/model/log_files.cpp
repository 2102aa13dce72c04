#include "log_files.h"

#include "files.h"
#include "log_reader.h"
#include "log_record.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>
#include <utility>

namespace Model {

namespace {

using Common::UniqueFd;

constexpr std::uint64_t PIECE = std::uint64_t{64} * 1024;

bool TakeSuffix(std::string_view& text, std::string_view suffix)
{
    if (text.size() < suffix.size() || text.substr(text.size() - suffix.size()) != suffix) {
        return false;
    }
    text.remove_suffix(suffix.size());
    return true;
}

bool IsCompressed(const std::string& path)
{
    std::string_view name = path;
    return TakeSuffix(name, ".gz");
}

/// The key that orders the old files of a log, the oldest first: ascending dates, then descending numbers. Empty when
/// the name is not that of an old file.
std::optional<std::pair<int, long>> AgeOf(std::string_view rest)
{
    TakeSuffix(rest, ".gz");
    if (rest.size() < 2 || (rest[0] != '.' && rest[0] != '-')) {
        return std::nullopt;
    }
    const bool isDate = rest[0] == '-';
    rest.remove_prefix(1);
    long number = 0;
    const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), number);
    if (error != std::errc() || end != rest.data() + rest.size() || number < 0) {
        return std::nullopt;
    }
    return std::make_pair(isDate ? 0 : 1, isDate ? number : -number);
}

/// A plain file that is read in pieces, from any offset.
class Pieces {
public:
    explicit Pieces(const std::string& path) : m_fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK))
    {
        struct stat status {};
        if (m_fd.IsOpen() && ::fstat(m_fd.Get(), &status) == 0 && S_ISREG(status.st_mode)) {
            m_size = static_cast<std::uint64_t>(status.st_size);
        }
    }

    std::uint64_t Size() const { return m_size; }

    /// Valid until the next call.
    std::string_view At(std::uint64_t offset)
    {
        const ssize_t size = ::pread(m_fd.Get(), m_buffer.data(), m_buffer.size(), static_cast<off_t>(offset));
        return {m_buffer.data(), size > 0 ? static_cast<std::size_t>(size) : 0};
    }

private:
    UniqueFd m_fd;
    std::uint64_t m_size = 0;
    std::vector<char> m_buffer = std::vector<char>(PIECE);
};

/// The times in a piece of a file.
struct Span {
    std::optional<Time> first;
    std::optional<Time> latest;
};

Span TimesIn(std::string_view piece, bool isAtLineStart)
{
    Span span;
    if (!isAtLineStart) {
        piece.remove_prefix(std::min(piece.find('\n'), piece.size() - 1) + 1);
    }
    LogRecord record;
    while (!piece.empty()) {
        const std::size_t end = std::min(piece.find('\n'), piece.size());
        if (ParseRecord(piece.substr(0, end), record)) {
            span.first = span.first ? span.first : record.time;
            span.latest = std::max(span.latest.value_or(record.time), record.time);
        }
        piece.remove_prefix(std::min(end + 1, piece.size()));
    }
    return span;
}

/// Finds the pieces of a file that contain records of a time and later.
class TimeSearch {
public:
    TimeSearch(Pieces& pieces, Time time) : m_pieces(pieces), m_time(time) {}

    std::uint64_t Offset()
    {
        std::uint64_t low = 0;
        std::uint64_t high = (m_pieces.Size() + PIECE - 1) / PIECE;
        while (low < high) {
            const std::uint64_t middle = low + (high - low) / 2;
            if (IsBefore(middle)) {
                low = middle + 1;
            } else {
                high = middle;
            }
        }
        return EarlierPieces(low) * PIECE;
    }

private:
    // For a piece without any record, such as an item's long output, the next piece with a record decides.
    bool IsBefore(std::uint64_t piece)
    {
        for (; piece * PIECE < m_pieces.Size(); ++piece) {
            const Span span = TimesIn(m_pieces.At(piece * PIECE), piece == 0);
            if (span.latest) {
                return *span.latest < m_time;
            }
        }
        return false;
    }

    // If the clock was set back, late records stand before early ones, and the binary search may have missed them. So
    // all records in a stretch before the place must be early. The stretch is one piece longer, because a record may
    // begin in one piece and end in the next.
    std::uint64_t EarlierPieces(std::uint64_t piece)
    {
        constexpr std::uint64_t stretch = 16;
        std::uint64_t place = piece;
        for (std::uint64_t early = 0; early < stretch && piece > 0;) {
            --piece;
            const Span span = TimesIn(m_pieces.At(piece * PIECE), piece == 0);
            if (span.latest && *span.latest >= m_time) {
                place = piece;
                early = 0;
            } else {
                ++early;
            }
        }
        return place > 0 ? place - 1 : 0;
    }

    Pieces& m_pieces;
    const Time m_time;
};

std::optional<Time> FirstTime(const std::string& path)
{
    LogReader reader(ReadLogFile(path));
    LogRecord record;
    return reader.Next(record) ? std::optional<Time>(record.time) : std::nullopt;
}

/// The beginning of a server: its first record, of this process id.
bool IsStartOf(std::string_view line, pid_t server)
{
    LogRecord record;
    constexpr std::string_view text = "load config from [";
    return ParseRecord(line, record) && record.pid == server && record.message.substr(0, text.size()) == text;
}

/// The position of the last line that is a server's first record; npos: none.
std::size_t LastStartIn(std::string_view text, pid_t server)
{
    constexpr std::string_view mark = " load config from [";
    for (std::size_t place = text.rfind(mark); place != std::string_view::npos && place > 0;
         place = text.rfind(mark, place - 1)) {
        const std::size_t begin = text.rfind('\n', place) + 1; // npos + 1 is 0
        const std::string_view line = text.substr(begin, text.find('\n', place) - begin);
        if (IsStartOf(line, server)) {
            return begin;
        }
        const std::size_t inLine = FindRecord(line);
        if (inLine != std::string_view::npos && IsStartOf(line.substr(inLine), server)) {
            return begin + inLine;
        }
    }
    return std::string_view::npos;
}

std::optional<std::uint64_t> StartInPlainFile(const std::string& path, pid_t server)
{
    Pieces pieces(path);
    // Each piece is searched together with the beginning of the next, because the record may span both.
    constexpr std::uint64_t step = PIECE - 8192;
    for (std::uint64_t number = pieces.Size() / step + 1; number > 0; --number) {
        const std::uint64_t offset = (number - 1) * step;
        const std::size_t place = LastStartIn(pieces.At(offset), server);
        if (place != std::string_view::npos) {
            return offset + place;
        }
    }
    return std::nullopt;
}

/// A reader that returns lines gives no offset, so this counts the bytes.
std::optional<std::uint64_t> StartInCompressedFile(const std::string& path, pid_t server)
{
    const std::unique_ptr<LogSource> source = ReadLogFile(path);
    std::optional<std::uint64_t> found;
    std::string text;
    std::uint64_t before = 0; // offset in the text
    std::array<char, 16384> buffer;
    while (const std::size_t size = source->Read(buffer.data(), buffer.size())) {
        text.append(buffer.data(), size);
        const std::size_t end = text.rfind('\n') + 1;
        const std::size_t place = LastStartIn(std::string_view(text).substr(0, end), server);
        if (place != std::string_view::npos) {
            found = before + place;
        }
        const std::size_t done = text.size() - end > PIECE ? text.size() : end;
        text.erase(0, done);
        before += done;
    }
    return found;
}

} // namespace

std::vector<std::string> RotatedFiles(const std::string& path)
{
    const std::string name = BaseName(path);
    const std::string directory = path.substr(0, path.size() - name.size());
    std::vector<std::pair<std::pair<int, long>, std::string>> old;
    for (const std::string& entry :
         ListDirectory(directory.empty() ? "." : directory).value_or(std::vector<std::string>())) {
        if (entry.compare(0, name.size(), name) != 0) {
            continue;
        }
        if (const auto age = AgeOf(std::string_view(entry).substr(name.size()))) {
            old.emplace_back(*age, directory + entry);
        }
    }
    std::sort(old.begin(), old.end());
    std::vector<std::string> files;
    files.reserve(old.size() + 1);
    for (auto& [age, file] : old) {
        files.push_back(std::move(file));
    }
    files.push_back(path);
    return files;
}

LogPlace PlaceOfTime(const std::vector<std::string>& files, Time time)
{
    for (std::size_t file = files.size(); file > 0; --file) {
        const std::string& path = files[file - 1];
        const std::optional<Time> first = FirstTime(path);
        if (file > 1 && (!first || *first > time)) {
            continue;
        }
        if (IsCompressed(path)) {
            return {file - 1, 0};
        }
        Pieces pieces(path);
        return {file - 1, TimeSearch(pieces, time).Offset()};
    }
    return {};
}

std::optional<LogPlace> PlaceOfServerStart(const std::vector<std::string>& files, pid_t server)
{
    for (std::size_t file = files.size(); file > 0; --file) {
        const std::string& path = files[file - 1];
        const auto offset = IsCompressed(path) ? StartInCompressedFile(path, server) : StartInPlainFile(path, server);
        if (offset) {
            return LogPlace{file - 1, *offset};
        }
    }
    return std::nullopt;
}

std::unique_ptr<LogSource> ReadFrom(const std::vector<std::string>& files, LogPlace place)
{
    std::vector<std::unique_ptr<LogSource>> sources;
    for (std::size_t file = place.file; file < files.size(); ++file) {
        sources.push_back(ReadLogFile(files[file], file == place.file ? place.offset : 0));
    }
    return ReadInTurn(std::move(sources));
}

} // namespace Model
