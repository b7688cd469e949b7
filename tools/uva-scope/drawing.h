#ifndef UVA_SCOPE_DRAWING_H
#define UVA_SCOPE_DRAWING_H

#include <functional>
#include <string>

namespace scope {

/// Has Graphviz draw a graph as SVG, within a bound of time and memory. Called on the default main
/// context: the drawing, or what keeps it from being drawn and what to do.
using Drawn = std::function<void(const std::string& svg, const std::string& error)>;
void draw(const std::string& graph, Drawn drawn);

} // namespace scope

#endif
