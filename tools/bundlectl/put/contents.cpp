#include "contents.h"

#include "hash_files.h"
#include "model/files.h"
#include "printable.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <set>

namespace Put {

namespace {

constexpr std::string_view HEAD = "bundle-contents 1";
constexpr std::size_t HASH_DIGITS = 64;
constexpr unsigned PERMISSIONS = 0777;

[[noreturn]] void Refuse(std::string_view path, const std::string& what)
{
    throw Refusal("\"" + Printable(path) + "\" " + what);
}

bool IsOwnFile(std::string_view path)
{
    return path == CONTENTS_FILE || path == SIGNATURE_FILE || path == VERSION_FILE;
}

std::string_view ParentOf(std::string_view path)
{
    const std::size_t end = path.rfind('/');
    return end == std::string_view::npos ? std::string_view() : path.substr(0, end);
}

std::vector<std::string_view> Split(std::string_view text, char separator)
{
    std::vector<std::string_view> parts;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find(separator, begin), text.size());
        parts.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return parts;
}

void RequirePath(std::string_view path)
{
    constexpr std::size_t longest = 1024;
    constexpr std::size_t longestName = 255;
    if (path.empty() || path.size() > longest || Printable(path) != path || IsOwnFile(path)) {
        Refuse(path, "is no name that a bundle's file can have.");
    }
    for (const std::string_view part : Split(path, '/')) {
        if (part.empty() || part == "." || part == ".." || part.size() > longestName) {
            Refuse(path, "leads out of the bundle, or is written in an unusual way.");
        }
    }
}

void RequireLink(std::string_view path, std::string_view target)
{
    constexpr std::size_t longest = 1024;
    std::size_t depth = Split(path, '/').size() - 1;
    if (target.empty() || target.size() > longest || target.front() == '/' || Printable(target) != target) {
        Refuse(path, "is a link that leads out of the bundle: " + Printable(target) + ".");
    }
    for (const std::string_view part : Split(target, '/')) {
        if (part == ".." && depth == 0) {
            Refuse(path, "is a link that leads out of the bundle: " + Printable(target) + ".");
        }
        depth = part == ".." ? depth - 1 : part == "." || part.empty() ? depth : depth + 1;
    }
}

template <class Number> Number NumberOf(std::string_view text, int base)
{
    Number number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (error != std::errc() || end != text.data() + text.size()) {
        throw Refusal("the list of contents is broken: \"" + Printable(text) + "\" is no number.");
    }
    return number;
}

Entry ParseEntry(std::string_view line)
{
    const auto fields = Split(line, '\t');
    if (fields.size() != 5 || fields[0].size() != 1 ||
        std::string_view("fdl").find(fields[0]) == std::string_view::npos) {
        throw Refusal("the list of contents is broken: \"" + Printable(line) + "\".");
    }
    Entry entry;
    entry.kind = static_cast<Entry::Kind>(fields[0][0]);
    entry.path = fields[4];
    RequirePath(entry.path);
    if (entry.kind == Entry::LINK) {
        entry.target = fields[3];
        RequireLink(entry.path, entry.target);
        return entry;
    }
    entry.mode = NumberOf<unsigned>(fields[1], 8);
    if (entry.mode > PERMISSIONS) {
        Refuse(entry.path, "has permissions beyond reading, writing and executing (setuid, setgid or sticky).");
    }
    if (entry.kind == Entry::FILE) {
        entry.size = NumberOf<std::uint64_t>(fields[2], 10);
        entry.hash = fields[3];
        if (entry.hash.size() != HASH_DIGITS || entry.hash.find_first_not_of("0123456789abcdef") != std::string::npos) {
            Refuse(entry.path, "has no SHA-256 hash in the list of contents.");
        }
    }
    return entry;
}

bool ByPath(const Entry& left, const Entry& right)
{
    return left.path < right.path;
}

/// Each entry is listed once, and its parent is a listed directory. So no link is on the path to a file.
void RequireTree(const std::vector<Entry>& entries)
{
    std::set<std::string_view> directories;
    std::set<std::string_view> all;
    for (const Entry& entry : entries) {
        const std::string_view parent = ParentOf(entry.path);
        if (!all.insert(entry.path).second) {
            Refuse(entry.path, "is there twice.");
        }
        if (!parent.empty() && directories.count(parent) == 0) {
            Refuse(entry.path, "lies in no directory of the bundle.");
        }
        if (entry.kind == Entry::DIRECTORY) {
            directories.insert(entry.path);
        }
    }
}

class Walk {
public:
    explicit Walk(const std::string& root) : m_root(root) {}

    Contents Run()
    {
        Enter("", 0);
        std::sort(m_contents.entries.begin(), m_contents.entries.end(), ByPath);
        HashFiles(m_root, m_contents.entries);
        return std::move(m_contents);
    }

private:
    void Enter(const std::string& folder, int depth);
    void Take(const std::string& path, int depth);

