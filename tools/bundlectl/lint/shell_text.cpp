#include "shell_text.h"

#include "shell_words.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <map>
#include <optional>

namespace Lint {

namespace {

/// A path below the bundle's root, with "." and ".." resolved. Empty when it leads outside.
std::optional<std::string> Normalized(const std::string& path)
{
    std::vector<std::string> parts;
    for (std::size_t begin = 0; begin < path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const std::string part = path.substr(begin, end - begin);
        begin = end + 1;
        if (part == ".." && parts.empty()) {
            return std::nullopt;
        }
        if (part == "..") {
            parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
    }
    std::string result;
    for (const std::string& part : parts) {
        result += (result.empty() ? "" : "/") + part;
    }
    return result;
}

class Shell {
public:
    ShellText Read(std::string_view text);

private:
    void TakeLine(const ShellWords& words, int line);
    bool TakeAssignment(const std::string& word);
    void TakeWrites(const ShellWords& words, int line);
    void TakeTarget(const std::string& word, int line);
    std::optional<std::string> PathOf(std::string word) const;
    void TakeLast(const ShellWords& words, int line);

    ShellText m_text;
    std::map<std::string, std::string> m_places; // variables that hold a directory of the bundle, from its root
    int m_depth = 0;                             // of conditions, loops and functions
};

ShellText Shell::Read(std::string_view text)
{
    int number = 0;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        ++number;
        const ShellWords words = SplitShellLine(text.substr(begin, end - begin));
        begin = end + 1;
        if (!words.empty()) {
            TakeLine(words, number);
        }
    }
    return std::move(m_text);
}

void Shell::TakeLine(const ShellWords& words, int line)
{
    constexpr std::array<std::string_view, 5> opening{"if", "for", "while", "until", "case"};
    constexpr std::array<std::string_view, 4> closing{"fi", "done", "esac", "}"};
    const auto counts = [&words](const auto& list) {
        return std::count_if(words.begin(), words.end(), [&list](const std::string& word) {
            return std::find(list.begin(), list.end(), word) != list.end();
        });
    };
    const bool isNested = m_depth > 0 || counts(opening) > 0 || words.back() == "{";
    m_depth += static_cast<int>(counts(opening) + (words.back() == "{" ? 1 : 0) - counts(closing));
    TakeWrites(words, line);
    m_text.programLine = 0;
    m_text.backgroundLine = 0;
    if (!isNested && !(words.size() == 1 && TakeAssignment(words[0]))) {
        TakeLast(words, line);
    }
}

// Expressions by which scripts find their bundle: from the path of the item, which is in bin/.
bool Shell::TakeAssignment(const std::string& word)
{
    const std::size_t sign = word.find('=');
    if (sign == std::string::npos || sign == 0) {
        return false;
    }
    std::string value = word.substr(sign + 1);
    value.erase(std::remove(value.begin(), value.end(), '"'), value.end());
    constexpr std::string_view change = "$(cd ";
    if (value.compare(0, change.size(), change) == 0) {
        value = value.substr(change.size(), value.rfind(" && pwd") - change.size());
    }
    if (const auto place = PathOf(value)) {
        m_places[word.substr(0, sign)] = *place;
    }
    return true;
}

std::optional<std::string> Shell::PathOf(std::string word) const
{
    word.erase(std::remove(word.begin(), word.end(), '"'), word.end());
    constexpr std::array<std::pair<std::string_view, std::string_view>, 5> own{{
        {"$(dirname $(dirname $0))", ""},
        {"$(dirname $0)", "bin"},
        {"$(dirname -- $0)", "bin"},
        {"${0%/*}", "bin"},
        {"${0%/bin/*}", ""},
    }};
    for (const auto& [text, place] : own) {
        if (word.compare(0, text.size(), text) == 0) {
            return Normalized(std::string(place) + word.substr(text.size()));
        }
    }
    if (word.empty() || word[0] != '$') {
        return std::nullopt;
    }
    const bool isBraced = word.compare(0, 2, "${") == 0;
    const std::size_t begin = isBraced ? 2 : 1;
    const std::size_t end = std::min(isBraced ? word.find('}') : word.find('/'), word.size());
    const auto known = m_places.find(word.substr(begin, end - begin));
    if (known == m_places.end()) {
        return std::nullopt;
    }
    return Normalized(known->second + word.substr(std::min(end + (isBraced ? 1 : 0), word.size())));
}

void Shell::TakeWrites(const ShellWords& words, int line)
{
    constexpr std::array<std::string_view, 3> making{"touch", "mkdir", "tee"};
    constexpr std::array<std::string_view, 2> copying{"cp", "mv"};
    const auto isOne = [&words](const auto& list) {
        return std::find(list.begin(), list.end(), words[0]) != list.end();
    };
    for (std::size_t i = 0; i + 1 < words.size(); ++i) {
        if (words[i] == ">" || words[i] == ">>") {
            TakeTarget(words[i + 1], line);
        }
    }
    if (isOne(making)) {
        for (std::size_t i = 1; i < words.size() && words[i] != ";" && words[i] != "&&" && words[i] != "||"; ++i) {
            TakeTarget(words[i], line);
        }
    } else if (isOne(copying)) {
        TakeTarget(words.back(), line);
    }
}

void Shell::TakeTarget(const std::string& word, int line)
{
    const auto path = PathOf(word);
    if (!path || path->empty()) {
        return;
    }
    const std::string folder = path->substr(0, std::min(path->find('/'), path->size()));
    const bool isDeeper = std::count(path->begin(), path->end(), '/') > 1;
    const bool isWatched = (folder == "bin" || folder == "script") && !isDeeper;
    const bool isInRoot = folder == *path && folder != "bin" && folder != "script";
    // Making a folder in the root is also a change, unless the folder exists already.
    if (isWatched || isInRoot) {
        m_text.writes.push_back({line, *path});
    }
}

void Shell::TakeLast(const ShellWords& words, int line)
{
    const std::string& command = words[0];
    if (words.back() == "&") {
        m_text.backgroundLine = line;
        return;
    }
    const bool isPipe = std::find(words.begin(), words.end(), "|") != words.end();
    const bool isPath = command.find('/') != std::string::npos && command.find('=') == std::string::npos;
    if (isPath && !isPipe) {
        m_text.programLine = line;
    }
}

} // namespace

ShellText ReadShell(std::string_view text)
{
    return Shell().Read(text);
}

} // namespace Lint
