#ifndef BUNDLECTL_ARGUMENTS_H
#define BUNDLECTL_ARGUMENTS_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

/// An option of a verb, or an argument without a dash.
struct Argument {
    /// Says what is wrong with a value, in a sentence; nothing when it is good.
    using Check = std::function<std::string(const std::string& value)>;

    const char* names; ///< "--since", "-f,--follow"; "NAME" for an argument without a dash
    const char* description;
    /// What its value is called in the help. FILE, DIR and NAME are completed with files, directories and bundles.
    const char* type = "";
    Check check = nullptr;     ///< null: any value is good
    const char* without = "";  ///< another option that it cannot stand beside, which has been added before
    std::string standard = {}; ///< the value that it has when it is not given, for the help
    bool isRequired = false;
    const char* choices = ""; ///< with blanks between them: the only values that there are, unless a check says others

    bool IsOption() const { return *names == '-'; }
    /// The name that is typed most: the long one of an option.
    std::string_view MainName() const;
    /// What its value is: its type, or its name without a dash.
    std::string_view ValueName() const;
};

/// An argument and where its values go.
struct DeclaredArgument {
    Argument argument;
    std::function<void(const std::string& value)> take; ///< called with each value, once it has passed the check
    bool isFlag = false;                                ///< it has no value; take gets an empty one
    bool isList = false;                                ///< it can have several values
};

/// The arguments of one verb: the command line, the help and the completions read them here. What values are put into
/// must outlive the reading.
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

/// The words of a text that blanks divide.
std::vector<std::string_view> WordsOf(std::string_view text);

#endif
