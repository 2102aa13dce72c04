#ifndef BUNDLECTL_AUTHOR_LINT_OUTPUT_H
#define BUNDLECTL_AUTHOR_LINT_OUTPUT_H

#include "lint/lint.h"
#include "output/terminal.h"

#include <string>

namespace LintOutput {

/// For people: a line for each finding with its remedy below, and a last line with the counts.
std::string Text(const Lint::Result& result, const Output::Terminal& terminal);
/// For programs: bundlectl's own form, one line.
std::string Json(const Lint::Result& result);
/// For programs that show the findings of analyzers: SARIF 2.1.0.
std::string Sarif(const Lint::Result& result);

/// The full description of a rule, for people.
std::string Explanation(const Lint::Rule& rule, const Output::Terminal& terminal);
/// One line for each rule.
std::string List(const Output::Terminal& terminal);

} // namespace LintOutput

#endif
