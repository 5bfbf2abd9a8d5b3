// KQMotionDisplacement: a live edge that follows one body part of the robot,
// read from the motion module on every evaluation (no caching between
// calls). When the motion module cannot answer, the edge keeps its last good
// transform (identity before the first success) and logs one verbose line
// under the category text "KQMotionDisplacement"; it never passes the error
// on, so a position can always be computed.
//
// Copy semantics, kept on purpose: a copy starts from the source's proxy,
// name and space with an identity transform; assignment installs a new
// private part without releasing the old one.
//
// Threading: evaluating the edge writes its cached transform. Queries, of
// the present and of the past, walk under the shared graph lock, from
// several threads at once, so the cache has a small mutex of its own (never
// held while the motion module is asked).
#ifndef KQ_SPATIAL_MOTION_DISPLACEMENT_H_
#define KQ_SPATIAL_MOTION_DISPLACEMENT_H_

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "middleware/math.h"
#include "spatial/edge_interface.h"

namespace KQ {

class KQMotionProxy;

class KQMotionDisplacementPrivate {
 public:
  KQMotionDisplacementPrivate(std::shared_ptr<KQMotionProxy> proxy, const std::string& bodyName, int bodySpace);

  std::shared_ptr<KQMotionProxy> motionProxy;
  std::string name;
  Math::Transform transform;  // last transform read; identity until the first success
  int space;                  // 0 torso frame (joints), 2 robot ground frame (torso)
  std::mutex mutex;           // guards transform
};

class KQMotionDisplacement : public DisplacementInterface {
 public:
  KQMotionDisplacement(std::shared_ptr<KQMotionProxy> proxy, const std::string& name, int space);
  KQMotionDisplacement(const KQMotionDisplacement& other);
  KQMotionDisplacement& operator=(const KQMotionDisplacement& other);
  ~KQMotionDisplacement() override;

  void acceptOnUpEdge(int from, int to, GraphVisitor& visitor) override;
  void acceptOnDownEdge(int from, int to, GraphVisitor& visitor) override;
  std::vector<float> getQuaternion() override;
  std::vector<float> getTranslation() override;

  void updateTransform();
  std::vector<float> getTransform();  // refreshes, then the 12 floats

 private:
  KQMotionDisplacementPrivate* d_;
};

}  // namespace KQ

#endif  // KQ_SPATIAL_MOTION_DISPLACEMENT_H_
