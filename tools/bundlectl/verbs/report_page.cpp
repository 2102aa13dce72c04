#include "report_page.h"

#include "model/reasons.h"
#include "output/markup.h"
#include "output/times.h"
#include "places.h"
#include "report_graph.h"
#include "status_view.h"
#include "timeline_view.h"

#include <algorithm>

namespace Verbs {

using Model::BundleStatus;
using Output::Markup;

namespace {

constexpr const char HEAD[] =
    "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
    "<meta name=\"viewport\" content=\"width=device-width,initial-scale=1\">"
    "<meta name=\"color-scheme\" content=\"light dark\"><title>Bundle report</title><style>"
    ":root{--ink:#1c2330;--faint:#566072;--line:#d5dae2;--paper:#fff;--raised:#f4f6f9;--good:#1d7a41;--bad:#b3261e;"
    "--warn:#8a5a00}"
    "@media(prefers-color-scheme:dark){:root{--ink:#e6e9ef;--faint:#9aa5b5;--line:#39424f;--paper:#12161c;"
    "--raised:#1b212a;--good:#5cc98a;--bad:#ff8a80;--warn:#f0b84d}}"
    "*{box-sizing:border-box}body{margin:0 auto;max-width:1100px;padding:16px;background:var(--paper);color:var(--ink);"
    "font:16px/1.5 system-ui,sans-serif}h1{font-size:1.6em;margin:.2em 0}h2{font-size:1.2em;margin:1.6em 0 .4em}"
    "p{margin:.3em 0}.faint{color:var(--faint)}.good{color:var(--good)}.bad{color:var(--bad)}.warn{color:var(--warn)}"
    ".wide{overflow-x:auto}table{border-collapse:collapse;width:100%}"
    "th,td{text-align:left;padding:6px 12px 6px 0;border-bottom:1px solid "
    "var(--line);vertical-align:top;overflow-wrap:anywhere}"
    "th{color:var(--faint);font-weight:600;white-space:nowrap}td:first-child{min-width:9em}"
    "pre{background:var(--raised);padding:10px;font-size:13px;white-space:pre-wrap;overflow-wrap:anywhere}"
    ".finding{border-left:4px solid var(--line);padding:2px 12px;margin:10px 0}"
    ".finding.bad{border-color:var(--bad);color:inherit}.finding.warn{border-color:var(--warn);color:inherit}"
    "code{background:var(--raised);padding:1px 4px}svg.tl{min-width:760px;width:100%}"
    ".graph text{font:13px system-ui,sans-serif;fill:var(--ink)}.graph rect{fill:var(--raised);stroke:var(--line)}"
    ".graph .good rect{stroke:var(--good)}.graph .bad rect{stroke:var(--bad);stroke-width:2}"
    ".graph .missing rect{stroke:var(--warn);stroke-dasharray:4 3}.graph path{fill:none;stroke:var(--faint)}"
    "@media(max-width:600px){thead{display:none}tr{display:block;border-bottom:1px solid var(--line);padding:8px 0}"
    "td{display:block;border:0;padding:1px 0}td:empty{display:none}"
    "td[data-name]::before{content:attr(data-name)\": \";color:var(--faint)}}"
    "</style></head><body>\n";

std::string Element(const char* name, const std::string& content, const std::string& attributes = "")
{
    return std::string("<") + name + (attributes.empty() ? "" : " ") + attributes + ">" + content + "</" + name + ">";
}

std::string Class(const char* name)
{
    return std::string("class=\"") + name + "\"";
}

const char* ClassOf(const BundleStatus& bundle)
{
    return bundle.IsHealthy() ? "good" : MarkOf(bundle) == Output::Mark::WARNING ? "warn" : "bad";
}

std::string Cell(const char* name, const std::string& content, const std::string& attributes = "")
{
    return Element("td", content,
                   "data-name=\"" + std::string(name) + "\"" + (attributes.empty() ? "" : " ") + attributes);
}

std::string RowOf(const Report& report, const BundleStatus& bundle)
{
    std::string reason;
    if (!bundle.IsHealthy()) {
        for (const Model::Reason& each : Model::ReasonsOf(report.snapshot, bundle, false)) {
            reason += Element("p", Markup(each.text));
        }
    }
    const std::string since = bundle.since ? Output::Ago(*bundle.since, report.snapshot.taken) : "";
    return Element("tr",
                   Element("td", Element("strong", Markup(NameToShow(bundle)))) +
                       Cell("State", Markup(NameOfState(bundle)), Class(ClassOf(bundle))) +
                       Cell("Items up", std::to_string(bundle.itemsUp) + " of " + std::to_string(bundle.items.size())) +
                       Cell("Since", Markup(since)) +
                       Cell("Relaunches in the last hour", std::to_string(bundle.relaunches)) + Element("td", reason)) +
           "\n";
}

std::string StatusSection(const Report& report)
{
    std::string rows;
    for (const BundleStatus& bundle : report.bundles) {
        rows += RowOf(report, bundle);
    }
    std::string head;
    for (const char* const name : {"Bundle", "State", "Items up", "Since", "Relaunches", "Reason"}) {
        head += Element("th", name);
    }
    return Element("h2", "Bundles") +
           (rows.empty() ? Element("p", "There are none.")
                         : Element("table", Element("thead", Element("tr", head)) + Element("tbody", rows)));
}

std::string FindingsSection(const Report& report)
{
    std::string text;
    for (const Model::Finding& finding : report.findings) {
        text += Element("div",
                        Element("p",
                                Element("strong", (finding.isError ? "Error: " : "Warning: ") + Markup(finding.what))) +
                            Element("p", Markup(finding.why)) +
                            Element("p", "Way out: " + Element("code", Markup(finding.remedy))),
                        Class(finding.isError ? "finding bad" : "finding warn")) +
                "\n";
    }
    return Element("h2", "Findings") + (text.empty() ? Element("p", "Nothing is wrong.", Class("good")) : text);
}

std::string TimelineSection(const Report& report)
{
    return Element("h2", "Start-up") + (report.timeline
                                            ? Element("div", TimelineSvg(*report.timeline), Class("wide"))
                                            : Element("p", "The log has no beginning of a start-up.", Class("faint")));
}

std::string ErrorsSection(const Report& report)
{
    std::string lines;
    for (const std::string& line : report.errors) {
        lines += Markup(line) + "\n";
    }
    return Element("h2", "The log's last errors") +
           (lines.empty() ? Element("p", "There are none.") : Element("pre", lines));
}

std::string VersionsSection(const Report& report)
{
    std::string rows;
    for (const auto& [name, version] : report.versions) {
        rows += Element("tr", Element("td", Markup(name)) + Element("td", Markup(version)));
    }
    return Element("h2", "Versions") + Element("table", rows);
}

std::string Heading(const Report& report)
{
    const auto good = std::count_if(report.bundles.begin(), report.bundles.end(),
                                    [](const BundleStatus& bundle) { return bundle.IsHealthy(); });
    const bool isGood = static_cast<std::size_t>(good) == report.bundles.size() && report.snapshot.installation.server;
    const auto& server = report.snapshot.installation.server;
    std::string text = server ? "Server " + std::to_string(server->stat.pid) + " runs. " : "No bundle server runs. ";
    text += std::to_string(good) + " of " + std::to_string(report.bundles.size()) +
            " bundles are Active with all items up.";
    return Element("h1", "Bundle report") + Element("p", Output::Rfc3339(report.snapshot.taken), Class("faint")) +
           Element("p", Markup(text), Class(isGood ? "good" : "bad")) + "\n";
}

} // namespace

std::string ReportPage(const Report& report)
{
    std::string page = HEAD + Heading(report) + FindingsSection(report) + StatusSection(report);
    const std::string graph = DependencyGraph(report.bundles);
    page += graph.empty() ? "" : Element("h2", "Who requires whom") + Element("div", graph, Class("wide"));
    page += TimelineSection(report) + ErrorsSection(report) + VersionsSection(report);
    for (const std::string& note : report.snapshot.notes) {
        page += Element("p", Markup(note), Class("faint"));
    }
    return page + "</body></html>\n";
}

} // namespace Verbs
