#include "report.h"

#include "exit_status.h"
#include "output/json_writer.h"
#include "output/terminal.h"
#include "printable.h"

#include <iostream>

namespace Put {

namespace {

std::string Json(const Report& report)
{
    Output::JsonWriter json;
    json.BeginOutput(report.verb, Model::Now())
        .Member("bundle", report.bundle.empty() ? std::nullopt : std::optional(Printable(report.bundle)));
    json.Member("outcome", report.outcome).Member("text", report.text).Member("version", report.version);
    json.Key("details").BeginArray();
    for (const std::string& detail : report.details) {
        json.Value(detail);
    }
    json.End().End();
    return json.Text();
}

} // namespace

int Tell(const Report& report, int status, bool json)
{
    if (json) {
        std::cout << Json(report) << std::flush;
        return std::cout.good() ? status : EXIT_FAILED;
    }
    const Output::Terminal terminal = Output::AskTerminal();
    std::ostream& stream = status == EXIT_DONE ? std::cout : std::cerr;
    for (const std::string& detail : report.details) {
        stream << "  " << Output::Shown(terminal, detail) << '\n';
    }
    stream << (status == EXIT_DONE ? "" : "bundlectl: ") << Output::Shown(terminal, report.text) << '\n' << std::flush;
    return stream.good() ? status : EXIT_FAILED;
}

} // namespace Put
