#include "trial_verdict.h"

#include <algorithm>

namespace Trials {

namespace {

std::vector<Death> DeathsOf(const Model::BundleStatus& bundle)
{
    std::vector<Death> deaths;
    for (const Model::ItemStatus& item : bundle.items) {
        for (const Model::ItemEnd& end : item.history == nullptr ? std::deque<Model::ItemEnd>() : item.history->ends) {
            if (end.then != Model::ItemEnd::STOPPED) {
                deaths.push_back({item.name, Model::NameOfEnd(end), end.then == Model::ItemEnd::RELAUNCHED});
            }
        }
    }
    return deaths;
}

/// The reasons cover only items that are down, so an item that is up again would hide its death.
Model::Reason ReasonOfDeath(const Death& death)
{
    Model::Reason reason;
    reason.kind = "died";
    reason.text = "Its item " + death.item + " has ended with " + death.how + " and was run again.";
    return reason;
}

BundleVerdict VerdictOf(const Model::Snapshot& snapshot, const Model::BundleStatus& bundle, const TrialBundles& bundles)
{
    BundleVerdict verdict;
    verdict.directory = bundles.sources.at(bundle.path);
    verdict.name = bundle.name;
    verdict.state = bundle.refused != nullptr ? "refused" : Model::NameOf(bundle.state);
    verdict.items = bundle.items.size();
    verdict.itemsUp = bundle.itemsUp;
    verdict.deaths = DeathsOf(bundle);
    verdict.isGood = bundle.IsHealthy() && verdict.deaths.empty();
    verdict.reasons = Model::ReasonsOf(snapshot, bundle, true);
    if (bundle.IsHealthy() && !verdict.isGood) {
        verdict.reasons = {ReasonOfDeath(verdict.deaths.back())};
    }
    for (Model::Reason& reason : verdict.reasons) {
        reason.text = bundles.WithSources(reason.text);
        reason.remedy = bundles.WithSources(reason.remedy);
    }
    return verdict;
}

} // namespace

std::vector<BundleVerdict> Judge(const Model::Snapshot& snapshot, const TrialBundles& bundles)
{
    std::vector<BundleVerdict> verdicts;
    for (const Model::BundleStatus& bundle : Model::StatusOf(snapshot)) {
        if (bundles.IsGiven(bundle.path)) {
            verdicts.push_back(VerdictOf(snapshot, bundle, bundles));
        }
    }
    return verdicts;
}

} // namespace Trials
