#include "lint_output.h"

#include "output/json_writer.h"
#include "output/table.h"
#include "tools/version.h"

#include <algorithm>

namespace LintOutput {

namespace {

using Lint::Finding;
using Lint::Rule;
using Lint::Severity;
using Output::Colour;
using Output::Terminal;

const char* NameOf(Severity severity)
{
    return severity == Severity::ERROR ? "error" : "warning";
}

Colour ColourOf(Severity severity)
{
    return severity == Severity::ERROR ? Colour::BAD : Colour::WARNING;
}

std::string PlaceOf(const Finding& finding)
{
    return finding.file + (finding.line == 0 ? "" : ":" + std::to_string(finding.line));
}

std::string Counted(std::size_t count, const std::string& what)
{
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

/// A path as a URI reference. A relative path stays relative.
std::string UriOf(const std::string& path)
{
    constexpr char digits[] = "0123456789ABCDEF";
    std::string uri = path.substr(0, 1) == "/" ? "file://" : "";
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        const bool isPlain = std::isalnum(byte) != 0 || std::string("/-._~").find(c) != std::string::npos;
        uri += isPlain ? std::string(1, c) : std::string{'%', digits[byte / 16], digits[byte % 16]};
    }
    return uri;
}

void WriteText(Output::JsonWriter& json, const char* key, const std::string& text)
{
    json.Key(key).BeginObject().Member("text", text).End();
}

void WriteRules(Output::JsonWriter& json)
{
    json.Key("rules").BeginArray();
    for (const Rule* const rule : Lint::AllRules()) {
        json.BeginObject().Member("id", rule->id);
        WriteText(json, "shortDescription", rule->summary);
        WriteText(json, "fullDescription", rule->reason);
        WriteText(json, "help", rule->remedy);
        json.Key("defaultConfiguration").BeginObject().Member("level", NameOf(rule->severity)).End().End();
    }
    json.End();
}

void WriteResult(Output::JsonWriter& json, const Finding& finding)
{
    json.BeginObject().Member("ruleId", finding.rule->id).Member("level", NameOf(finding.rule->severity));
    WriteText(json, "message", finding.text + " " + finding.rule->remedy);
    json.Key("locations").BeginArray().BeginObject().Key("physicalLocation").BeginObject();
    json.Key("artifactLocation").BeginObject().Member("uri", UriOf(finding.file)).End();
    if (finding.line != 0) {
        json.Key("region").BeginObject().Member("startLine", finding.line).End();
    }
    json.End().End().End().End();
}

} // namespace

std::string Text(const Lint::Result& result, const Terminal& terminal)
{
    std::string text;
    std::size_t errors = 0;
    for (const Finding& finding : result.findings) {
        const Rule& rule = *finding.rule;
        errors += rule.severity == Severity::ERROR ? 1 : 0;
        text += Output::Shown(terminal, PlaceOf(finding)) + ": " +
                Output::Paint(terminal, ColourOf(rule.severity), NameOf(rule.severity)) + ": " + rule.summary + ". " +
                Output::Shown(terminal, finding.text) + " " +
                Output::Paint(terminal, Colour::FAINT, "[" + std::string(rule.id) + "]") + "\n    " +
                Output::Paint(terminal, Colour::STRONG, "Way out: ") + rule.remedy + "\n";
    }
    return text + Counted(result.bundles, "bundle") + ": " + Counted(errors, "error") + ", " +
           Counted(result.findings.size() - errors, "warning") + ".\n";
}

std::string Json(const Lint::Result& result)
{
    Output::JsonWriter json;
    json.BeginOutput("lint", Model::Now()).Member("bundles", result.bundles).Key("findings").BeginArray();
    for (const Finding& finding : result.findings) {
        json.BeginObject().Member("rule", finding.rule->id).Member("severity", NameOf(finding.rule->severity));
        json.Member("file", finding.file);
        json.Member("line", finding.line == 0 ? std::nullopt : std::optional(finding.line));
        json.Member("text", finding.text).Member("summary", finding.rule->summary);
        json.Member("reason", finding.rule->reason).Member("remedy", finding.rule->remedy).End();
    }
    json.End().End();
    return json.Text();
}

std::string Sarif(const Lint::Result& result)
{
    Output::JsonWriter json;
    json.BeginObject().Member("$schema", "https://json.schemastore.org/sarif-2.1.0.json").Member("version", "2.1.0");
    json.Key("runs").BeginArray().BeginObject().Key("tool").BeginObject().Key("driver").BeginObject();
    json.Member("name", "bundlectl lint").Member("version", TOOL_VERSION);
    WriteRules(json);
    json.End().End().Key("results").BeginArray();
    for (const Finding& finding : result.findings) {
        WriteResult(json, finding);
    }
    json.End().End().End().End();
    return json.Text();
}

std::string Explanation(const Rule& rule, const Terminal& terminal)
{
    return Output::Paint(terminal, ColourOf(rule.severity), NameOf(rule.severity)) + " " + rule.id + ": " +
           rule.summary + ".\n" + rule.reason + "\n" + Output::Paint(terminal, Colour::STRONG, "Way out: ") +
           rule.remedy + "\n";
}

std::string List(const Terminal& terminal)
{
    Output::Table table({"RULE", "SEVERITY", "FINDS"});
    for (const Rule* const rule : Lint::AllRules()) {
        table.Add({rule->id, Output::Table::Cell(NameOf(rule->severity), ColourOf(rule->severity)), rule->summary});
    }
    return table.Text(terminal);
}

} // namespace LintOutput
