#ifndef BUNDLECTL_AUTHOR_GRAPH_H
#define BUNDLECTL_AUTHOR_GRAPH_H

#include <string>
#include <vector>

/// Who requires whom in a collection.
namespace Graphs {

struct Edge {
    std::string to; ///< the name of the bundle that is required
    bool isMissing = false;
    bool isInCircle = false;
};

struct Node {
    std::string name;
    int order = 0;      ///< of its start, counted from 1; 0: it does not start
    std::string reason; ///< why it does not, in the server's words
    std::vector<Edge> edges;
};

struct Graph {
    std::string trouble;
    std::vector<Node> nodes; ///< those that start in their order, then the others by name
};

/// @param reverse a bundle: only it and what requires it, directly or by others; empty: all
Graph MakeGraph(const std::string& collection, const std::string& reverse);

// All names are escaped in a way that the form needs.
std::string Text(const Graph& graph);
std::string Dot(const Graph& graph);
std::string Mermaid(const Graph& graph);

} // namespace Graphs

#endif
