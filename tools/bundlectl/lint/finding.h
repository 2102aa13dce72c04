#ifndef BUNDLECTL_LINT_FINDING_H
#define BUNDLECTL_LINT_FINDING_H

#include <string>
#include <utility>
#include <vector>

namespace Lint {

enum class Severity {
    WARNING, ///< the server accepts the bundle, but it may not do what its author intends
    ERROR,   ///< the server refuses the bundle, or an item of it cannot run
};

/// A kind of fault that lint searches for. Each rule is one object, which lives as long as the program.
struct Rule {
    const char* id; ///< never changes, because suppressions and reports name it
    Severity severity;
    const char* summary; ///< what is wrong, as a title
    const char* reason;  ///< why it matters
    const char* remedy;  ///< how to correct it
};

/// A violation of a rule by a file.
struct Finding {
    const Rule* rule;
    std::string file; ///< a path that can be opened
    int line = 0;     ///< counted from 1; 0: the file as a whole
    std::string text; ///< what is wrong there; control characters are escaped
};

/// The findings so far.
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
