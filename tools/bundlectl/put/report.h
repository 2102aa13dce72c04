#ifndef BUNDLECTL_PUT_REPORT_H
#define BUNDLECTL_PUT_REPORT_H

#include <optional>
#include <string>
#include <vector>

namespace Put {

/// The result of a request, for people and for programs.
struct Report {
    const char* verb = "";
    std::string bundle;
    const char* outcome = "";         ///< a word for programs: "active", "went-back"
    std::string text;                 ///< a sentence
    std::vector<std::string> details; ///< further sentences
    std::optional<int> version;       ///< the version in force; empty: none, or it has no number
};

/// Prints it. Returns the status.
int Tell(const Report& report, int status, bool json);

} // namespace Put

#endif
