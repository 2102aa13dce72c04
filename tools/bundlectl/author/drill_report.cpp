#include "drill_report.h"

#include "model/log_time.h"
#include "output/format_text.h"
#include "output/json_writer.h"
#include "output/markup.h"
#include "printable.h"

#include <algorithm>

namespace Trials {

namespace {

using Output::Colour;
using Output::Mark;
using Output::Markup;

struct OutcomeView {
    Mark mark;
    Colour colour;
    const char* word;
};

constexpr OutcomeView VIEWS[] = {
    {Mark::GOOD, Colour::GOOD, "passed"},
    {Mark::BAD, Colour::BAD, "failed"},
    {Mark::UNKNOWN, Colour::FAINT, "left-out"},
};

std::string Seconds(Model::Microseconds span)
{
    return Output::FormatText("%.3f", static_cast<double>(span.count()) / 1e6);
}

std::string Attribute(const char* name, const std::string& value)
{
    return std::string(" ") + name + "=\"" + Markup(value) + "\"";
}

std::string TestCase(const DrillReport& report, const DrillResult& result)
{
    const std::string text = Attribute("message", result.text);
    std::string xml = "  <testcase" +
                      Attribute("classname", report.bundle + (result.item.empty() ? "" : "." + result.item)) +
                      Attribute("name", result.name) + Attribute("time", Seconds(result.took)) + ">\n";
    if (result.outcome == DrillResult::FAILED) {
        xml += "    <failure" + text + "/>\n";
    } else if (result.outcome == DrillResult::LEFT_OUT) {
        xml += "    <skipped" + text + "/>\n";
    } else {
        xml += "    <system-out>" + Markup(result.text) + "</system-out>\n";
    }
    return xml + "  </testcase>\n";
}

void WriteTexts(Output::JsonWriter& json, const char* name, const std::vector<std::string>& texts)
{
    json.Key(name).BeginArray();
    for (const std::string& text : texts) {
        json.Value(Printable(text));
    }
    json.End();
}

void WriteResult(Output::JsonWriter& json, const DrillResult& result)
{
    json.BeginObject().Member("item", result.item.empty() ? std::nullopt : std::optional(result.item));
    json.Member("exercise", Printable(result.name)).Member("outcome", VIEWS[result.outcome].word);
    json.Member("text", Printable(result.text)).Member("seconds", result.took);
    json.Member("relaunch_seconds", result.relaunch);
    WriteTexts(json, "processes_left", result.processesLeft);
    json.Member("descriptors_left", result.descriptorsLeft);
    WriteTexts(json, "files_damaged", result.filesDamaged);
    json.End();
}

} // namespace

std::size_t DrillReport::Count(DrillResult::Outcome outcome) const
{
    return static_cast<std::size_t>(std::count_if(
        results.begin(), results.end(), [outcome](const DrillResult& result) { return result.outcome == outcome; }));
}

std::string DrillText(const DrillResult& result, const Output::Terminal& terminal)
{
    const OutcomeView& view = VIEWS[result.outcome];
    return Output::Sign(terminal, view.mark) + " " +
           Output::Paint(terminal, Colour::STRONG,
                         Output::Shown(terminal, result.item.empty() ? "bundle" : result.item)) +
           " " + Output::Shown(terminal, Printable(result.name)) + ": " +
           Output::Paint(terminal, view.colour, view.word) + "\n    " +
           Output::Shown(terminal, Printable(result.text)) + "\n";
}

std::string DrillSummary(const DrillReport& report)
{
    return (report.ended.empty() ? "" : report.ended + "\n") + std::to_string(report.Count(DrillResult::PASSED)) +
           " passed, " + std::to_string(report.Count(DrillResult::FAILED)) + " failed, " +
           std::to_string(report.Count(DrillResult::LEFT_OUT)) + " left out.\n";
}

std::string DrillJson(const DrillReport& report)
{
    Output::JsonWriter json;
    json.BeginOutput("drill", Model::Now()).Member("bundle", report.bundle);
    json.Member("path", Printable(report.directory)).Member("good", report.IsGood());
    json.Member("ended", report.ended.empty() ? std::nullopt : std::optional(report.ended));
    WriteTexts(json, "stubs", report.stubs);
    json.Member("passed", report.Count(DrillResult::PASSED)).Member("failed", report.Count(DrillResult::FAILED));
    json.Member("left_out", report.Count(DrillResult::LEFT_OUT)).Key("exercises").BeginArray();
    for (const DrillResult& result : report.results) {
        WriteResult(json, result);
    }
    json.End().End();
    return json.Text();
}

std::string DrillJunit(const DrillReport& report)
{
    Model::Microseconds all{};
    std::string cases;
    for (const DrillResult& result : report.results) {
        all += result.took;
        cases += TestCase(report, result);
    }
    const std::size_t errors = report.ended.empty() ? 0 : 1;
    if (errors > 0) {
        cases += "  <testcase" + Attribute("classname", report.bundle) + Attribute("name", "drill") + ">\n    <error" +
                 Attribute("message", report.ended) + "/>\n  </testcase>\n";
    }
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuite" + Attribute("name", "drill " + report.bundle) +
           Attribute("tests", std::to_string(report.results.size() + errors)) +
           Attribute("failures", std::to_string(report.Count(DrillResult::FAILED))) +
           Attribute("errors", std::to_string(errors)) +
           Attribute("skipped", std::to_string(report.Count(DrillResult::LEFT_OUT))) + Attribute("time", Seconds(all)) +
           ">\n" + cases + "</testsuite>\n";
}

} // namespace Trials
