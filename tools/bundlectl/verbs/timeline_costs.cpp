#include "timeline_costs.h"

#include "output/format_text.h"
#include "output/json_writer.h"
#include "output/table.h"

#include <algorithm>
#include <map>
#include <optional>
#include <vector>

namespace Verbs {

using Model::Microseconds;
using Model::Timeline;
using Model::TimelineBundle;
using Output::Colour;
using Output::Terminal;

namespace {

std::string Seconds(Microseconds span, bool withSign = false)
{
    return Output::FormatText(withSign ? "%+.3f s" : "%.3f s", static_cast<double>(span.count()) / 1e6);
}

Microseconds ScriptTime(const TimelineBundle& bundle)
{
    Microseconds sum{};
    for (const Model::TimelineScript& script : bundle.scripts) {
        sum += script.to - script.from;
    }
    return sum;
}

std::vector<const TimelineBundle*> ByCost(const Timeline& timeline)
{
    std::vector<const TimelineBundle*> bundles;
    for (const TimelineBundle& bundle : timeline.bundles) {
        bundles.push_back(&bundle);
    }
    std::stable_sort(bundles.begin(), bundles.end(),
                     [](const TimelineBundle* one, const TimelineBundle* other) { return one->cost > other->cost; });
    return bundles;
}

/// The time that a bundle, or the whole start-up, took before and after.
struct Pair {
    std::string name; ///< empty: the whole start-up
    std::optional<Microseconds> before;
    std::optional<Microseconds> after;

    Microseconds Difference() const { return after.value_or(Microseconds()) - before.value_or(Microseconds()); }
    bool IsSlower() const
    {
        constexpr Microseconds least = std::chrono::milliseconds(10);
        return before && after && Difference() > std::max(least, *before / 10);
    }
};

std::vector<Pair> PairUp(const Timeline& before, const Timeline& after)
{
    std::map<std::string, Pair> byName;
    for (const TimelineBundle& bundle : before.bundles) {
        byName[bundle.name].before = bundle.cost;
    }
    for (const TimelineBundle& bundle : after.bundles) {
        byName[bundle.name].after = bundle.cost;
    }
    std::vector<Pair> pairs;
    pairs.reserve(byName.size());
    for (auto& [name, pair] : byName) {
        pairs.push_back({name, pair.before, pair.after});
    }
    std::stable_sort(pairs.begin(), pairs.end(),
                     [](const Pair& one, const Pair& other) { return one.Difference() > other.Difference(); });
    pairs.insert(pairs.begin(), {"", before.to - before.from, after.to - after.from});
    return pairs;
}

std::string Remark(const Pair& pair)
{
    return !pair.before ? "new" : !pair.after ? "gone" : pair.IsSlower() ? "slower" : "";
}

void Write(Output::JsonWriter& json, const Pair& pair)
{
    json.BeginObject().Member("name", pair.name.empty() ? std::nullopt : std::optional(pair.name));
    json.Member("before_seconds", pair.before).Member("after_seconds", pair.after);
    json.Member("slower", pair.IsSlower()).End();
}

} // namespace

std::string BlameText(const Timeline& timeline, const Terminal& terminal)
{
    Output::Table table({"COST", "SCRIPTS", "BUNDLE", "REQUIRES"});
    for (const TimelineBundle* const bundle : ByCost(timeline)) {
        std::string required;
        for (const std::string& name : bundle->required) {
            required += (required.empty() ? "" : ", ") + name;
        }
        const Microseconds scripts = ScriptTime(*bundle);
        table.Add({Seconds(bundle->cost),
                   scripts.count() == 0 ? "" : Seconds(scripts),
                   {Output::Shown(terminal, bundle->name), bundle->isInChain ? Colour::STRONG : Colour::NONE},
                   Output::Shown(terminal, required)});
    }
    return table.Text(terminal);
}

std::string BlameJson(const Timeline& timeline)
{
    Output::JsonWriter json;
    json.BeginOutput("blame", Model::Now()).Member("server", timeline.server);
    json.Member("total_seconds", timeline.to - timeline.from).Key("bundles").BeginArray();
    for (const TimelineBundle* const bundle : ByCost(timeline)) {
        json.BeginObject().Member("name", bundle->name).Member("cost_seconds", bundle->cost);
        json.Member("script_seconds", ScriptTime(*bundle)).Member("in_chain", bundle->isInChain).End();
    }
    json.End().End();
    return json.Text();
}

Comparison Compare(const Timeline& before, const Timeline& after, const Terminal& terminal)
{
    Comparison comparison;
    Output::Table table({"BEFORE", "AFTER", "CHANGE", "BUNDLE", ""});
    Output::JsonWriter json;
    json.BeginOutput("timeline compare", Model::Now()).Key("bundles").BeginArray();
    for (const Pair& pair : PairUp(before, after)) {
        comparison.isSlower = comparison.isSlower || pair.IsSlower();
        table.Add({pair.before ? Seconds(*pair.before) : "-",
                   pair.after ? Seconds(*pair.after) : "-",
                   {Seconds(pair.Difference(), true), pair.IsSlower() ? Colour::BAD : Colour::NONE},
                   pair.name.empty() ? std::string("(the whole start-up)") : Output::Shown(terminal, pair.name),
                   Remark(pair)});
        Write(json, pair);
    }
    json.End().End();
    comparison.text = table.Text(terminal);
    comparison.json = json.Text();
    return comparison;
}

} // namespace Verbs
