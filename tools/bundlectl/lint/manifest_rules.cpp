// Checks a manifest's text, whether the server accepts it or not.
#include "printable.h"
#include "subject.h"
#include "suggestion.h"

#include <bundle_service.h>
#include <item_kind.h>

#include <algorithm>
#include <array>
#include <map>
#include <string_view>

namespace Lint {

namespace {

constexpr Rule BYTE_ORDER_MARK{"manifest-byte-order-mark", Severity::ERROR,
                               "the manifest begins with a byte order mark",
                               "The three bytes make the first line unreadable to the server.",
                               "Save the file without a byte order mark: sed -i '1s/^\\xef\\xbb\\xbf//' FILE."};
constexpr Rule CARRIAGE_RETURN{"manifest-crlf", Severity::WARNING, "lines end like those of DOS",
                               "The server takes them, but tools on the device that read the manifest may not.",
                               "Convert the file: sed -i 's/\\r$//' FILE."};
constexpr Rule KEY_BEFORE_SECTION{
    "key-before-section", Severity::ERROR, "a key stands before the first section",
    "The server takes it for an item without a name, and refuses the manifest. A line that "
    "begins with \"#\" is no comment.",
    "Move the line below [global], or begin a comment with \";\"."};
constexpr Rule SECTION_GLOBAL_CASE{
    "section-global-case", Severity::ERROR, "\"global\" is not in lower case",
    "The section gives the bundle's keys and is taken for an item as well, which has no name.", "Write [global]."};
constexpr Rule SECTION_POINT{"section-point", Severity::ERROR, "a section's name has a point",
                             "The server looks for the item's name in the section before the point.",
                             "Give the section a name without a point."};
constexpr Rule SECTION_MISSPELT{"section-misspelt", Severity::WARNING, "a section's name looks like \"global\"",
                                "Every section but \"global\" is an item.",
                                "Write [global], if that is what is meant."};
constexpr Rule KEY_UNKNOWN{"key-unknown", Severity::WARNING, "the key is unknown",
                           "The server ignores keys that it does not know, in any section.",
                           "Correct the spelling, or remove the line."};
constexpr Rule KEY_TWICE{"key-twice", Severity::WARNING, "the key is written twice in the section",
                         "The later line counts. A section that is written twice is one section.",
                         "Remove one of the two, or give the second section a name of its own."};
constexpr Rule REFERENCE_UNKNOWN{"reference-unknown", Severity::WARNING, "a reference leads to no key",
                                 "It stays in the value as it is written. The environment cannot be referred to.",
                                 "Name a key of this file: ${section.key}."};
constexpr Rule MODE_REFUSED{"mode-refused", Severity::ERROR, "no activator serves the load mode",
                            "The server refuses a bundle with a load mode other than 0 (processes) and 1 (threads).",
                            "Write bundle_load_mode = 0 or 1."};
constexpr Rule NAME_NOT_DELETABLE{
    "name-not-deletable", Severity::WARNING, "no request can delete a bundle of this name",
    "A request carries a name of 1 to 127 bytes. The bundle loads, but only the removal of its "
    "directory ends it.",
    "Give the bundle a shorter name, without control characters."};
constexpr Rule ITEM_ORDER{"item-order", Severity::WARNING, "items start in another order than they are written in",
                          "Items start in the order of their sections' names, sorted as text without regard to case: "
                          "[item10] comes before [item2].",
                          "Name the sections such that they sort: [10-base], [20-app]."};
constexpr Rule THREAD_NO_LIBRARY{
    "thread-no-library", Severity::ERROR, "an item of thread mode is no library",
    "In load mode 1 each item's name ends in \".so\"; with another one the bundle does not start.",
    "Build the item as a library, or write bundle_load_mode = 0."};
constexpr Rule SUFFIX_CASE{
    "suffix-case", Severity::WARNING, "the ending is not in lower case",
    "Only \".so\" makes a library and only \".sh\" a shell script. Any other item is executed itself.",
    "Write the ending in lower case, in the manifest and in the file's name."};

constexpr std::array<std::string_view, 3> GLOBAL_KEYS{"bundle_name", "bundle_load_mode", "bundle_dependencies"};
constexpr std::array<std::string_view, 2> ITEM_KEYS{"item_name", "entry_func"};

std::string Quoted(std::string_view text)
{
    return "\"" + Printable(text) + "\"";
}

class ManifestCheck {
public:
    explicit ManifestCheck(const Check& check) : m_check(check) {}

    void Run()
    {
        CheckBytes();
        for (const ManifestEntry& entry : m_check.bundle.text.entries) {
            CheckEntry(entry);
        }
        CheckSections();
        if (m_check.bundle.isRead) {
            CheckMeaning();
        }
    }

private:
    void Add(const Rule& rule, int line, const std::string& text)
    {
        m_check.Add(rule, m_check.bundle.manifestFile, line, text);
    }

    void CheckBytes();
    void CheckEntry(const ManifestEntry& entry);
    void CheckKey(const ManifestEntry& entry);
    void CheckReferences(const ManifestEntry& entry);
    void CheckSections();
    void CheckMeaning();
    void CheckItemNames();

