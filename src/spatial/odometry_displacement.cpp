#include "spatial/odometry_displacement.h"

#include <utility>

#include "middleware/error.h"
#include "middleware/motion_proxy.h"
#include "spatial/graph_visitor.h"

namespace KQ {

namespace {

// The motion module is asked at most once per this many milliseconds.
constexpr float kThrottleMs = 40.0f;

}  // namespace

KQOdometryDisplacementPrivate::KQOdometryDisplacementPrivate(std::shared_ptr<KQMotionProxy> proxy)
    : motionProxy(std::move(proxy)) {
  ko::os::gettimeofday(&lastUpdate);
}

void KQOdometryDisplacementPrivate::xUpdatePose() {
  ko::os::timeval now;
  ko::os::gettimeofday(&now);
  std::unique_lock<std::mutex> lock(mutex);
  // Milliseconds since the last attempt, summed in double and kept as a
  // float, so that exactly 40 ms reads as 40 even across a second boundary.
  const float elapsedMs = static_cast<float>(static_cast<double>(now.tv_sec - lastUpdate.tv_sec) * 1000.0 +
                                             static_cast<double>(now.tv_usec - lastUpdate.tv_usec) * 0.001);
  if (kThrottleMs > elapsedMs) return;
  // Advanced before asking, so a failed read also waits a full period.
  lastUpdate = now;
  lock.unlock();
  Math::Transform robotInWorldTransform;  // identity unless the read succeeds
  if (motionProxy) {
    try {
      const Math::Pose2D robotInWorld(motionProxy->getRobotPosition(true));
      robotInWorldTransform = Math::transformFromPose2D(robotInWorld);
    } catch (const KQError&) {
      // Silently back at the world origin until the next good read.
    }
  }
  lock.lock();
  transform = robotInWorldTransform;
}

KQOdometryDisplacement::KQOdometryDisplacement(std::shared_ptr<KQMotionProxy> proxy)
    : d_(new KQOdometryDisplacementPrivate(std::move(proxy))) {}

// A copy starts at identity, its throttle period counted from the copying.
KQOdometryDisplacement::KQOdometryDisplacement(const KQOdometryDisplacement& other)
    : DisplacementInterface(other), d_(new KQOdometryDisplacementPrivate(other.d_->motionProxy)) {}

// Kept as it has always behaved: the private part held before is not
// released. Edges are shared, never assigned, so nothing in the module
// reaches this.
KQOdometryDisplacement& KQOdometryDisplacement::operator=(const KQOdometryDisplacement& other) {
  d_ = new KQOdometryDisplacementPrivate(other.d_->motionProxy);
  return *this;
}

KQOdometryDisplacement::~KQOdometryDisplacement() { delete d_; }

void KQOdometryDisplacement::acceptOnUpEdge(int from, int to, GraphVisitor& visitor) {
  visitor.onUpEdge(from, to, *this);
}

void KQOdometryDisplacement::acceptOnDownEdge(int from, int to, GraphVisitor& visitor) {
  visitor.onDownEdge(from, to, *this);
}

std::vector<float> KQOdometryDisplacement::getQuaternion() {
  d_->xUpdatePose();
  std::lock_guard<std::mutex> lock(d_->mutex);
  return Math::quaternionFromTransform(d_->transform).toVector();
}

std::vector<float> KQOdometryDisplacement::getTranslation() {
  d_->xUpdatePose();
  std::lock_guard<std::mutex> lock(d_->mutex);
  return Math::position3DFromTransform(d_->transform).toVector();
}

}  // namespace KQ
