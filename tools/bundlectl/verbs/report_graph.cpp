#include "report_graph.h"

#include "output/markup.h"
#include "output/terminal.h"
#include "status_view.h"

#include <algorithm>
#include <map>

namespace Verbs {

using Model::BundleStatus;

namespace {

constexpr int COLUMN = 190;
constexpr int ROW = 40;
constexpr int BOX_WIDTH = 150;
constexpr int BOX_HEIGHT = 26;

struct Node {
    std::string name;
    std::vector<std::string> required;
    const char* kind = "missing"; ///< "good", "bad" or "missing": the style of its box
    int column = 0;
    int row = 0;
};

using Nodes = std::map<std::string, Node>;

Nodes NodesOf(const std::vector<BundleStatus>& bundles)
{
    Nodes nodes;
    for (const BundleStatus& bundle : bundles) {
        if (bundle.name.empty()) {
            continue;
        }
        Node& node = nodes[bundle.name];
        node.kind = bundle.IsHealthy() ? "good" : "bad";
        node.required = bundle.declared != nullptr  ? bundle.declared->required
                        : bundle.history != nullptr ? bundle.history->required
                                                    : std::vector<std::string>();
        for (const std::string& required : node.required) {
            nodes[required];
        }
    }
    for (auto& [name, node] : nodes) {
        node.name = name;
    }
    return nodes;
}

// Each step moves a bundle to the right of the bundles that it requires. In a circle this never ends, so the number of
// steps is at most that of the bundles.
void Arrange(Nodes& nodes)
{
    bool hasMoved = true;
    for (std::size_t step = 0; hasMoved && step < nodes.size(); ++step) {
        hasMoved = false;
        for (auto& [name, node] : nodes) {
            for (const std::string& required : node.required) {
                const int least = nodes[required].column + 1;
                const bool fits = static_cast<std::size_t>(least) < nodes.size();
                if (fits && node.column < least) {
                    node.column = least;
                    hasMoved = true;
                }
            }
        }
    }
    std::map<int, int> rows;
    for (auto& [name, node] : nodes) {
        node.row = rows[node.column]++;
    }
}

std::string Place(int number)
{
    return std::to_string(number);
}

// A line across other columns runs between the rows, so that it crosses no box.
std::string LineTo(const Node& from, const Node& to)
{
    constexpr int bend = 18;
    const int y1 = from.row * ROW + ROW / 2;
    const int y2 = to.row * ROW + ROW / 2;
    const int x1 = from.column * COLUMN + BOX_WIDTH + 4;
    const int x2 = to.column * COLUMN + 4;
    std::string path = "<path d=\"M" + Place(x1) + " " + Place(y1);
    if (to.column > from.column + 1) {
        const int between = to.row * ROW + 3;
        path += "L" + Place(x1 + bend) + " " + Place(between) + "H" + Place(x2 - bend);
        return path + "L" + Place(x2) + " " + Place(y2) + "\"/>";
    }
    path += "C" + Place(x1 + bend) + " " + Place(y1) + " " + Place(x2 - bend) + " " + Place(y2);
    return path + " " + Place(x2) + " " + Place(y2) + "\"/>";
}

std::string BoxOf(const Node& node)
{
    constexpr std::size_t longest = 20;
    const Output::Terminal utf8{false, false, true};
    const int x = node.column * COLUMN + 4;
    const int y = node.row * ROW + (ROW - BOX_HEIGHT) / 2;
    const std::string sign = std::string(node.kind) == "good" ? "" : std::string(node.kind) == "bad" ? "! " : "? ";
    return "<g class=\"" + std::string(node.kind) + "\"><title>" + Output::Markup(node.name) + "</title><rect x=\"" +
           Place(x) + "\" y=\"" + Place(y) + "\" width=\"" + Place(BOX_WIDTH) + "\" height=\"" + Place(BOX_HEIGHT) +
           "\" rx=\"5\"/><text x=\"" + Place(x + 8) + "\" y=\"" + Place(y + 17) + "\">" +
           Output::Markup(sign + Output::Fitted(utf8, node.name, longest - sign.size())) + "</text></g>";
}

} // namespace

std::string DependencyGraph(const std::vector<BundleStatus>& bundles)
{
    Nodes nodes = NodesOf(bundles);
    if (nodes.empty()) {
        return "";
    }
    Arrange(nodes);
    int columns = 0;
    int rows = 0;
    std::string lines;
    std::string boxes;
    for (const auto& [name, node] : nodes) {
        columns = std::max(columns, node.column + 1);
        rows = std::max(rows, node.row + 1);
        boxes += BoxOf(node);
        for (const std::string& required : node.required) {
            lines += LineTo(nodes[required], node);
        }
    }
    const int width = columns * COLUMN - COLUMN + BOX_WIDTH + 8;
    return "<svg xmlns=\"http://www.w3.org/2000/svg\" class=\"graph\" role=\"img\" width=\"" + Place(width) +
           "\" height=\"" + Place(rows * ROW) + "\"><title>Who requires whom</title>" + lines + boxes + "</svg>\n";
}

} // namespace Verbs
