#include "manifest_text.h"

#include <algorithm>
#include <cctype>
#include <cstddef>

namespace Lint {

namespace {

constexpr std::string_view BYTE_ORDER_MARK = "\xef\xbb\xbf";
constexpr std::string_view BLANKS = " \t\v\f\r";

std::string_view Trimmed(std::string_view text)
{
    const std::size_t begin = text.find_first_not_of(BLANKS);
    return begin == std::string_view::npos ? std::string_view()
                                           : text.substr(begin, text.find_last_not_of(BLANKS) + 1 - begin);
}

class Splitter {
public:
    ManifestText Split(std::string_view text);

private:
    void TakeLine(std::string_view line);
    void TakeKey(std::string_view line);

    ManifestText m_result;
    std::string m_section;
    int m_line = 0;
};

ManifestText Splitter::Split(std::string_view text)
{
    m_result.hasByteOrderMark = text.substr(0, BYTE_ORDER_MARK.size()) == BYTE_ORDER_MARK;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        const std::string_view line = text.substr(begin, end - begin);
        ++m_line;
        if (m_result.firstCarriageReturn == 0 && !line.empty() && line.back() == '\r') {
            m_result.firstCarriageReturn = m_line;
        }
        TakeLine(Trimmed(line));
        begin = end + 1;
    }
    return std::move(m_result);
}

void Splitter::TakeLine(std::string_view line)
{
    // The server's reader treats text after a section's head as a line of its own.
    while (!line.empty() && line.front() == '[') {
        const std::size_t end = std::min(line.find(']'), line.size());
        m_section = Trimmed(line.substr(1, end - 1));
        m_result.entries.push_back({m_line, m_section, "", ""});
        line = Trimmed(line.substr(std::min(end + 1, line.size())));
    }
    if (!line.empty() && line.front() != ';') {
        TakeKey(line);
    }
}

void Splitter::TakeKey(std::string_view line)
{
    const std::size_t end = std::min(line.find('='), line.size());
    ManifestEntry entry;
    entry.line = m_line;
    entry.section = m_section;
    entry.key = Trimmed(line.substr(0, end));
    entry.value = Trimmed(line.substr(std::min(end + 1, line.size())));
    if (!entry.key.empty()) {
        m_result.entries.push_back(std::move(entry));
    }
}

} // namespace

const ManifestEntry* ManifestText::Find(std::string_view section, std::string_view key) const
{
    const ManifestEntry* found = nullptr;
    for (const ManifestEntry& entry : entries) {
        if (SameName(entry.section, section) && SameName(entry.key, key)) {
            found = &entry;
        }
    }
    return found;
}

int ManifestText::LineOf(std::string_view section, std::string_view key) const
{
    const ManifestEntry* entry = Find(section, key);
    entry = entry != nullptr ? entry : Find(section, "");
    return entry != nullptr ? entry->line : 0;
}

std::vector<const ManifestEntry*> ManifestText::Sections() const
{
    std::vector<const ManifestEntry*> sections;
    for (const ManifestEntry& entry : entries) {
        const auto isSame = [&entry](const ManifestEntry* other) { return SameName(other->section, entry.section); };
        if (!entry.section.empty() && std::none_of(sections.begin(), sections.end(), isSame)) {
            sections.push_back(&entry);
        }
    }
    return sections;
}

ManifestText SplitManifest(std::string_view text)
{
    return Splitter().Split(text);
}

bool SameName(std::string_view left, std::string_view right)
{
    return std::equal(left.begin(), left.end(), right.begin(), right.end(), [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
    });
}

} // namespace Lint
