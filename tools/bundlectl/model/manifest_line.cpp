#include "manifest_line.h"

#include "files.h"

#include <Poco/String.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <string_view>

namespace Model {

namespace {

struct ManifestLine {
    int number = 0;
    std::string section;
    std::string key; ///< empty: the head of the section
    std::string value;
};

/// The first line that matches.
std::optional<int> FindLine(const std::string& text, const std::function<bool(const ManifestLine&)>& fits)
{
    std::istringstream lines(text);
    ManifestLine line;
    for (std::string content; std::getline(lines, content);) {
        ++line.number;
        content = Poco::trim(content);
        if (content.empty() || content.front() == ';') {
            continue;
        }
        line.key.clear();
        line.value.clear();
        if (content.front() == '[') {
            line.section = Poco::trim(content.substr(1, content.find(']') - 1));
        } else {
            const std::size_t end = std::min(content.find('='), content.size());
            line.key = Poco::trim(content.substr(0, end));
            line.value = Poco::trim(content.substr(std::min(end + 1, content.size())));
        }
        if (fits(line)) {
            return line.number;
        }
    }
    return std::nullopt;
}

/// The text after a beginning; empty when the text begins otherwise.
std::string After(const std::string& text, std::string_view beginning)
{
    return text.compare(0, beginning.size(), beginning) == 0 ? text.substr(beginning.size()) : std::string();
}

} // namespace

std::optional<int> LineOfFault(const std::string& manifestPath, const std::string& refusal)
{
    constexpr std::size_t longest = std::size_t{1024} * 1024;
    const std::string text = ReadFileAtMost(manifestPath, longest).value_or("");
    const std::string missing = After(refusal, "Not found: ");
    if (const std::size_t point = missing.rfind('.'); point != std::string::npos) {
        return FindLine(text, [section = missing.substr(0, point)](const ManifestLine& line) {
            return line.key.empty() && Poco::icompare(line.section, section) == 0;
        });
    }
    if (!After(refusal, "Syntax error: ").empty()) {
        return FindLine(text,
                        [](const ManifestLine& line) { return Poco::icompare(line.key, "bundle_load_mode") == 0; });
    }
    std::string name = After(refusal, "item name[");
    if (!name.empty()) {
        name.resize(std::min(name.rfind("] is shorter"), name.size()));
        return FindLine(text, [&name](const ManifestLine& line) {
            return Poco::icompare(line.key, "item_name") == 0 && line.value == name;
        });
    }
    return std::nullopt;
}

} // namespace Model
