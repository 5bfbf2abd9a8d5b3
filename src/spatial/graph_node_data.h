// GraphNodeData: the base of every payload a scene-graph node can carry. The
// module stores a WorldObject on each node; the graph itself never looks
// inside a payload. Payloads are shared: the graph holds one reference per
// node and hands out copies of the pointer.
//
// Threading: the base holds no state.
#ifndef KQ_SPATIAL_GRAPH_NODE_DATA_H_
#define KQ_SPATIAL_GRAPH_NODE_DATA_H_

class GraphNodeData {
 public:
  GraphNodeData() = default;
  GraphNodeData(const GraphNodeData&) = default;
  GraphNodeData& operator=(const GraphNodeData&) = default;
  virtual ~GraphNodeData();
};

#endif  // KQ_SPATIAL_GRAPH_NODE_DATA_H_
