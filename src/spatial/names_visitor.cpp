#include "spatial/names_visitor.h"

namespace KQ {

NamesVisitor::NamesVisitor(std::vector<std::string>& names) : names_(names) {}

void NamesVisitor::startVisit() { names_.clear(); }

void NamesVisitor::stopVisit() {}

void NamesVisitor::onNode(int /*id*/, std::shared_ptr<GraphNodeData> data) {
  // A node without payload (the root between clearGraph and the reload of a
  // saved world) has no name to give and is passed over.
  if (!data) return;
  names_.push_back(data->getName());
}

}  // namespace KQ
