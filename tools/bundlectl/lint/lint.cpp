#include "lint.h"

#include "collection_rules.h"
#include "model/files.h"
#include "printable.h"
#include "subject.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <tuple>

namespace Lint {

namespace {

bool IsDirectory(const std::string& path)
{
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool HasManifest(const std::string& path)
{
    struct stat status {};
    return ::lstat((path + "/BundleManifest.ini").c_str(), &status) == 0;
}

std::vector<std::string> DirectoriesIn(const std::string& path)
{
    std::vector<std::string> directories;
    for (const std::string& name : Model::ListDirectory(path).value_or(std::vector<std::string>())) {
        const std::string entry = path + (path.back() == '/' ? "" : "/") + name;
        if (IsDirectory(entry)) {
            directories.push_back(entry);
        }
    }
    std::sort(directories.begin(), directories.end());
    return directories;
}

bool IsCollection(const std::string& path)
{
    const std::vector<std::string> directories = DirectoriesIn(path);
    return !HasManifest(path) && std::any_of(directories.begin(), directories.end(), HasManifest);
}

class Linter {
public:
    Linter(const Machine& machine, const Options& options) : m_sysroot(machine, options.sysroot), m_options(options) {}

    void TakeCollection(const std::string& path);
    void TakeBundle(const std::string& path);
    Result Finish();

private:
    Subject Look(const std::string& path);
    std::vector<Subject> OthersOf(const std::string& collection) const;
    void Sort(std::size_t from);

    const Sysroot m_sysroot;
    const Options& m_options;
    Report m_report;
    std::vector<Subject> m_single; // bundles that were given without a collection
    std::size_t m_bundles = 0;
};

Subject Linter::Look(const std::string& path)
{
    ++m_bundles;
    Subject bundle = ReadSubject(path, m_report);
    const Check check{bundle, m_sysroot, m_report};
    CheckManifest(check);
    CheckItems(check);
    CheckScripts(check);
    CheckFiles(check);
    return bundle;
}

void Linter::TakeCollection(const std::string& path)
{
    const std::size_t before = m_report.Findings().size();
    std::vector<Subject> bundles;
    for (const std::string& directory : DirectoriesIn(path)) {
        bundles.push_back(Look(directory));
    }
    CheckTogether(bundles, {}, true, m_report);
    Sort(before);
}

void Linter::TakeBundle(const std::string& path)
{
    const std::size_t before = m_report.Findings().size();
    m_single.push_back(Look(path));
    Sort(before);
}

/// The bundles of the collection, without the directories that the checked bundles replace.
std::vector<Subject> Linter::OthersOf(const std::string& collection) const
{
    std::vector<Subject> others;
    Report ignored;
    for (const std::string& directory : DirectoriesIn(collection)) {
        Subject other = ReadSubject(directory, ignored);
        const auto replaces = [&other](const Subject& bundle) {
            return Model::BaseName(bundle.path) == Model::BaseName(other.path) || bundle.name == other.name;
        };
        if (std::none_of(m_single.begin(), m_single.end(), replaces)) {
            others.push_back(std::move(other));
        }
    }
    return others;
}

Result Linter::Finish()
{
    const std::size_t before = m_report.Findings().size();
    const bool isWhole = !m_options.collection.empty();
    if (!m_single.empty()) {
        CheckTogether(m_single, isWhole ? OthersOf(m_options.collection) : std::vector<Subject>(), isWhole, m_report);
    }
    Sort(before);
    Result result;
    result.findings = std::move(m_report.Findings());
    result.bundles = m_bundles;
    return result;
}

void Linter::Sort(std::size_t from)
{
    std::stable_sort(m_report.Findings().begin() + static_cast<std::ptrdiff_t>(from), m_report.Findings().end(),
                     [](const Finding& left, const Finding& right) {
                         return std::tie(left.file, left.line) < std::tie(right.file, right.line);
                     });
}

Result Refused(const std::string& trouble)
{
    Result result;
    result.trouble = trouble;
    return result;
}

} // namespace

bool Result::HasErrors() const
{
    return std::any_of(findings.begin(), findings.end(),
                       [](const Finding& finding) { return finding.rule->severity == Severity::ERROR; });
}

Result LintPaths(const std::vector<std::string>& paths, const Options& options)
{
    const Machine* const machine = FindMachine(options.machine);
    if (machine == nullptr) {
        return Refused("there is no machine \"" + Printable(options.machine) +
                       "\". The machines are: " + MachineNames() + ".");
    }
    for (const std::string& path : paths) {
        struct stat status {};
        if (path.empty() || ::stat(path.c_str(), &status) != 0) {
            return Refused(Printable(path) + ": " + std::strerror(path.empty() ? ENOENT : errno) + ".");
        }
        if (!S_ISDIR(status.st_mode)) {
            return Refused(Printable(path) + " is no directory. Name a bundle's directory, or a collection.");
        }
    }
    for (const std::string& directory : {options.sysroot, options.collection}) {
        if (!directory.empty() && !IsDirectory(directory)) {
            return Refused(Printable(directory) + " is no directory.");
        }
    }
    Linter linter(*machine, options);
    for (const std::string& path : paths) {
        if (IsCollection(path)) {
            linter.TakeCollection(path);
        } else {
            linter.TakeBundle(path);
        }
    }
    return linter.Finish();
}

std::vector<const Rule*> AllRules()
{
    std::vector<const Rule*> all;
    for (const auto rules :
         {ReadingRules, ManifestRules, ItemRules, ElfRules, ScriptRules, FileRules, CollectionRules}) {
        const Rules some = rules();
        all.insert(all.end(), some.begin(), some.end());
    }
    return all;
}

const Rule* FindRule(const std::string& id)
{
    for (const Rule* const rule : AllRules()) {
        if (id == rule->id) {
            return rule;
        }
    }
    return nullptr;
}

} // namespace Lint
