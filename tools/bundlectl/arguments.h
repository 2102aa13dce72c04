#ifndef BUNDLECTL_ARGUMENTS_H
#define BUNDLECTL_ARGUMENTS_H

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

/// An option of a command, or an argument without a dash.
struct Argument {
    /// Says what is wrong with a value, in a sentence; nothing when it is good.
    using Check = std::string (*)(const std::string& value);

    const char* names; ///< "--since", "-f,--follow"; "NAME" for an argument without a dash
    const char* description;
    const char* type = "";     ///< what its value is called in the help: "FILE"
    Check check = nullptr;     ///< null: any value is good
    const char* without = "";  ///< another option that it cannot stand beside, which has been added before
    const char* standard = ""; ///< the value that it has when it is not given, for the help
    bool isRequired = false;
};

/// The arguments of one command. The library that reads them is included by two sources only: each further one would
/// hold a part of it once more, and bundlectl is to fit small devices. What values are put into must outlive the
/// reading.
class Arguments {
public:
    explicit Arguments(CLI::App& command) : m_command(command) {}

    void Add(const Argument& argument, std::string& value);
    void Add(const Argument& argument, std::vector<std::string>& values);
    /// A whole number within bounds.
    void Add(const Argument& argument, long& number, long least, long most);
    /// @param take called with a value that has passed the check
    void Add(const Argument& argument, std::function<void(const std::string&)> take);
    void AddFlag(const char* names, const char* description, bool& flag);

private:
    CLI::App& m_command;
};

#endif
