// GraphNodeData: the base of every payload a scene-graph node can carry. The
// module stores a WorldObject on each node; the graph itself never looks
// inside a payload.
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
