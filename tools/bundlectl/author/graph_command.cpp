#include "arguments.h"
#include "command.h"
#include "exit_status.h"
#include "graph.h"
#include "output/json_writer.h"
#include "printable.h"
#include "suggestion.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace Graphs;

struct Options {
    std::string collection;
    std::string reverse;
    std::string format = "text";
    bool json = false;
};

std::string Json(const Graph& graph)
{
    Output::JsonWriter json;
    json.BeginOutput("graph", Model::Now()).Key("bundles").BeginArray();
    for (const Node& node : graph.nodes) {
        json.BeginObject().Member("name", node.name);
        json.Member("order", node.order == 0 ? std::nullopt : std::optional(node.order));
        json.Member("reason", node.reason.empty() ? std::nullopt : std::optional(node.reason));
        json.Key("requires").BeginArray();
        for (const Edge& edge : node.edges) {
            json.BeginObject().Member("name", edge.to).Member("missing", edge.isMissing);
            json.Member("circle", edge.isInCircle).End();
        }
        json.End().End();
    }
    json.End().End();
    return json.Text();
}

/// Lets graphviz draw the graph to our standard output.
int Draw(const std::string& dot)
{
    constexpr int notFound = 127;
    // A missing program ends before it has read anything.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    std::cout << std::flush;
    FILE* const program = ::popen("command -v dot > /dev/null || exit 127; exec dot -Tsvg", "w");
    if (program == nullptr) {
        std::cerr << "bundlectl: dot cannot be run.\n";
        return EXIT_FAILED;
    }
    const bool isWritten = std::fwrite(dot.data(), 1, dot.size(), program) == dot.size();
    const int status = ::pclose(program);
    if (status != 0 && (status >> 8) == notFound) {
        std::cerr
            << "bundlectl: graphviz draws the picture, and it is not installed: install the package graphviz, or use "
               "--format=mermaid.\n";
    }
    return status == 0 && isWritten ? EXIT_DONE : EXIT_FAILED;
}

int TellUnknown(const Options& options)
{
    const Graph all = MakeGraph(options.collection, "");
    std::vector<std::string_view> names;
    for (const Node& node : all.nodes) {
        names.emplace_back(node.name);
    }
    const std::string name = Printable(options.reverse);
    std::cerr << "bundlectl: there is no bundle \"" << name << "\"." << DidYouMean(name, names) << '\n';
    return EXIT_UNKNOWN_BUNDLE;
}

int RunGraph(const Options& options)
{
    const Graph graph = MakeGraph(options.collection, Printable(options.reverse));
    if (!graph.trouble.empty()) {
        std::cerr << "bundlectl: " << graph.trouble << ". Name the directory of the bundles.\n";
        return EXIT_USAGE;
    }
    if (!options.reverse.empty() && graph.nodes.empty()) {
        return TellUnknown(options);
    }
    const std::string format = options.json ? "json" : options.format;
    if (format == "svg") {
        return Draw(Dot(graph));
    }
    std::cout << (format == "json"      ? Json(graph)
                  : format == "dot"     ? Dot(graph)
                  : format == "mermaid" ? Mermaid(graph)
                                        : Text(graph))
              << std::flush;
    if (!std::cout.good()) {
        std::cerr << "bundlectl: standard output takes no more.\n";
        return EXIT_FAILED;
    }
    return EXIT_DONE;
}

} // namespace

Action DefineGraph(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    Argument collection{"COLLECTION", "the directory of the bundles", "DIR"};
    collection.isRequired = true;
    arguments.Add(collection, options->collection);
    arguments.Add({"--reverse", "only this bundle and those that require it", "NAME"}, options->reverse);
    Argument format{"--format", "how to show it; graphviz makes the svg", "FORMAT"};
    format.choices = "text dot mermaid svg json";
    format.standard = "text";
    arguments.Add(format, options->format);
    arguments.AddFlag("--json", "the same as --format=json", options->json);
    return [options] { return RunGraph(*options); };
}
