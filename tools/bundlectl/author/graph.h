#ifndef BUNDLECTL_AUTHOR_GRAPH_H
#define BUNDLECTL_AUTHOR_GRAPH_H

#include <string>
#include <vector>

/// The requirements between the bundles of a collection.
namespace Graphs {

struct Edge {
    std::string to; ///< the name of the bundle that is required
    bool isMissing = false;
    bool isInCircle = false;
};

struct Node {
    std::string name;
    int order = 0;      ///< of its start, counted from 1; 0: it does not start
    std::string reason; ///< why it does not start, in the server's words
    std::vector<Edge> edges;
};

struct Graph {
    std::string trouble;
    std::vector<Node> nodes; ///< bundles that start, in their order, then the others by name
};

/// @param reverse a bundle: the graph shows only it and the bundles that require it, directly or indirectly; empty: all
Graph MakeGraph(const std::string& collection, const std::string& reverse);

// Each escapes the names as its format needs.
std::string Text(const Graph& graph);
std::string Dot(const Graph& graph);
std::string Mermaid(const Graph& graph);

} // namespace Graphs

#endif
