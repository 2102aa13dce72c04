#include "refusal_words.h"

#include <utility>

namespace Model {

namespace {

std::string ManifestOf(const DeclaredBundle& bundle)
{
    return bundle.path + "/BundleManifest.ini" +
           (bundle.manifestLine ? ":" + std::to_string(*bundle.manifestLine) : std::string());
}

/// "requires b, which requires c"; the first is the bundle itself.
std::string RequirementsIn(const std::vector<std::string>& chain)
{
    std::string text;
    for (std::size_t i = 1; i < chain.size(); ++i) {
        text += (i == 1 ? "requires \"" : ", which requires \"") + chain[i] + "\"";
    }
    return text;
}

std::string CircleIn(const std::vector<std::string>& chain)
{
    std::string text;
    for (const std::string& name : chain) {
        text += (text.empty() ? "" : " \u2192 ") + name;
    }
    return text;
}

Reason Make(const char* kind, std::string text, std::string brief, std::string remedy)
{
    Reason reason;
    reason.kind = kind;
    reason.text = std::move(text);
    reason.brief = std::move(brief);
    reason.remedy = std::move(remedy);
    return reason;
}

Reason OfMissing(const DeclaredBundle& bundle)
{
    const std::string& missing = bundle.chain.back();
    return Make("required-missing", "It " + RequirementsIn(bundle.chain) + ", which is not there.",
                "\"" + missing + "\" is missing",
                "Install \"" + missing + "\", or take it off bundle_dependencies in " + ManifestOf(bundle) + ".");
}

Reason OfCircle(const DeclaredBundle& bundle)
{
    const std::string circle = CircleIn(bundle.chain);
    return Make("circle", "Its requirements form a circle: " + circle + ".", "circle " + circle,
                "Take one of them off bundle_dependencies.");
}

Reason OfDuplicate(const DeclaredBundle& bundle)
{
    return Make("duplicate",
                bundle.path + " has the same bundle_name \"" + bundle.name + "\" as " + bundle.otherPath +
                    ", which the server finds first.",
                "duplicate of " + bundle.otherPath,
                "Give one of them another bundle_name, or take its directory away.");
}

} // namespace

Reason ReasonOfVerdict(const DeclaredBundle& bundle)
{
    switch (bundle.verdict) {
    case Verdict::NO_MANIFEST:
        return Make("no-manifest", bundle.path + " has no BundleManifest.ini.", "no manifest",
                    "Put one there: man BundleManifest.ini");
    case Verdict::MANIFEST_BROKEN:
        return Make("manifest", ManifestOf(bundle) + ": " + bundle.reason + ".",
                    "manifest" +
                        (bundle.manifestLine ? " line " + std::to_string(*bundle.manifestLine) : std::string()) + ": " +
                        bundle.reason,
                    "Correct it; man BundleManifest.ini tells what must stand there.");
    case Verdict::ENDS_START_UP:
        return Make("short-item-name",
                    ManifestOf(bundle) + ": " + bundle.reason + ". The server does not start with it, with no bundle.",
                    "manifest: " + bundle.reason, "Give the item a name of three characters or more.");
    case Verdict::DUPLICATE:
        return OfDuplicate(bundle);
    case Verdict::MODE_REFUSED:
        return Make("mode-refused",
                    ManifestOf(bundle) + ": bundle_load_mode = " + std::to_string(bundle.mode) +
                        " is refused. 0 runs the items as processes, 1 as threads.",
                    "mode " + std::to_string(bundle.mode) + " refused", "Set it to 0 or 1.");
    case Verdict::REQUIRED_MISSING:
        return OfMissing(bundle);
    case Verdict::CIRCLE:
        return OfCircle(bundle);
    case Verdict::NO_LIBRARY:
        return Make("no-library", "Its mode is that of threads, and not all of its items are libraries (\".so\").",
                    "thread mode needs libraries", "Set bundle_load_mode = 0 in " + ManifestOf(bundle) + ".");
    case Verdict::REQUIRED_FAILS:
        return Make("required-fails", "It " + RequirementsIn(bundle.chain) + ", which does not start.",
                    "\"" + bundle.chain.back() + "\" does not start", "bundlectl why " + bundle.chain.back());
    case Verdict::STARTS:
        break;
    }
    return Make("starts", "Its files are in order.", "", "");
}

Reason ReasonOfProblem(const Problem& problem, const BundleStatus& bundle)
{
    const std::string because = problem.reason.empty() ? "." : ": " + problem.reason;
    const std::string brief = problem.reason.empty() ? "no reason logged" : problem.reason;
    switch (problem.kind) {
    case Fact::RESOLVE_FAILED:
        return Make("resolve-failed", "What it requires was not complete" + because, brief, "touch " + bundle.path);
    case Fact::STOP_FAILED:
        return Make("stop-failed", "It could not be stopped" + because, "stop failed: " + brief,
                    "bundlectl delete " + bundle.name);
    case Fact::UPDATE_FAILED:
        return Make("update-failed", "A change of its directory could not be taken in" + because,
                    "update failed: " + brief, "Correct it, then: touch " + bundle.path);
    default: // Fact::START_FAILED
        return Make("start-failed", "Its start failed" + because, "start failed: " + brief, "touch " + bundle.path);
    }
}

} // namespace Model
