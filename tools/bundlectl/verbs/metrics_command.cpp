#include "command.h"
#include "exit_status.h"
#include "model/metrics.h"
#include "output/format_text.h"
#include "output/json_writer.h"
#include "places.h"
#include "replaced_file.h"

#include <memory>
#include <string>
#include <vector>

namespace {

using Model::Metric;
using Model::MetricSample;

struct Options {
    Model::Choice choice;
    std::string file;
    bool json = false;
};

/// The node exporter reads the older text format, in which the name of a counter's family also ends in "_total".
enum class Format { OPEN_METRICS, TEXT_FILE };

std::string Number(double value)
{
    return Output::FormatText("%.15g", value);
}

// Names have no control characters, because they are as in the log.
std::string Quoted(const std::string& text)
{
    std::string quoted = "\"";
    for (const char letter : text) {
        quoted += letter == '"' || letter == '\\' ? "\\" : "";
        quoted += letter;
    }
    return quoted + "\"";
}

std::string LabelsText(const MetricSample& sample)
{
    std::string text;
    for (const auto& [name, value] : sample.labels) {
        text += (text.empty() ? "{" : ",") + std::string(name) + "=" + Quoted(value);
    }
    return text.empty() ? "" : text + "}";
}

std::string Text(const std::vector<Metric>& metrics, Format format)
{
    std::string text;
    for (const Metric& metric : metrics) {
        const std::string sampleName = metric.name + (metric.isCounter ? "_total" : "");
        const std::string& family = format == Format::TEXT_FILE ? sampleName : metric.name;
        text += "# HELP " + family + " " + metric.help + "\n# TYPE " + family +
                (metric.isCounter ? " counter\n" : " gauge\n");
        for (const MetricSample& sample : metric.samples) {
            text += sampleName + LabelsText(sample) + " " + Number(sample.value) + "\n";
        }
    }
    return text + (format == Format::OPEN_METRICS ? "# EOF\n" : "");
}

std::string Json(const Model::Snapshot& snapshot, const std::vector<Metric>& metrics)
{
    Output::JsonWriter json;
    json.BeginOutput("metrics", snapshot.taken).Key("metrics").BeginArray();
    for (const Metric& metric : metrics) {
        for (const MetricSample& sample : metric.samples) {
            json.BeginObject().Member("name", metric.name).Member("type", metric.isCounter ? "counter" : "gauge");
            json.Key("labels").BeginObject();
            for (const auto& [name, value] : sample.labels) {
                json.Member(name, value);
            }
            json.End().Member("value", Model::Microseconds(static_cast<std::int64_t>(sample.value * 1e6))).End();
        }
    }
    json.End().End();
    return json.Text();
}

int Measure(const Options& options)
{
    const Model::Proc proc;
    const auto snapshot = Model::TakeSnapshot(options.choice, Model::LogDepth::SERVER, proc);
    const std::vector<Metric> metrics = MetricsOf(*snapshot, Model::StatusOf(*snapshot), proc);
    if (!options.json) {
        Verbs::TellNotes(snapshot->notes);
    }
    // A server that does not run is a measured value, not a failure.
    if (!options.file.empty()) {
        return ReplaceFile(options.file, Text(metrics, Format::TEXT_FILE)) ? EXIT_DONE : EXIT_FAILED;
    }
    return Verbs::Print(options.json ? Json(*snapshot, metrics) : Text(metrics, Format::OPEN_METRICS), EXIT_DONE);
}

} // namespace

Action DefineMetrics(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    Argument file{"--textfile", "write them there, for the textfile collector of the Prometheus node exporter", "FILE"};
    arguments.Add(file, options->file);
    Verbs::AddJson(arguments, options->json);
    Verbs::AddPlaces(arguments, options->choice);
    return [options] { return Measure(*options); };
}
