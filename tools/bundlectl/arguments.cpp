#include "arguments.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <system_error>
#include <utility>

namespace {

void Describe(CLI::App& command, CLI::Option& option, const Argument& argument)
{
    option.required(argument.isRequired);
    if (*argument.type != '\0') {
        option.type_name(argument.type);
    }
    if (*argument.standard != '\0') {
        option.default_str(argument.standard);
    }
    if (argument.check != nullptr) {
        option.check(argument.check);
    }
    if (*argument.without != '\0') {
        option.excludes(command.get_option(argument.without));
    }
}

bool Parse(const std::string& text, long& number)
{
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && rest == end;
}

} // namespace

void Arguments::Add(const Argument& argument, std::string& value)
{
    Add(argument, [&value](const std::string& text) { value = text; });
}

void Arguments::Add(const Argument& argument, std::function<void(const std::string&)> take)
{
    Describe(m_command,
             *m_command.add_option_function<std::string>(argument.names, std::move(take), argument.description),
             argument);
}

void Arguments::Add(const Argument& argument, std::vector<std::string>& values)
{
    Describe(m_command, *m_command.add_option(argument.names, values, argument.description), argument);
}

void Arguments::Add(const Argument& argument, long& number, long least, long most)
{
    CLI::Option* const option = m_command.add_option_function<std::string>(
        argument.names, [&number](const std::string& text) { Parse(text, number); }, argument.description);
    Describe(m_command, *option, argument);
    option->check([least, most](const std::string& text) {
        long value = 0;
        return Parse(text, value) && value >= least && value <= most
                   ? std::string()
                   : "\"" + text + "\" is no number from " + std::to_string(least) + " to " + std::to_string(most);
    });
}

void Arguments::AddFlag(const char* names, const char* description, bool& flag)
{
    m_command.add_flag_callback(
        names, [&flag] { flag = true; }, description);
}
