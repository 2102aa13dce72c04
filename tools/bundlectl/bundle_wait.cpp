#include "bundle_wait.h"

#include "exit_status.h"
#include "model/status.h"
#include "printable.h"
#include "verbs/places.h"

#include <algorithm>
#include <iostream>
#include <thread>

namespace {

using Model::BundleStatus;
using Model::ItemStatus;

bool HasItemUp(const BundleStatus& bundle, const std::string& item)
{
    return std::any_of(bundle.items.begin(), bundle.items.end(), [&item](const ItemStatus& candidate) {
        return candidate.name == item && (candidate.up == ItemStatus::UP || candidate.up == ItemStatus::ACTIVATED);
    });
}

/// A sentence that says what is missing; empty when nothing is missing.
std::string Missing(const BundleCondition& condition, const std::string& name, const std::vector<BundleStatus>& bundles)
{
    const std::string subject = "bundle \"" + Printable(name) + "\" ";
    const std::vector<const BundleStatus*> found = Verbs::FindByName(bundles, name);
    if (condition.kind == BundleCondition::GONE) {
        return found.empty() ? "" : subject + "is still there";
    }
    if (found.empty()) {
        return subject + "is not there";
    }
    for (const BundleStatus* const bundle : found) {
        const bool isMet = condition.kind == BundleCondition::ACTIVE ? bundle->state == Model::BundleState::ACTIVE
                                                                     : HasItemUp(*bundle, Printable(condition.item));
        if (isMet) {
            return "";
        }
    }
    return condition.kind == BundleCondition::ACTIVE
               ? subject + "is not Active: bundlectl why " + Printable(name) + " tells the reason"
               : subject + "has no item \"" + Printable(condition.item) + "\" that is up: bundlectl status " +
                     Printable(name) + " shows its items";
}

} // namespace

bool BundleCondition::WaitsFor(const std::string& text)
{
    constexpr std::string_view prefix = "item:";
    if (text.compare(0, prefix.size(), prefix) == 0 && text.size() > prefix.size()) {
        kind = ITEM;
        item = text.substr(prefix.size());
        return true;
    }
    kind = text == "gone" ? GONE : ACTIVE;
    return text == "gone" || text == "active";
}

int WaitForBundles(const BundleCondition& condition)
{
    constexpr std::chrono::milliseconds interval{200};
    const auto end = std::chrono::steady_clock::now() + condition.timeout;
    for (;;) {
        const auto snapshot = Model::TakeSnapshot(condition.choice, Model::LogDepth::SERVER);
        const std::vector<BundleStatus> bundles = Model::StatusOf(*snapshot);
        std::string missing;
        for (const std::string& name : condition.names) {
            missing = missing.empty() ? Missing(condition, name, bundles) : missing;
        }
        if (missing.empty() && snapshot->installation.server) {
            return EXIT_DONE;
        }
        if (std::chrono::steady_clock::now() >= end) {
            if (!snapshot->installation.server) {
                std::cerr << "bundlectl: no bundle server runs. Start it, or look at its log.\n";
                return EXIT_UNREACHABLE;
            }
            std::cerr << "bundlectl: after " << condition.timeout.count() << " s " << missing << ".\n";
            return EXIT_TIMED_OUT;
        }
        std::this_thread::sleep_for(interval);
    }
}
