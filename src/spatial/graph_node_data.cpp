#include "spatial/graph_node_data.h"

// Out of line so that the vtable lives in one object file.
GraphNodeData::~GraphNodeData() = default;
