#include "graph.h"

#include "model/collection.h"
#include "plan.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>

namespace Graphs {

namespace {

using Model::Collection;
using Model::DeclaredBundle;
using Model::Verdict;

/// The steps of all circles: each is a bundle and the bundle that it requires there.
std::set<std::pair<std::string, std::string>> StepsOfCircles(const Collection& collection)
{
    std::set<std::pair<std::string, std::string>> steps;
    for (const DeclaredBundle& bundle : collection.bundles) {
        if (bundle.verdict != Verdict::CIRCLE || bundle.chain.empty()) {
            continue;
        }
        const auto& chain = bundle.chain;
        for (auto name = std::find(chain.begin(), chain.end(), chain.back()); name + 1 != chain.end(); ++name) {
            steps.emplace(*name, *(name + 1));
        }
    }
    return steps;
}

/// The bundle and all that require it.
std::set<std::string> Dependants(const Collection& collection, const std::string& name)
{
    std::set<std::string> reached{name};
    for (bool isChanged = true; isChanged;) {
        isChanged = false;
        for (const DeclaredBundle& bundle : collection.bundles) {
            const bool isReached = std::any_of(bundle.required.begin(), bundle.required.end(),
                                               [&](const std::string& other) { return reached.count(other) != 0; });
            isChanged = (isReached && reached.insert(bundle.name).second) || isChanged;
        }
    }
    return reached;
}

/// A text between quotation marks.
std::string Quoted(const std::string& text)
{
    std::string quoted = "\"";
    for (const char c : text) {
        quoted += c == '"' || c == '\\' ? std::string{'\\', c} : std::string(1, c);
    }
    return quoted + "\"";
}

} // namespace

Graph MakeGraph(const std::string& collection, const std::string& reverse)
{
    Graph graph;
    const Collection found = Model::ReadCollection(collection, ".");
    graph.trouble = found.trouble;
    std::map<std::string, int> order;
    for (const Plans::Step& step : Plans::MakePlan(collection, {}).steps) {
        if (step.kind == Plans::Step::STARTS) {
            order.emplace(step.bundle, static_cast<int>(order.size()) + 1);
        }
    }
    const auto circles = StepsOfCircles(found);
    const auto wanted = Dependants(found, reverse);
    for (const DeclaredBundle& bundle : found.bundles) {
        const bool isOther = bundle.verdict == Verdict::DUPLICATE || bundle.name.empty();
        if (isOther || (!reverse.empty() && wanted.count(bundle.name) == 0)) {
            continue;
        }
        Node node;
        node.name = bundle.name;
        const auto place = order.find(bundle.name);
        node.order = place == order.end() ? 0 : place->second;
        node.reason = bundle.reason;
        for (const std::string& required : bundle.required) {
            node.edges.push_back({required, found.Find(required).empty(), circles.count({bundle.name, required}) != 0});
        }
        graph.nodes.push_back(std::move(node));
    }
    std::sort(graph.nodes.begin(), graph.nodes.end(), [](const Node& left, const Node& right) {
        return std::make_tuple(left.order == 0, left.order, left.name) <
               std::make_tuple(right.order == 0, right.order, right.name);
    });
    return graph;
}

std::string Text(const Graph& graph)
{
    std::string text;
    for (const Node& node : graph.nodes) {
        text += (node.order == 0 ? "-" : std::to_string(node.order)) + " " + node.name;
        for (const Edge& edge : node.edges) {
            text += (&edge == node.edges.data() ? " requires " : ", ") + edge.to +
                    (edge.isMissing    ? " (missing)"
                     : edge.isInCircle ? " (circle)"
                                       : "");
        }
        text += "\n";
    }
    return text;
}

std::string Dot(const Graph& graph)
{
    std::string text = "digraph bundles {\n    rankdir=LR;\n    node [shape=box];\n";
    for (const Node& node : graph.nodes) {
        const std::string label = node.order == 0 ? node.name : std::to_string(node.order) + ". " + node.name;
        text += "    " + Quoted(node.name) + " [label=" + Quoted(label) + (node.order == 0 ? ", style=dashed" : "") +
                "];\n";
        for (const Edge& edge : node.edges) {
            const char* const style = edge.isMissing    ? " [style=dotted, label=\"missing\"]"
                                      : edge.isInCircle ? " [color=red, penwidth=2, label=\"circle\"]"
                                                        : "";
            text += "    " + Quoted(node.name) + " -> " + Quoted(edge.to) + style + ";\n";
        }
    }
    return text + "}\n";
}

std::string Mermaid(const Graph& graph)
{
    // Names can contain any character, so they are labels. Numbers identify the nodes.
    std::map<std::string, std::string> ids;
    const auto idOf = [&ids](const std::string& name) {
        return ids.emplace(name, "n" + std::to_string(ids.size())).first->second;
    };
    const auto labelOf = [](std::string name) {
        std::replace(name.begin(), name.end(), '"', '\'');
        return "[\"" + name + "\"]";
    };
    std::string text = "flowchart LR\n";
    for (const Node& node : graph.nodes) {
        const std::string label = node.order == 0 ? node.name : std::to_string(node.order) + ". " + node.name;
        text += "    " + idOf(node.name) + labelOf(label) + "\n";
    }
    for (const Node& node : graph.nodes) {
        for (const Edge& edge : node.edges) {
            const bool isNew = ids.count(edge.to) == 0;
            const char* const arrow = edge.isMissing    ? " -. missing .-> "
                                      : edge.isInCircle ? " == circle ==> "
                                                        : " --> ";
            text += "    " + idOf(node.name) + arrow + idOf(edge.to) + (isNew ? labelOf(edge.to) : "") + "\n";
        }
    }
    return text;
}

} // namespace Graphs
