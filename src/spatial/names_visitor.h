// NamesVisitor: collects the payload name of every node it meets into the
// caller's list (which it empties at startVisit and never owns); a node
// without payload is passed over.
//
// Threading: one walk, one thread; the caller's list belongs to that thread
// for the walk.
#ifndef KQ_SPATIAL_NAMES_VISITOR_H_
#define KQ_SPATIAL_NAMES_VISITOR_H_

#include <string>
#include <vector>

#include "spatial/graph_visitor.h"

namespace KQ {

class NamesVisitor : public GraphVisitor {
 public:
  explicit NamesVisitor(std::vector<std::string>& names);
  void startVisit() override;
  void stopVisit() override;
  void onNode(int id, std::shared_ptr<GraphNodeData> data) override;

 private:
  std::vector<std::string>& names_;
};

}  // namespace KQ

#endif  // KQ_SPATIAL_NAMES_VISITOR_H_
