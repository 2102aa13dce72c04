#include "arguments.h"

#include <algorithm>
#include <charconv>
#include <system_error>
#include <utility>

namespace {

bool Parse(const std::string& text, long& number)
{
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && rest == end;
}

Argument::Check OneOf(std::string_view choices)
{
    return [choices](const std::string& value) {
        const std::vector<std::string_view> words = WordsOf(choices);
        return std::find(words.begin(), words.end(), value) != words.end()
                   ? std::string()
                   : "\"" + value + "\" is none of: " + std::string(choices);
    };
}

} // namespace

std::vector<std::string_view> WordsOf(std::string_view text)
{
    std::vector<std::string_view> words;
    while (!text.empty()) {
        const std::size_t size = std::min(text.find(' '), text.size());
        if (size > 0) {
            words.push_back(text.substr(0, size));
        }
        text.remove_prefix(std::min(size + 1, text.size()));
    }
    return words;
}

std::string_view Argument::MainName() const
{
    const std::string_view all = names;
    return all.substr(all.rfind(',') + 1);
}

std::string_view Argument::ValueName() const
{
    return IsOption() ? std::string_view(type) : std::string_view(names);
}

void Arguments::Add(Argument argument, std::string& value)
{
    Add(std::move(argument), [&value](const std::string& text) { value = text; });
}

void Arguments::Add(Argument argument, std::function<void(const std::string&)> take)
{
    if (!argument.check && *argument.choices != '\0') {
        argument.check = OneOf(argument.choices);
    }
    m_all.push_back({std::move(argument), std::move(take)});
}

void Arguments::Add(Argument argument, std::vector<std::string>& values)
{
    Add(std::move(argument), [&values](const std::string& text) { values.push_back(text); });
    m_all.back().isList = true;
}

void Arguments::Add(Argument argument, long& number, long least, long most)
{
    argument.check = [least, most](const std::string& text) {
        long value = 0;
        return Parse(text, value) && value >= least && value <= most
                   ? std::string()
                   : "\"" + text + "\" is no number from " + std::to_string(least) + " to " + std::to_string(most);
    };
    Add(std::move(argument), [&number](const std::string& text) { Parse(text, number); });
}

void Arguments::AddFlag(const char* names, const char* description, bool& flag)
{
    Add({names, description}, [&flag](const std::string&) { flag = true; });
    m_all.back().isFlag = true;
}