    const std::string& m_root;
    Contents m_contents;
};

void Walk::Enter(const std::string& folder, int depth)
{
    constexpr int deepest = 64;
    const auto names = Model::ListDirectory(m_root + "/" + folder);
    if (!names || depth > deepest) {
        throw Refusal(Printable(m_root + "/" + folder) + ": " + (names ? "too deep" : std::strerror(errno)) + ".");
    }
    for (const std::string& name : *names) {
        const std::string path = folder.empty() ? name : folder + "/" + name;
        if (!IsOwnFile(path)) {
            Take(path, depth);
        }
    }
}

void Walk::Take(const std::string& path, int depth)
{
    struct stat status {};
    const std::string file = m_root + "/" + path;
    if (::lstat(file.c_str(), &status) != 0) {
        throw Refusal(Printable(file) + ": " + std::strerror(errno) + ".");
    }
    RequirePath(path);
    if (m_contents.entries.size() == Contents::MOST_ENTRIES) {
        throw Refusal("there are more than " + std::to_string(Contents::MOST_ENTRIES) + " files.");
    }
    Entry entry;
    entry.path = path;
    entry.mode = status.st_mode & PERMISSIONS;
    if (S_ISLNK(status.st_mode)) {
        entry.kind = Entry::LINK;
        entry.mode = 0;
        entry.target = Model::ReadLink(file).value_or("");
        RequireLink(path, entry.target);
    } else if (S_ISREG(status.st_mode)) {
        if ((status.st_mode & (S_ISUID | S_ISGID)) != 0) {
            Refuse(path, "is setuid or setgid. The server runs items with its own rights, so remove that: chmod ug-s.");
        }
        entry.size = static_cast<std::uint64_t>(status.st_size);
    } else if (S_ISDIR(status.st_mode)) {
        entry.kind = Entry::DIRECTORY;
    } else {
        Refuse(path, "is neither a file nor a directory nor a link.");
    }
    const bool isDirectory = entry.kind == Entry::DIRECTORY;
    m_contents.entries.push_back(std::move(entry));
    if (isDirectory) {
        Enter(path, depth + 1);
    }
}

/// Why an entry of a directory differs from the list; empty: it does not.
std::string DifferenceOf(const Entry& shipped, const Entry& present)
{
    if (shipped.kind != present.kind) {
        return "is of another kind than was shipped.";
    }
    if (shipped.hash != present.hash || shipped.target != present.target) {
        return "differs from what was shipped.";
    }
    constexpr unsigned anyone = 0111;
    return shipped.kind == Entry::FILE && (shipped.mode & anyone) != (present.mode & anyone)
               ? "has other permissions than were shipped."
               : "";
}

} // namespace

std::string Contents::Text() const
{
    std::string text = std::string(HEAD) + "\n";
    for (const Entry& entry : entries) {
        std::array<char, 16> mode{};
        std::to_chars(mode.data(), mode.data() + mode.size() - 1, entry.mode, 8);
        const bool isFile = entry.kind == Entry::FILE;
        text += std::string(1, entry.kind) + "\t" + (entry.kind == Entry::LINK ? "-" : mode.data()) + "\t" +
                (isFile ? std::to_string(entry.size) : "-") + "\t" +
                (isFile                      ? entry.hash
                 : entry.kind == Entry::LINK ? entry.target
                                             : "-") +
                "\t" + entry.path + "\n";
    }
    return text;
}

std::uint64_t Contents::Size() const
{
    std::uint64_t size = 0;
    for (const Entry& entry : entries) {
        // Saturates, because the sizes are not trusted.
        size = entry.size > UINT64_MAX - size ? UINT64_MAX : size + entry.size;
    }
    return size;
}

const Entry* Contents::Find(std::string_view path) const
{
    const auto found = std::lower_bound(entries.begin(), entries.end(), path,
                                        [](const Entry& entry, std::string_view other) { return entry.path < other; });
    return found == entries.end() || found->path != path ? nullptr : &*found;
}

Contents ParseContents(std::string_view text)
{
    auto lines = Split(text, '\n');
    if (lines.front() != HEAD || lines.size() < 2 || !lines.back().empty()) {
        throw Refusal("the list of contents is not one that this program reads, or is cut off.");
    }
    lines.pop_back();
    if (lines.size() - 1 > Contents::MOST_ENTRIES) {
        throw Refusal("there are more than " + std::to_string(Contents::MOST_ENTRIES) + " files.");
    }
    Contents contents;
    for (auto line = lines.begin() + 1; line != lines.end(); ++line) {
        contents.entries.push_back(ParseEntry(*line));
    }
    RequireTree(contents.entries);
    if (!std::is_sorted(contents.entries.begin(), contents.entries.end(), ByPath)) {
        throw Refusal("the list of contents is not in order.");
    }
    // Each list has exactly one form, so every signed byte is checked.
    if (contents.Text() != text) {
        throw Refusal("the list of contents is not written as bundlectl pack writes it.");
    }
    return contents;
}

Contents ReadContents(const std::string& directory)
{
    return Walk(directory).Run();
}

std::vector<std::string> Differences(const std::string& directory, const Contents& shipped)
{
    std::vector<std::string> differences;
    const Contents present = ReadContents(directory);
    for (const Entry& entry : shipped.entries) {
        const Entry* const other = present.Find(entry.path);
        const std::string text = other == nullptr ? "is missing." : DifferenceOf(entry, *other);
        if (!text.empty()) {
            differences.push_back(Printable(entry.path) + " " + text);
        }
    }
    for (const Entry& entry : present.entries) {
        const std::string folder = entry.path.substr(0, entry.path.find('/'));
        const bool isOfItems =
            folder != "bin" && folder != "script" && (folder != entry.path || entry.kind == Entry::DIRECTORY);
        if (shipped.Find(entry.path) == nullptr && !isOfItems) {
            differences.push_back(Printable(entry.path) + " was not shipped.");
        }
    }
    return differences;
}

} // namespace Put
