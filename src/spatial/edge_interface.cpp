#include "spatial/edge_interface.h"

#include "spatial/graph_visitor.h"

namespace KQ {

EdgeInterface::~EdgeInterface() = default;

// The lists are kept as given, whatever their length or norm: callers read
// back exactly what they stored.
Displacement::Displacement(const std::vector<float>& quaternion, const std::vector<float>& translation)
    : quaternion_(quaternion), translation_(translation) {}

void Displacement::acceptOnUpEdge(int from, int to, GraphVisitor& visitor) { visitor.onUpEdge(from, to, *this); }

void Displacement::acceptOnDownEdge(int from, int to, GraphVisitor& visitor) { visitor.onDownEdge(from, to, *this); }

}  // namespace KQ
