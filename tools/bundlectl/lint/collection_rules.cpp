#include "collection_rules.h"

#include "printable.h"
#include "suggestion.h"

#include <algorithm>
#include <map>
#include <set>
#include <string_view>

namespace Lint {

namespace {

constexpr Rule NAME_TWICE{
    "name-twice", Severity::ERROR, "two bundles have the same name",
    "The server takes the one that it meets first, which the file system decides, and refuses the "
    "other.",
    "Give one of them another bundle_name."};
constexpr Rule REQUIREMENT_MISSING{"requirement-missing", Severity::ERROR, "a required bundle is missing",
                                   "A bundle whose requirement is missing is unloaded, and so is what requires it.",
                                   "Put the required bundle into the collection, or correct bundle_dependencies."};
constexpr Rule REQUIREMENT_CIRCLE{"requirement-circle", Severity::ERROR, "bundles require each other in a circle",
                                  "None of the circle is started.", "Remove one of the requirements."};
constexpr Rule CHAIN_TOO_LONG{"requirement-chain", Severity::ERROR, "a chain of requirements is too long",
                              "The server refuses a bundle that begins a chain of more than 10,000 bundles.",
                              "Let bundles require only what they need themselves."};
constexpr Rule THREAD_NAMES_SAME{
    "thread-names-same", Severity::WARNING, "threads get the same name",
    "The kernel keeps 15 bytes of \"bundle.item\", so the threads look the same in ps and top.",
    "Choose names that differ in their first bytes."};

class Together {
public:
    Together(const std::vector<Subject>& bundles, const std::vector<Subject>& others, Report& report)
        : m_bundles(bundles), m_report(report)
    {
        for (const std::vector<Subject>* const list : {&bundles, &others}) {
            for (const Subject& bundle : *list) {
                if (bundle.isRead) {
                    m_byName.emplace(bundle.name, &bundle);
                }
            }
        }
    }

    void CheckNames();
    void CheckThreads();
    void CheckMissing();
    void CheckCircles();

private:
    void Follow(const Subject& first);
    void FinishChain(const Subject& bundle);
    void TellCircle(const std::vector<const Subject*>& way, const Subject& repeated);
    void Add(const Rule& rule, const Subject& bundle, const char* key, const std::string& text)
    {
        m_report.Add(rule, bundle.manifestFile, bundle.text.LineOf("global", key), text);
    }

    const std::vector<Subject>& m_bundles;
    Report& m_report;
    std::map<std::string, const Subject*> m_byName;
    std::map<const Subject*, std::size_t> m_chains; // lengths of the chains that have been followed
};

void Together::CheckNames()
{
    for (const Subject& bundle : m_bundles) {
        const auto first = m_byName.find(bundle.name);
        if (bundle.isRead && first != m_byName.end() && first->second != &bundle) {
            Add(NAME_TWICE, bundle, "bundle_name",
                "\"" + Printable(bundle.name) + "\" is the name of " + Printable(first->second->path) + " as well.");
        }
    }
}

void Together::CheckThreads()
{
    constexpr std::size_t kept = 15;
    std::map<std::string, std::string> names;
    for (const Subject& bundle : m_bundles) {
        for (const SubjectItem& item : bundle.items) {
            const std::string whole = bundle.name + "." + item.name;
            if (bundle.mode != 1) {
                continue;
            }
            const auto [first, isNew] = names.emplace(whole.substr(0, kept), whole);
            if (!isNew && first->second != whole) {
                m_report.Add(THREAD_NAMES_SAME, bundle.manifestFile, item.line,
                             "\"" + Printable(whole) + "\" and \"" + Printable(first->second) +
                                 "\" are both called \"" + Printable(first->first) + "\".");
            }
        }
    }
}

void Together::CheckMissing()
{
    std::vector<std::string_view> names;
    for (const auto& known : m_byName) {
        names.emplace_back(known.first);
    }
    for (const Subject& bundle : m_bundles) {
        for (const std::string& required : bundle.required) {
            if (m_byName.count(required) == 0) {
                const std::string_view nearest = Nearest(required, names);
                Add(REQUIREMENT_MISSING, bundle, "bundle_dependencies",
                    "There is no bundle \"" + Printable(required) + "\"." +
                        (nearest.empty() ? "" : " Did you mean \"" + Printable(nearest) + "\"?"));
            }
        }
    }
}

void Together::CheckCircles()
{
    for (const Subject& bundle : m_bundles) {
        if (bundle.isRead) {
            Follow(bundle);
        }
    }
}

void Together::FinishChain(const Subject& bundle)
{
    constexpr std::size_t longest = 10'000;
    std::size_t length = 1;
    for (const std::string& required : bundle.required) {
        const auto known = m_byName.find(required);
        length = std::max(length, known == m_byName.end() ? 1 : m_chains[known->second] + 1);
    }
    m_chains[&bundle] = length;
    if (length == longest + 1) {
        Add(CHAIN_TOO_LONG, bundle, "bundle_dependencies", "It begins a chain of " + std::to_string(length) + ".");
    }
}

// Depth first, without recursion: a chain may be as long as the collection.
void Together::Follow(const Subject& first)
{
    std::vector<const Subject*> way;
    std::vector<std::size_t> next;
    std::set<const Subject*> open;
    const auto enter = [&](const Subject& bundle) {
        way.push_back(&bundle);
        next.push_back(0);
        open.insert(&bundle);
    };
    if (m_chains.count(&first) == 0) {
        enter(first);
    }
    while (!way.empty()) {
        const Subject& last = *way.back();
        if (next.back() == last.required.size()) {
            FinishChain(last);
            open.erase(&last);
            way.pop_back();
            next.pop_back();
            continue;
        }
        const auto required = m_byName.find(last.required[next.back()++]);
        if (required == m_byName.end() || m_chains.count(required->second) != 0) {
            continue;
        }
        if (open.count(required->second) != 0) {
            TellCircle(way, *required->second);
        } else {
            enter(*required->second);
        }
    }
}

void Together::TellCircle(const std::vector<const Subject*>& way, const Subject& repeated)
{
    std::string text;
    const auto begin = std::find(way.begin(), way.end(), &repeated);
    for (auto bundle = begin; bundle != way.end(); ++bundle) {
        text += Printable((*bundle)->name) + " \u2192 ";
    }
    Add(REQUIREMENT_CIRCLE, **begin, "bundle_dependencies", "The circle is " + text + Printable(repeated.name) + ".");
}

} // namespace

void CheckTogether(const std::vector<Subject>& bundles, const std::vector<Subject>& others, bool isWhole,
                   Report& report)
{
    Together together(bundles, others, report);
    together.CheckNames();
    together.CheckThreads();
    if (isWhole) {
        together.CheckMissing();
    }
    together.CheckCircles();
}

Rules CollectionRules()
{
    return {&NAME_TWICE, &REQUIREMENT_MISSING, &REQUIREMENT_CIRCLE, &CHAIN_TOO_LONG, &THREAD_NAMES_SAME};
}

} // namespace Lint
