#include "spatial/graph_node_data.h"

// Out of line so that the vtable lives in one object file.
GraphNodeData::~GraphNodeData() = default;

const std::string& GraphNodeData::getName() const {
  static const std::string kNoName;
  return kNoName;
}
