#ifndef BUNDLECTL_LINT_FINDING_H
#define BUNDLECTL_LINT_FINDING_H

#include <string>
#include <utility>
#include <vector>

namespace Lint {

enum class Severity {
    WARNING, ///< the server takes the bundle, and it may not do what its author means
    ERROR,   ///< the server refuses the bundle, or an item of it cannot run
};

/// What lint looks for. One object each, which lives as long as the program.
struct Rule {
    const char* id; ///< never changes: suppressions and reports name it
    Severity severity;
    const char* summary; ///< what is wrong, as a title
    const char* reason;  ///< why it matters
    const char* remedy;  ///< the way out
};

/// A rule that a file breaks.
struct Finding {
    const Rule* rule;
    std::string file; ///< path, as it can be opened
    int line = 0;     ///< counted from 1; 0: the file as a whole
    std::string text; ///< what is wrong there; control characters are escaped
};

/// What has been found so far.
class Report {
public:
    void Add(const Rule& rule, std::string file, int line, std::string text)
    {
        m_findings.push_back({&rule, std::move(file), line, std::move(text)});
    }

    std::vector<Finding>& Findings() { return m_findings; }

private:
    std::vector<Finding> m_findings;
};

} // namespace Lint

#endif
