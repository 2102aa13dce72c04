#include "reading.h"

#include "printable.h"

#include <algorithm>
#include <string_view>

namespace {

constexpr const char HELP[] = "-h,--help";

/// Whether an option has this name: "-f" or "--follow" of "-f,--follow".
bool HasName(std::string_view names, std::string_view name)
{
    while (!names.empty()) {
        const std::size_t size = std::min(names.find(','), names.size());
        if (names.substr(0, size) == name) {
            return true;
        }
        names.remove_prefix(std::min(size + 1, names.size()));
    }
    return false;
}

class Reader {
public:
    Reader(const Arguments& arguments, const std::vector<std::string>& words)
        : m_all(arguments.All()), m_words(words), m_values(m_all.size())
    {}

    Reading Run()
    {
        bool areOptions = true;
        while (m_next < m_words.size() && m_reading.fault.empty() && !m_reading.wantsHelp) {
            const std::string& word = m_words[m_next++];
            if (areOptions && word == "--") {
                areOptions = false;
            } else if (areOptions && IsOption(word)) {
                TakeOption(word);
            } else {
                TakeWord(word);
            }
        }
        if (m_reading.fault.empty() && !m_reading.wantsHelp) {
            Check();
        }
        if (m_reading.fault.empty() && !m_reading.wantsHelp) {
            HandOver();
        }
        return m_reading;
    }

private:
    static bool IsOption(std::string_view word) { return word.size() > 1 && word.front() == '-'; }

    void Fail(std::string fault) { m_reading.fault = std::move(fault); }

    std::size_t Find(std::string_view name) const
    {
        const auto found = std::find_if(m_all.begin(), m_all.end(), [name](const DeclaredArgument& declared) {
            return HasName(declared.argument.names, name);
        });
        return static_cast<std::size_t>(found - m_all.begin());
    }

    // "--since 10m", "--since=10m", "-n 10", "-n10", and "-fn 10" for two of them.
    void TakeOption(const std::string& word)
    {
        const bool isLong = word[1] == '-';
        const std::size_t size = isLong ? std::min(word.find('='), word.size()) : 2;
        const std::string name = word.substr(0, size);
        if (HasName(HELP, name)) {
            m_reading.wantsHelp = true;
            return;
        }
        const std::size_t number = Find(name);
        if (number == m_all.size()) {
            return Fail("there is no option " + Printable(name));
        }
        const bool hasRest = size < word.size();
        if (m_all[number].isFlag) {
            m_values[number].emplace_back();
            if (hasRest && isLong) {
                Fail(name + " has no value");
            } else if (hasRest) {
                TakeOption("-" + word.substr(size));
            }
        } else if (hasRest) {
            m_values[number].push_back(word.substr(isLong ? size + 1 : size));
        } else {
            TakeValues(number, name);
        }
    }

    void TakeValues(std::size_t number, const std::string& name)
    {
        if (m_next == m_words.size()) {
            return Fail(name + " needs a value: " + m_all[number].argument.type);
        }
        m_values[number].push_back(m_words[m_next++]);
        while (m_all[number].isList && m_next < m_words.size() && !IsOption(m_words[m_next])) {
            m_values[number].push_back(m_words[m_next++]);
        }
    }

    void TakeWord(const std::string& word)
    {
        for (std::size_t i = 0; i < m_all.size(); ++i) {
            if (!m_all[i].argument.IsOption() && (m_all[i].isList || m_values[i].empty())) {
                m_values[i].push_back(word);
                return;
            }
        }
        Fail("there is one word too many: \"" + Printable(word) + "\"");
    }

    void Check()
    {
        for (std::size_t i = 0; i < m_all.size() && m_reading.fault.empty(); ++i) {
            const Argument& argument = m_all[i].argument;
            const std::string name(argument.MainName());
            if (m_values[i].empty()) {
                if (argument.isRequired) {
                    Fail(name + " is missing");
                }
                continue;
            }
            if (!m_all[i].isFlag && !m_all[i].isList && m_values[i].size() > 1) {
                return Fail(name + " is given twice");
            }
            const std::size_t other = *argument.without != '\0' ? Find(argument.without) : m_all.size();
            if (other < m_all.size() && !m_values[other].empty()) {
                return Fail(name + " and " + argument.without + " exclude each other");
            }
            CheckValues(i, name);
        }
    }

    void CheckValues(std::size_t number, const std::string& name)
    {
        const Argument::Check& check = m_all[number].argument.check;
        for (const std::string& value : m_values[number]) {
            const std::string fault = check ? check(value) : std::string();
            if (!fault.empty()) {
                return Fail(name + ": " + fault);
            }
        }
    }

    void HandOver() const
    {
        for (std::size_t i = 0; i < m_all.size(); ++i) {
            std::for_each(m_values[i].begin(), m_values[i].end(), m_all[i].take);
        }
    }

    const std::vector<DeclaredArgument>& m_all;
    const std::vector<std::string>& m_words;
    std::vector<std::vector<std::string>> m_values; // of each argument
    std::size_t m_next = 0;
    Reading m_reading;
};

std::string NameInHelp(const DeclaredArgument& declared)
{
    const Argument& argument = declared.argument;
    std::string text = argument.names;
    if (!declared.isFlag && text != argument.type && *argument.type != '\0') {
        text += std::string(" ") + argument.type;
    }
    if (!argument.standard.empty()) {
        text += "=" + argument.standard;
    }
    return text + (declared.isList ? "..." : "");
}

} // namespace

Reading ReadWords(const Arguments& arguments, const std::vector<std::string>& words)
{
    return Reader(arguments, words).Run();
}

std::string HelpLine(const std::string& name, const std::string& description)
{
    constexpr std::size_t column = 30;
    std::string line = "  " + name;
    if (line.size() >= column) {
        line += "\n";
        line.append(column, ' ');
    } else {
        line.append(column - line.size(), ' ');
    }
    return Wrapped(line, description, column) + "\n";
}

std::string Wrapped(const std::string& begin, const std::string& text, std::size_t indent)
{
    constexpr std::size_t columns = 80;
    std::string all = begin;
    std::size_t used = begin.size() - (begin.rfind('\n') + 1); // in the last line
    for (const std::string_view word : WordsOf(text)) {
        const bool isFirst = all.empty() || all.back() == ' ';
        if (!isFirst && used + 1 + word.size() > columns) {
            all.append("\n").append(indent, ' ');
            used = indent;
        } else if (!isFirst) {
            all += ' ';
            ++used;
        }
        all += word;
        used += word.size();
    }
    return all;
}

std::string TellArguments(const Arguments& arguments)
{
    std::string words;
    std::string options = HelpLine(HELP, "print this and exit");
    for (const DeclaredArgument& declared : arguments.All()) {
        const Argument& argument = declared.argument;
        std::string description = argument.description;
        if (*argument.without != '\0') {
            description += std::string("; not with ") + argument.without;
        }
        (argument.IsOption() ? options : words) += HelpLine(NameInHelp(declared), description);
    }
    return (words.empty() ? "" : "\nArguments:\n" + words) + "\nOptions:\n" + options;
}

std::string UsageOf(const Arguments& arguments)
{
    std::string text = "[OPTIONS]";
    for (const DeclaredArgument& declared : arguments.All()) {
        if (!declared.argument.IsOption()) {
            const std::string name = declared.argument.names + std::string(declared.isList ? "..." : "");
            text += declared.argument.isRequired ? " " + name : " [" + name + "]";
        }
    }
    return text;
}
