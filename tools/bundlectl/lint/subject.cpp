#include "subject.h"

#include "model/manifest_line.h"
#include "model/quiet_log.h"
#include "printable.h"

#include <bundle.h>
#include <bundle_manifest.h>
#include <bundle_storage_dir.h>

#include <Poco/Exception.h>

#include <map>
#include <sstream>
#include <stdexcept>

namespace Lint {

namespace {

using SystemServer::BundleManifest;

constexpr Rule MANIFEST_MISSING{"manifest-missing", Severity::ERROR, "there is no manifest",
                                "A directory without a BundleManifest.ini is no bundle: the server refuses it.",
                                "Put a BundleManifest.ini into the bundle's root."};
constexpr Rule MANIFEST_TOO_LONG{"manifest-too-long", Severity::ERROR, "the manifest is too long",
                                 "The server reads at most 1 MiB of a manifest, and refuses a longer one.",
                                 "Move what is no setting of the bundle into a file of its own."};
constexpr Rule REFERENCE_CIRCLE{"reference-circle", Severity::ERROR, "a reference leads back to itself",
                                "The server cannot expand a value that contains itself, and refuses the manifest.",
                                "Write the value out in one of the places."};
constexpr Rule REFERENCE_TOO_MUCH{"reference-too-much", Severity::ERROR, "references expand to too much",
                                  "The server expands at most 4 MiB in all, and refuses a manifest that has more.",
                                  "Write shorter section names and values, with fewer references."};
constexpr Rule ITEM_NAME_SHORT{
    "item-name-short", Severity::ERROR, "an item's name is under three characters",
    "Its last three characters say what an item is. A bundle with a shorter name that is there "
    "when the server starts ends the start of the whole server, with status 70.",
    "Give the item's file a longer name."};
constexpr Rule MANIFEST_BROKEN{"manifest-broken", Severity::ERROR, "the server does not take the manifest",
                               "Nothing of the bundle is loaded until its manifest can be read.",
                               "Mend the line; the manual page BundleManifest.ini(5) has the format."};

const Rule& RuleFor(const std::string& reason)
{
    const auto has = [&reason](const char* part) { return reason.find(part) != std::string::npos; };
    if (has("longer than")) {
        return MANIFEST_TOO_LONG;
    }
    if (has("expands to more")) {
        return REFERENCE_TOO_MUCH;
    }
    if (has("Circular") || has("circular")) {
        return REFERENCE_CIRCLE;
    }
    return MANIFEST_BROKEN;
}

/// The line with a reference that leads to itself, directly or indirectly: the reference that the fault names, or the
/// first.
int LineOf(const Subject& bundle, const Rule& rule, const std::string& reason)
{
    if (const auto line = Model::LineOfFault(bundle.manifestFile, reason)) {
        return *line;
    }
    for (const ManifestEntry& entry : bundle.text.entries) {
        if ((&rule == &REFERENCE_CIRCLE || &rule == &REFERENCE_TOO_MUCH) &&
            entry.value.find("${") != std::string::npos) {
            return entry.line;
        }
    }
    return 0;
}

void TakeManifest(const BundleManifest& manifest, Subject& bundle)
{
    bundle.isRead = true;
    bundle.name = manifest.GetBundleName();
    bundle.mode = static_cast<int>(manifest.GetLoadMode());
    bundle.required = manifest.GetDependencies();
    std::multimap<std::string, int> lines; // by the name as written, which may contain references
    for (const ManifestEntry& entry : bundle.text.entries) {
        if (SameName(entry.key, "item_name")) {
            lines.emplace(entry.value, entry.line);
        }
    }
    for (const BundleManifest::LoadItem& item : manifest.GetLoadItems()) {
        const auto line = lines.find(item.itemName);
        bundle.items.push_back({item.itemName, item.entryFunc, bundle.path + "/bin/" + item.itemName,
                                line == lines.end() ? 0 : line->second});
        if (line != lines.end()) {
            lines.erase(line);
        }
    }
}

} // namespace

Subject ReadSubject(const std::string& path, Report& report)
{
    Subject bundle;
    bundle.path = path;
    while (bundle.path.size() > 1 && bundle.path.back() == '/') {
        bundle.path.pop_back();
    }
    bundle.manifestFile = bundle.path + "/" + SystemServer::Bundle::BUNDLE_MANIFEST_FILE;
    const auto refuse = [&bundle, &report](const Rule& rule, const std::string& reason) {
        report.Add(rule, bundle.manifestFile, LineOf(bundle, rule, reason), Printable(reason));
    };
    try {
        Model::TakeServerError();
        const SystemServer::BundleStorageDir storage(bundle.path);
        const std::unique_ptr<std::istream> file(
            storage.GetResourceFile(SystemServer::Bundle::BUNDLE_MANIFEST_FILE_LOCATION));
        if (!file) {
            report.Add(MANIFEST_MISSING, bundle.manifestFile, 0, Printable(Model::TakeServerError()));
            return bundle;
        }
        std::string content(BundleManifest::MAX_SIZE + 1, '\0');
        file->read(content.data(), static_cast<std::streamsize>(content.size()));
        content.resize(static_cast<std::size_t>(file->gcount()));
        bundle.text = SplitManifest(content);
        std::istringstream stream(content);
        TakeManifest(BundleManifest(stream), bundle);
    } catch (const Poco::Exception& e) {
        refuse(RuleFor(e.displayText()), e.displayText());
    } catch (const std::out_of_range& e) {
        refuse(ITEM_NAME_SHORT, e.what());
    }
    return bundle;
}

// The rules of ReadSubject, and the rules of the text.
Rules ReadingRules()
{
    return {&MANIFEST_MISSING,   &MANIFEST_TOO_LONG, &REFERENCE_CIRCLE,
            &REFERENCE_TOO_MUCH, &ITEM_NAME_SHORT,   &MANIFEST_BROKEN};
}

} // namespace Lint
