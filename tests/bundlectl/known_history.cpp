#include "bundlectl/known_history.h"

#include "support/program.h"

#include <algorithm>

namespace {

std::string Truth(bool value)
{
    return value ? "true" : "false";
}

std::string ListOf(const std::vector<pid_t>& pids)
{
    std::string text;
    for (const pid_t pid : pids) {
        text += (text.empty() ? "" : ",") + std::to_string(pid);
    }
    return "[" + text + "]";
}

/// Collects the parts that a text lacks.
class Comparison {
public:
    explicit Comparison(std::string text) : m_text(std::move(text)) {}

    void Expect(const std::string& part)
    {
        if (!Has(m_text, part)) {
            m_missing += part + "\n";
        }
    }
    const std::string& Missing() const { return m_missing; }

private:
    std::string m_text;
    std::string m_missing;
};

/// The part of a text from one mark to the next. Empty when it has none.
std::string PartFrom(const std::string& text, const std::string& mark, const std::string& next)
{
    const std::size_t begin = text.find(mark);
    return begin == std::string::npos ? std::string() : text.substr(begin, text.find(next, begin + 1) - begin);
}

void CompareItem(Comparison& comparison, const KnownItem& item, bool isLogCut)
{
    const std::string pid = item.pid == 0 ? "null" : std::to_string(item.pid);
    comparison.Expect(R"("state":")" + std::string(item.pid == 0 ? "down" : "up") + R"(","pid":)" + pid + ",");
    comparison.Expect("\"further_pids\":" + ListOf(item.further));
    if (isLogCut) {
        return;
    }
    comparison.Expect("\"launches\":" + std::to_string(item.launches) +
                      ",\"relaunches_last_hour\":" + std::to_string(item.relaunches) + ",");
    comparison.Expect(item.lastEnd == "null" ? "\"last_end\":null" : item.lastEnd);
    if (const std::optional<bool> loops = item.IsCrashLooping(KnownItem::Clock::now())) {
        comparison.Expect("\"crash_loop\":" + Truth(*loops));
    }
}

/// Empty: uncertain.
std::optional<bool> IsHealthy(const KnownBundle& bundle)
{
    bool isCertain = true;
    for (const KnownItem& item : bundle.items) {
        const std::optional<bool> loops = item.IsCrashLooping(KnownItem::Clock::now());
        if (item.pid == 0 || !item.further.empty() || loops.value_or(false)) {
            return false;
        }
        isCertain = isCertain && loops;
    }
    return isCertain ? std::optional<bool>(true) : std::nullopt;
}

std::string Compare(const KnownBundle& bundle, const std::string& text, bool isLogCut)
{
    Comparison comparison(text);
    int up = 0;
    int relaunches = 0;
    bool runsTwice = false;
    std::string missing;
    for (const KnownItem& item : bundle.items) {
        up += item.pid != 0 ? 1 : 0;
        relaunches += item.relaunches;
        runsTwice = runsTwice || !item.further.empty();
        Comparison ofItem(PartFrom(text, "{\"name\":\"" + item.name + "\",\"state\"", "{\"name\":"));
        CompareItem(ofItem, item, isLogCut);
        missing += ofItem.Missing().empty() ? "" : item.name + ": " + ofItem.Missing();
    }
    comparison.Expect("\"items_up\":" + std::to_string(up) + ",\"items_all\":" + std::to_string(bundle.items.size()));
    comparison.Expect(R"("directory_gone":false,"changed_since_load":false,"program_replaced":false,"runs_twice":)" +
                      Truth(runsTwice));
    const std::optional<bool> isHealthy = IsHealthy(bundle);
    if (!isLogCut) {
        comparison.Expect(R"("state":"Active")");
        comparison.Expect("\"relaunches_last_hour\":" + std::to_string(relaunches) + ",\"crash_loop\"");
        comparison.Expect(isHealthy ? "\"healthy\":" + Truth(*isHealthy) : "");
    } else if (!Has(text, R"("state":"Active")")) {
        comparison.Expect(R"("state":"unknown")");
    }
    return comparison.Missing() + missing;
}

} // namespace

std::optional<bool> KnownItem::IsCrashLooping(Clock::time_point now) const
{
    const auto within = [this, now](std::chrono::seconds span) {
        return std::count_if(relaunchTimes.begin(), relaunchTimes.end(),
                             [now, span](Clock::time_point time) { return now - time < span; });
    };
    constexpr std::chrono::seconds slack(10);
    constexpr std::chrono::minutes shortSpan(1);
    constexpr std::chrono::minutes longSpan(10);
    if (within(shortSpan - slack) >= 3 || within(longSpan - slack) >= 5) {
        return true;
    }
    if (within(shortSpan + slack) < 3 && within(longSpan + slack) < 5) {
        return false;
    }
    return std::nullopt;
}

::testing::AssertionResult KnownHistory::Matches(const std::string& json, int status) const
{
    std::string faults;
    bool areHealthy = true;
    bool isCertain = !isLogCut;
    for (const auto& [name, bundle] : bundles) {
        const std::string part = PartFrom(json, "{\"name\":\"" + name + "\",\"path\"", "\"reasons\"");
        const std::string missing = Compare(bundle, part, isLogCut);
        faults += missing.empty() ? "" : name + ": " + missing;
        const std::optional<bool> isHealthy = IsHealthy(bundle);
        isCertain = isCertain && isHealthy;
        areHealthy = areHealthy && isHealthy.value_or(false);
    }
    if (isCertain && status != (areHealthy ? 0 : 1)) {
        faults += "its exit status is " + std::to_string(status) + "\n";
    }
    std::size_t count = 0;
    for (std::size_t at = json.find(",\"path\":"); at != std::string::npos; at = json.find(",\"path\":", at + 1)) {
        ++count;
    }
    if (count != bundles.size()) {
        faults += std::to_string(bundles.size()) + " bundles are there, status has " + std::to_string(count) + "\n";
    }
    return faults.empty() ? ::testing::AssertionSuccess()
                          : ::testing::AssertionFailure() << "status lacks:\n"
                                                          << faults << "in:\n"
                                                          << json;
}
