// GraphNodeData: the base of every payload a scene-graph node can carry. The
// module stores a WorldObject on each node; the graph itself never looks
// inside a payload beyond its name. Payloads are shared: the graph holds one reference per
// node and hands out copies of the pointer.
//
// Threading: the base holds no state.
#ifndef KQ_SPATIAL_GRAPH_NODE_DATA_H_
#define KQ_SPATIAL_GRAPH_NODE_DATA_H_

#include <string>

class GraphNodeData {
 public:
  GraphNodeData() = default;
  GraphNodeData(const GraphNodeData&) = default;
  GraphNodeData& operator=(const GraphNodeData&) = default;
  virtual ~GraphNodeData();

  // The name of the frame the payload stands for; "" when it has none. The
  // names visitor lists these without knowing the payload's type.
  virtual const std::string& getName() const;
};

#endif  // KQ_SPATIAL_GRAPH_NODE_DATA_H_
