#include "spatial/graph_visitor.h"

namespace KQ {

// Out of line so that the vtable lives in one object file.
GraphVisitor::~GraphVisitor() = default;

}  // namespace KQ
