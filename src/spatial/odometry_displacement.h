// KQOdometryDisplacement: the live edge from "World" to "Robot", the robot's
// planar odometry (x, y, theta) read from the motion module.
//
// Throttled: the motion module is asked at most once every 40 ms. lastUpdate
// starts at construction time and is advanced before each request, so the
// first request happens 40 ms after construction and a failed request also
// waits 40 ms before the next. A failed request resets the transform to the
// identity, silently.
//
// Copy semantics, kept on purpose: a copy starts from the source's proxy at
// identity with lastUpdate = time of copying; assignment installs a new
// private part without releasing the old one.
//
// Threading: evaluating the edge writes its transform and lastUpdate.
// Queries, of the present and of the past, walk under the shared graph lock,
// from several threads at once, so both fields have a small mutex of their
// own (never held while the motion module is asked): one thread passes the
// throttle per period.
#ifndef KQ_SPATIAL_ODOMETRY_DISPLACEMENT_H_
#define KQ_SPATIAL_ODOMETRY_DISPLACEMENT_H_

#include <memory>
#include <mutex>
#include <vector>

#include "middleware/math.h"
#include "middleware/os.h"
#include "spatial/edge_interface.h"

namespace KQ {

class KQMotionProxy;

class KQOdometryDisplacementPrivate {
 public:
  explicit KQOdometryDisplacementPrivate(std::shared_ptr<KQMotionProxy> proxy);
  void xUpdatePose();

  std::shared_ptr<KQMotionProxy> motionProxy;
  Math::Transform transform;  // identity at construction
  ko::os::timeval lastUpdate;  // time of the last attempt
  std::mutex mutex;            // guards transform and lastUpdate
};

class KQOdometryDisplacement : public DisplacementInterface {
 public:
  explicit KQOdometryDisplacement(std::shared_ptr<KQMotionProxy> proxy);
  KQOdometryDisplacement(const KQOdometryDisplacement& other);
  KQOdometryDisplacement& operator=(const KQOdometryDisplacement& other);
  ~KQOdometryDisplacement() override;

  void acceptOnUpEdge(int from, int to, GraphVisitor& visitor) override;
  void acceptOnDownEdge(int from, int to, GraphVisitor& visitor) override;
  std::vector<float> getQuaternion() override;
  std::vector<float> getTranslation() override;

 private:
  KQOdometryDisplacementPrivate* d_;
};

}  // namespace KQ

#endif  // KQ_SPATIAL_ODOMETRY_DISPLACEMENT_H_
