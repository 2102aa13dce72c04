#include "event.h"

#include <algorithm>
#include <charconv>
#include <vector>

namespace Model {

namespace {

using Arguments = std::array<std::string_view, 5>;

bool IsNumber(std::string_view text)
{
    if (!text.empty() && text.front() == '-') {
        text.remove_prefix(1);
    }
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

/// The letter of a placeholder and its length in the text.
struct Placeholder {
    char letter;
    std::size_t size;
};

Placeholder PlaceholderAt(std::string_view pattern)
{
    const std::size_t end = pattern.find_first_not_of("lz", 1);
    return {pattern[end], end + 1};
}

bool Fits(char letter, std::string_view argument)
{
    return letter == 's' || (letter == 'c' ? argument.size() <= 1 : IsNumber(argument));
}

bool MatchArgument(std::string_view pattern, std::string_view message, Arguments& arguments, std::size_t number);

bool Match(std::string_view pattern, std::string_view message, Arguments& arguments, std::size_t number)
{
    const std::size_t literal = std::min(pattern.find('%'), pattern.size());
    if (message.substr(0, literal) != pattern.substr(0, literal)) {
        return false;
    }
    pattern.remove_prefix(literal);
    message.remove_prefix(literal);
    return pattern.empty() ? message.empty() : MatchArgument(pattern, message, arguments, number);
}

// Matches from a placeholder on. An argument may contain the text that follows it, so each position is tried.
bool MatchArgument(std::string_view pattern, std::string_view message, Arguments& arguments, std::size_t number)
{
    const Placeholder placeholder = PlaceholderAt(pattern);
    pattern.remove_prefix(placeholder.size);
    if (pattern.empty()) {
        arguments[number] = message;
        return Fits(placeholder.letter, message);
    }
    const std::string_view next = pattern.substr(0, pattern.find('%'));
    for (std::size_t place = message.find(next); place != std::string_view::npos;
         place = message.find(next, place + 1)) {
        arguments[number] = message.substr(0, place);
        if (Fits(placeholder.letter, arguments[number]) &&
            Match(pattern, message.substr(place), arguments, number + 1)) {
            return true;
        }
    }
    return false;
}

/// The texts by their first letters, because each record of a long log is looked up.
class Index {
public:
    Index()
    {
        for (const EventText* text = EVENT_TEXTS; text->text != nullptr; ++text) {
            const char first = text->text[0];
            Bucket(first == '%' ? '\0' : first).push_back(text);
        }
    }

    const EventText* Find(std::string_view message, Arguments& arguments) const
    {
        const EventText* const text = FindIn(m_buckets[Slot(message.front())], message, arguments);
        return text != nullptr ? text : FindIn(m_buckets[0], message, arguments);
    }

private:
    using Texts = std::vector<const EventText*>;

    static std::size_t Slot(char first) { return static_cast<unsigned char>(first); }
    Texts& Bucket(char first) { return m_buckets[Slot(first)]; }

    static const EventText* FindIn(const Texts& texts, std::string_view message, Arguments& arguments)
    {
        for (const EventText* const text : texts) {
            arguments = {};
            if (Match(text->text, message, arguments, 0)) {
                return text;
            }
        }
        return nullptr;
    }

    std::array<Texts, 256> m_buckets;
};

} // namespace

int Event::Number(std::size_t argument) const
{
    const std::string_view text = arguments[argument];
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? number : 0;
}

Event EventOf(std::string_view message)
{
    static const Index index;
    Event event;
    if (message.empty()) {
        return event;
    }
    if (const EventText* const text = index.Find(message, event.arguments)) {
        event.kind = text->kind;
        event.isKnown = true;
    }
    return event;
}

} // namespace Model
