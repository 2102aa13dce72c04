#ifndef BUNDLECTL_LINT_SUBJECT_H
#define BUNDLECTL_LINT_SUBJECT_H

#include "lint/finding.h"
#include "lint/manifest_text.h"
#include "lint/sysroot.h"

#include <memory>
#include <string>
#include <vector>

namespace Lint {

/// An item, as the manifest names it.
struct SubjectItem {
    std::string name;
    std::string entryFunction; ///< of a library
    std::string file;          ///< its path
    int line = 0;              ///< the line of its name in the manifest
};

/// A bundle that is checked.
struct Subject {
    std::string path;         ///< its directory, without a "/" at the end
    std::string manifestFile; ///< the manifest's path
    ManifestText text;
    bool isRead = false; ///< the server's own code accepts the manifest, and fills the members below
    std::string name;
    int mode = 0;
    std::vector<std::string> required;
    std::vector<SubjectItem> items; ///< in the order in which the server launches them
};

/// The input of the rules of a subject, and the report for their findings.
struct Check {
    const Subject& bundle;
    const Sysroot& sysroot;
    Report& report;

    void Add(const Rule& rule, const std::string& file, int line, std::string text) const
    {
        report.Add(rule, file, line, std::move(text));
    }
};

/// Each function adds its findings to the report. The tables of their rules follow.
void CheckManifest(const Check& check);
void CheckItems(const Check& check);
void CheckElf(const Check& check, const SubjectItem& item, const ElfFacts& elf);
void CheckScripts(const Check& check);
void CheckShellItem(const Check& check, const SubjectItem& item, const std::string& content);
void CheckFiles(const Check& check);

/// The interpreter that a script's first line names; empty: none.
std::string InterpreterOf(const std::string& head);
/// Adds a finding when the interpreter is missing, or may not be executed, in the file system in which the bundle will
/// run.
void CheckInterpreterOf(const Check& check, const std::string& file, const std::string& interpreter);

/// Reads the manifest with the server's own code. If the server would refuse it, adds the reason to the report and
/// leaves isRead false.
Subject ReadSubject(const std::string& path, Report& report);

using Rules = std::vector<const Rule*>;
Rules ReadingRules();
Rules ManifestRules();
Rules ItemRules();
Rules ElfRules();
Rules ScriptRules();
Rules FileRules();
Rules CollectionRules();

} // namespace Lint

#endif
