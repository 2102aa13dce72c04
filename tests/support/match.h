#ifndef TESTS_SUPPORT_MATCH_H
#define TESTS_SUPPORT_MATCH_H

#include <regex.h>

#include <array>
#include <string>
#include <vector>

/// The groups of an extended regular expression that the whole text matches, the text itself first. Empty without a
/// match. Uses the C library, because std::regex causes compiler warnings under the sanitizers.
inline std::vector<std::string> Match(const std::string& text, const std::string& expression)
{
    regex_t compiled{};
    if (::regcomp(&compiled, ("^" + expression + "$").c_str(), REG_EXTENDED) != 0) {
        return {};
    }
    std::array<regmatch_t, 4> groups{};
    std::vector<std::string> found;
    if (::regexec(&compiled, text.c_str(), groups.size(), groups.data(), 0) == 0) {
        for (const regmatch_t& group : groups) {
            if (group.rm_so >= 0) {
                found.push_back(text.substr(static_cast<std::size_t>(group.rm_so),
                                            static_cast<std::size_t>(group.rm_eo - group.rm_so)));
            }
        }
    }
    ::regfree(&compiled);
    return found;
}

#endif