    const Check& m_check;
    std::map<std::string, int> m_keys; // lines, by section and key
};

void ManifestCheck::CheckBytes()
{
    const ManifestText& text = m_check.bundle.text;
    if (text.hasByteOrderMark) {
        Add(BYTE_ORDER_MARK, 1, "The file begins with the bytes EF BB BF.");
    }
    if (text.firstCarriageReturn != 0) {
        Add(CARRIAGE_RETURN, text.firstCarriageReturn, "The line ends with a carriage return.");
    }
}

void ManifestCheck::CheckEntry(const ManifestEntry& entry)
{
    if (entry.key.empty()) {
        return;
    }
    if (entry.section.empty()) {
        Add(KEY_BEFORE_SECTION, entry.line, Quoted(entry.key) + " belongs to no section.");
        return;
    }
    CheckKey(entry);
    CheckReferences(entry);
}

void ManifestCheck::CheckKey(const ManifestEntry& entry)
{
    const bool isGlobal = SameName(entry.section, "global");
    const std::vector<std::string_view> known =
        isGlobal ? std::vector<std::string_view>(GLOBAL_KEYS.begin(), GLOBAL_KEYS.end())
                 : std::vector<std::string_view>(ITEM_KEYS.begin(), ITEM_KEYS.end());
    if (std::none_of(known.begin(), known.end(), [&entry](std::string_view key) { return SameName(key, entry.key); })) {
        const std::string_view nearest = Nearest(entry.key, known);
        Add(KEY_UNKNOWN, entry.line,
            Quoted(entry.key) + " is no key of this section." +
                (nearest.empty() ? "" : " Did you mean \"" + std::string(nearest) + "\"?"));
    }
    std::string both = entry.section + "." + entry.key;
    std::transform(both.begin(), both.end(), both.begin(), [](unsigned char c) { return std::tolower(c); });
    const auto [first, isNew] = m_keys.emplace(both, entry.line);
    if (!isNew) {
        Add(KEY_TWICE, entry.line,
            Quoted(entry.key) + " stands in line " + std::to_string(first->second) + " as well.");
    }
}

void ManifestCheck::CheckReferences(const ManifestEntry& entry)
{
    for (std::size_t begin = entry.value.find("${"); begin != std::string::npos;
         begin = entry.value.find("${", begin + 2)) {
        const std::size_t end = entry.value.find('}', begin);
        const std::string name = entry.value.substr(begin + 2, end == std::string::npos ? end : end - begin - 2);
        const std::size_t point = std::min(name.find('.'), name.size());
        const std::string key = name.substr(std::min(point + 1, name.size()));
        if (end == std::string::npos || m_check.bundle.text.Find(name.substr(0, point), key) == nullptr ||
            key.empty()) {
            Add(REFERENCE_UNKNOWN, entry.line, Quoted("${" + name + "}") + " names no key of this file.");
        }
    }
}

void ManifestCheck::CheckSections()
{
    const auto sections = m_check.bundle.text.Sections();
    const bool hasGlobal = m_check.bundle.text.Find("global", "") != nullptr;
    for (const ManifestEntry* const section : sections) {
        if (SameName(section->section, "global")) {
            if (section->section != "global") {
                Add(SECTION_GLOBAL_CASE, section->line,
                    "The section is written [" + Printable(section->section) + "].");
            }
            continue;
        }
        if (section->section.find('.') != std::string::npos) {
            Add(SECTION_POINT, section->line, "The section is called " + Quoted(section->section) + ".");
        } else if (!hasGlobal && !Nearest(section->section, {"global"}).empty()) {
            Add(SECTION_MISSPELT, section->line, Quoted(section->section) + " is an item. Did you mean \"global\"?");
        }
    }
}

void ManifestCheck::CheckMeaning()
{
    const Subject& bundle = m_check.bundle;
    if (bundle.mode != 0 && bundle.mode != 1) {
        Add(MODE_REFUSED, bundle.text.LineOf("global", "bundle_load_mode"),
            "The load mode is " + std::to_string(bundle.mode) + ".");
    }
    constexpr std::size_t longest = SystemServer::BundleService::NAME_FIELD_SIZE - 1;
    if (bundle.name.empty() || bundle.name.size() > longest || Printable(bundle.name) != bundle.name) {
        Add(NAME_NOT_DELETABLE, bundle.text.LineOf("global", "bundle_name"),
            "The name " + Quoted(bundle.name) + " has " + std::to_string(bundle.name.size()) + " bytes.");
    }
    CheckItemNames();
}

void ManifestCheck::CheckItemNames()
{
    const Subject& bundle = m_check.bundle;
    int last = 0;
    bool isToldOfOrder = false;
    for (const SubjectItem& item : bundle.items) {
        if (item.line != 0 && item.line < last && !isToldOfOrder) {
            isToldOfOrder = true;
            std::string order;
            for (const SubjectItem& other : bundle.items) {
                order += (order.empty() ? "" : ", ") + Printable(other.name);
            }
            Add(ITEM_ORDER, item.line, "The order is: " + order + ".");
        }
        last = std::max(last, item.line);
        const std::string end = item.name.substr(item.name.size() - 3);
        if ((SameName(end, ".so") || SameName(end, ".sh")) && end != ".so" && end != ".sh") {
            Add(SUFFIX_CASE, item.line, Quoted(item.name) + " is executed as a program.");
        }
        if (bundle.mode == 1 && SystemServer::KindOf(item.name) != SystemServer::ItemKind::LIBRARY) {
            Add(THREAD_NO_LIBRARY, item.line, Quoted(item.name) + " does not end in \".so\".");
        }
    }
}

} // namespace

void CheckManifest(const Check& check)
{
    ManifestCheck(check).Run();
}

Rules ManifestRules()
{
    return {&BYTE_ORDER_MARK,    &CARRIAGE_RETURN, &KEY_BEFORE_SECTION, &SECTION_GLOBAL_CASE, &SECTION_POINT,
            &SECTION_MISSPELT,   &KEY_UNKNOWN,     &KEY_TWICE,          &REFERENCE_UNKNOWN,   &MODE_REFUSED,
            &NAME_NOT_DELETABLE, &ITEM_ORDER,      &THREAD_NO_LIBRARY,  &SUFFIX_CASE};
}

} // namespace Lint
