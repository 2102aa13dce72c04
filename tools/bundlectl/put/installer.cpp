#include "installer.h"

#include "exit_status.h"
#include "key.h"
#include "lint/lint.h"
#include "lint/subject.h"
#include "model/files.h"
#include "printable.h"
#include "tree.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Put {

namespace {

/// The list and the signature of a directory that was packed before; both empty otherwise.
Shipped ShippedOf(const std::string& directory)
{
    Shipped shipped;
    shipped.text = Model::ReadFileAtMost(directory + "/" + CONTENTS_FILE, Contents::LONGEST_TEXT).value_or("");
    shipped.signature = Model::ReadFileAtMost(directory + "/" + SIGNATURE_FILE).value_or("");
    if (!shipped.text.empty()) {
        shipped.contents = ParseContents(shipped.text);
    }
    return shipped;
}

/// A temporary directory to unpack an archive of which only the manifest is needed.
class Scratch {
public:
    explicit Scratch(std::string path) : m_path(std::move(path)) { RemoveTree(m_path); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    ~Scratch()
    {
        try {
            RemoveTree(m_path);
        } catch (const Refusal&) { // the next installation removes it
        }
    }

private:
    const std::string m_path;
};

} // namespace

int Installer::Put()
{
    m_report.verb = "put";
    ReadSource();
    // Uses a name that no bundle's directory has: the bundle's own name is known only after its manifest is unpacked.
    const std::string staged = m_store.Path() + "/unpacked";
    const Scratch scratch(staged);
    if (::mkdir(staged.c_str(), 0755) != 0 || ::chmod(staged.c_str(), 0755) != 0) {
        throw Refusal(Printable(staged) + " cannot be made: " + std::strerror(errno) + ".");
    }
    if (m_isArchive) {
        Unpack(m_options.source, staged, {});
    } else {
        CopyTree(m_options.source, staged, m_contents);
        for (const char* const file : {CONTENTS_FILE, SIGNATURE_FILE}) {
            if (const auto text = Model::ReadFileAtMost(m_options.source + "/" + file, Contents::LONGEST_TEXT)) {
                WriteNewFile(staged + "/" + file, *text, 0644);
            }
        }
    }
    RequireGood(staged);
    Shelf shelf(m_store, m_directory);
    shelf.Tidy();
    Stage(shelf);
    const Model::Installation installation = FindServerOf(m_store.Collection(), m_options.common.choice);
    const Verdict verdict(installation);
    m_formerNumber = shelf.Install();
    return Await(shelf, installation, verdict);
}

// Refuses everything that can be refused without writing.
void Installer::ReadSource()
{
    struct stat status {};
    if (::stat(m_options.source.c_str(), &status) != 0) {
        throw Refusal(Printable(m_options.source) + ": " + std::strerror(errno) + ".");
    }
    m_isArchive = !S_ISDIR(status.st_mode);
    Shipped shipped;
    if (m_isArchive) {
        shipped = CheckArchive(m_options.source, {});
    } else {
        m_contents = ReadContents(m_options.source);
        shipped = ShippedOf(m_options.source);
        for (const std::string& difference :
             shipped.text.empty() ? std::vector<std::string>() : Differences(m_options.source, shipped.contents)) {
            throw Refusal("it is not what was shipped: " + difference +
                          " Pack it again, or remove its BundleContents.");
        }
    }
    if (!m_options.key.empty()) {
        RequireSignature(shipped.text, shipped.signature, m_options.key);
    }
}

void Installer::RequireGood(const std::string& staged)
{
    Lint::Report ignored;
    const Lint::Subject bundle = Lint::ReadSubject(staged, ignored);
    m_name = bundle.name;
    m_report.bundle = m_name;
    Lint::Options options;
    options.collection = m_store.Collection();
    const Lint::Result result = Lint::LintPaths({staged}, options);
    for (const Lint::Finding& finding : result.findings) {
        if (finding.rule->severity == Lint::Severity::ERROR) {
            const std::string file = finding.file.substr(std::min(staged.size() + 1, finding.file.size()));
            m_report.details.push_back(Printable(file) + (finding.line == 0 ? "" : ":" + std::to_string(finding.line)) +
                                       ": " + finding.rule->summary + ". " + finding.text + " " + finding.rule->remedy);
        }
    }
    if (!bundle.isRead || (result.HasErrors() && !m_options.force)) {
        throw Refusal(std::string("the bundle would not run here.") +
                          (bundle.isRead ? " --force puts it all the same." : ""),
                      m_report.details);
    }
    m_former = FindPlaced(m_store.Collection(), m_name);
    m_directory = m_former ? m_former->directory : m_options.directory.empty() ? m_name : m_options.directory;
    RequireSameKind();
    const bool isChangedMode = m_former && m_former->mode != bundle.mode;
    if (isChangedMode && !m_options.force) {
        throw Refusal("the new version has another bundle_load_mode, which an update cannot change. Remove the bundle "
                      "first: bundlectl remove " +
                      Printable(m_name) + ".");
    }
}

void Installer::RequireSameKind() const
{
    if (m_directory.empty() || m_directory.front() == '.' || m_directory.find('/') != std::string::npos) {
        throw Refusal("the name \"" + Printable(m_directory) +
                      "\" is no name for a directory: give one with --directory.");
    }
    const std::string target = m_store.Collection() + "/" + m_directory;
    if (m_former && !m_options.directory.empty() && m_options.directory != m_former->directory) {
        throw Refusal("the bundle \"" + Printable(m_name) + "\" lies in " + Printable(m_former->directory) +
                      " already. Leave out --directory, or remove it first.");
    }
    if (!m_former && ExistsAt(target)) {
        throw Refusal(Printable(target) + " is there, and is no bundle \"" + Printable(m_name) +
                      "\". An update cannot change a bundle's name: remove the other one first, or give another "
                      "--directory.");
    }
}

void Installer::Stage(Shelf& shelf)
{
    const std::string part = shelf.Begin();
    const std::string staged = m_store.Path() + "/unpacked";
    // Replaces the empty directory.
    if (std::rename(staged.c_str(), part.c_str()) != 0) {
        throw Refusal(Printable(part) + " cannot be made: " + std::strerror(errno) + ".");
    }
    if (shelf.HasTarget()) {
        const Shipped former = ShippedOf(shelf.Target());
        CarryData(shelf.Target(), part, former.text.empty() ? nullptr : &former.contents);
    }
    m_report.version = shelf.Finish(Model::BaseName(m_options.source));
}

int Installer::Await(Shelf& shelf, const Model::Installation& installation, const Verdict& verdict)
{
    const auto patience = SpanOf(m_options.common.patience);
    const std::string what = "version " + std::to_string(*m_report.version) + " of \"" + Printable(m_name) + "\" ";
    Outcome outcome{Outcome::ACTIVE, ""};
    if (installation.server && patience.count() > 0) {
        outcome = verdict.Wait(TheBundle(), patience, SpanOf(m_options.soak));
    }
    if (outcome.kind == Outcome::FAILED || outcome.kind == Outcome::NO_VERDICT) {
        return GoBack(shelf, installation, outcome);
    }
    shelf.Prune(static_cast<std::size_t>(m_options.keep));
    if (outcome.kind == Outcome::UNKNOWN) {
        m_report.outcome = "unknown";
        m_report.text = what + "is in place. Whether it runs is not known. " + outcome.reason;
        return Tell(m_report, EXIT_UNREACHABLE, m_options.common.json);
    }
    const bool isAwaited = installation.server && patience.count() > 0;
    m_report.outcome = isAwaited ? "active" : "installed";
    m_report.text = what + (isAwaited             ? "is Active."
                            : installation.server ? "is in place."
                                                  : "is in place. No server runs; its next start starts it.");
    return Tell(m_report, EXIT_DONE, m_options.common.json);
}

int Installer::GoBack(Shelf& shelf, const Model::Installation& installation, const Outcome& outcome)
{
    const int status = outcome.kind == Outcome::NO_VERDICT ? EXIT_TIMED_OUT : EXIT_FAILED;
    const int failed = *m_report.version;
    m_report.outcome = "went-back";
    m_report.version = m_formerNumber;
    const Verdict verdict(installation);
    if (!m_formerNumber) {
        shelf.Withdraw();
        shelf.Drop(failed);
        m_report.text = "\"" + Printable(m_name) + "\" does not run here and is taken out again. " + outcome.reason;
        return Tell(m_report, status, m_options.common.json);
    }
    shelf.Restore(*m_formerNumber);
    shelf.Drop(failed);
    const Outcome back = verdict.Wait(TheBundle(), SpanOf(m_options.common.patience), std::chrono::milliseconds(0));
    m_report.text = "the new version of \"" + Printable(m_name) + "\" does not run: version " +
                    std::to_string(*m_formerNumber) + " is in force again" +
                    (back.kind == Outcome::ACTIVE
                         ? " and Active. "
                         : ", and is not Active: " + back.reason + " A restart of the server starts it. ") +
                    outcome.reason;
    return Tell(m_report, status, m_options.common.json);
}

} // namespace Put
