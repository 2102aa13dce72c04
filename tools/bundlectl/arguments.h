#ifndef BUNDLECTL_ARGUMENTS_H
#define BUNDLECTL_ARGUMENTS_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

/// An option of a verb, or an argument without a dash.
struct Argument {
    /// Returns a sentence about what is wrong with a value; empty when the value is valid.
    using Check = std::function<std::string(const std::string& value)>;

    const char* names; ///< "--since", "-f,--follow"; "NAME" for an argument without a dash
    const char* description;
    /// The name of its value in the help. FILE, DIR and NAME are completed with files, directories and bundles.
    const char* type = "";
    Check check = nullptr;     ///< null: every value is valid
    const char* without = "";  ///< an option, added before, that excludes this one
    std::string standard = {}; ///< its default value, which the help shows
    bool isRequired = false;
    const char* choices = ""; ///< separated by blanks: the only valid values, unless a check permits others

    bool IsOption() const { return *names == '-'; }
    /// The most used name: the long one of an option.
    std::string_view MainName() const;
    /// The name of its value: its type, or its name without a dash.
    std::string_view ValueName() const;
};

/// An argument and where its values go.
struct DeclaredArgument {
    Argument argument;
    std::function<void(const std::string& value)> take; ///< called with each value, once it has passed the check
    bool isFlag = false;                                ///< it has no value; take gets an empty one
    bool isList = false;                                ///< it can have several values
};

/// The arguments of one verb. The command line, the help and the completions read them here. The variables that receive
/// values must outlive the reading.
class Arguments {
public:
    void Add(Argument argument, std::string& value);
    void Add(Argument argument, std::vector<std::string>& values);
    /// A whole number within bounds.
    void Add(Argument argument, long& number, long least, long most);
    /// @param take called with a value that has passed the check
    void Add(Argument argument, std::function<void(const std::string&)> take);
    void AddFlag(const char* names, const char* description, bool& flag);

    const std::vector<DeclaredArgument>& All() const { return m_all; }

private:
    std::vector<DeclaredArgument> m_all;
};

/// The words of a text, separated by blanks.
std::vector<std::string_view> WordsOf(std::string_view text);

#endif
