#include "shell_words.h"

#include <cctype>
#include <cstddef>

namespace Lint {

namespace {

bool IsOperator(char c)
{
    return std::string_view("<>&;|").find(c) != std::string_view::npos;
}

class Splitter {
public:
    explicit Splitter(std::string_view line) : m_line(line) {}

    ShellWords Split()
    {
        while (m_place < m_line.size() && !IsComment()) {
            Take();
        }
        Finish();
        return std::move(m_words);
    }

private:
    bool IsComment() const { return m_line[m_place] == '#' && !m_isWord && m_quote == '\0'; }
    void Take();
    void TakeSubstitution();
    void TakeOperator(char c);
    void Add(char c)
    {
        m_word += c;
        m_isWord = true;
    }
    void Finish()
    {
        if (m_isWord) {
            m_words.push_back(m_word);
        }
        m_word.clear();
        m_isWord = false;
    }

    const std::string_view m_line;
    std::size_t m_place = 0;
    ShellWords m_words;
    std::string m_word;
    bool m_isWord = false; // m_word has begun; it may be empty, as "" is
    char m_quote = '\0';
};

void Splitter::Take()
{
    const char c = m_line[m_place];
    if (m_quote != '\'' && m_line.substr(m_place, 2) == "$(") {
        TakeSubstitution();
        return;
    }
    ++m_place;
    if ((c == '"' || c == '\'') && (m_quote == '\0' || m_quote == c)) {
        m_quote = m_quote == c ? '\0' : c;
        m_isWord = true;
    } else if (m_quote == '\0' && std::isspace(static_cast<unsigned char>(c)) != 0) {
        Finish();
    } else if (m_quote == '\0' && IsOperator(c)) {
        TakeOperator(c);
    } else {
        Add(c);
    }
}

// Takes it whole, with everything that is nested in it.
void Splitter::TakeSubstitution()
{
    int depth = 0;
    do {
        const char c = m_line[m_place++];
        depth += c == '(' ? 1 : c == ')' ? -1 : 0;
        Add(c);
    } while (m_place < m_line.size() && (depth > 0 || m_word.back() == '$'));
}

void Splitter::TakeOperator(char c)
{
    const bool isDescriptor = m_word.size() == 1 && std::isdigit(static_cast<unsigned char>(m_word[0])) != 0;
    if (isDescriptor && (c == '>' || c == '<')) {
        m_word.clear(); // "2>"
        m_isWord = false;
    }
    const bool isContinued = !m_isWord && m_place > 1 && IsOperator(m_line[m_place - 2]) && !m_words.empty();
    Finish();
    if (isContinued) {
        m_words.back() += c; // ">>", "&&", ">&"
    } else {
        m_words.emplace_back(1, c);
    }
}

} // namespace

ShellWords SplitShellLine(std::string_view line)
{
    return Splitter(line).Split();
}

} // namespace Lint
