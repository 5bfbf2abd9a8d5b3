#include "spatial/motion_displacement.h"

#include <utility>

#include "middleware/error.h"
#include "middleware/log.h"
#include "middleware/motion_proxy.h"
#include "spatial/graph_visitor.h"

namespace KQ {

namespace {

// The refresh failure is logged under its own category text, not the
// module's: it comes from the edge, which knows nothing of the module.
const char* const kLogCategory = "KQMotionDisplacement";

}  // namespace

KQMotionDisplacementPrivate::KQMotionDisplacementPrivate(std::shared_ptr<KQMotionProxy> proxy,
                                                         const std::string& bodyName, int bodySpace)
    : motionProxy(std::move(proxy)), name(bodyName), space(bodySpace) {}

KQMotionDisplacement::KQMotionDisplacement(std::shared_ptr<KQMotionProxy> proxy, const std::string& name, int space)
    : d_(new KQMotionDisplacementPrivate(std::move(proxy), name, space)) {}

// The cached transform is not copied: a copy starts at identity.
KQMotionDisplacement::KQMotionDisplacement(const KQMotionDisplacement& other)
    : DisplacementInterface(other),
      d_(new KQMotionDisplacementPrivate(other.d_->motionProxy, other.d_->name, other.d_->space)) {}

// Kept as it has always behaved: the private part held before is not
// released. Edges are shared, never assigned, so nothing in the module
// reaches this.
KQMotionDisplacement& KQMotionDisplacement::operator=(const KQMotionDisplacement& other) {
  d_ = new KQMotionDisplacementPrivate(other.d_->motionProxy, other.d_->name, other.d_->space);
  return *this;
}

KQMotionDisplacement::~KQMotionDisplacement() { delete d_; }

void KQMotionDisplacement::acceptOnUpEdge(int from, int to, GraphVisitor& visitor) {
  visitor.onUpEdge(from, to, *this);
}

void KQMotionDisplacement::acceptOnDownEdge(int from, int to, GraphVisitor& visitor) {
  visitor.onDownEdge(from, to, *this);
}

void KQMotionDisplacement::updateTransform() {
  if (!d_->motionProxy) {
    KO_LOG(ko::log::verbose, kLogCategory, "", "updateTransform", 0)
        << "Could not update transform of object " << d_->name << ": no motion proxy";
    return;
  }
  try {
    std::vector<float> values = d_->motionProxy->getTransform(d_->name, d_->space, true);
    if (values.size() != 12) {
      // A malformed answer is a failed read too: the last good transform stays.
      KO_LOG(ko::log::verbose, kLogCategory, "", "updateTransform", 0)
          << "Could not update transform of object " << d_->name << ": expected 12 floats, got "
          << values.size();
      return;
    }
    std::lock_guard<std::mutex> lock(d_->mutex);
    d_->transform = Math::Transform(values);
  } catch (const KQError& e) {
    // Keeps the edge's last good transform, so a position can always be computed.
    KO_LOG(ko::log::verbose, kLogCategory, "", "updateTransform", 0)
        << "Could not update transform of object " << d_->name << ": " << e.what();
  }
}

std::vector<float> KQMotionDisplacement::getTransform() {
  updateTransform();
  std::lock_guard<std::mutex> lock(d_->mutex);
  return d_->transform.toVector();
}

std::vector<float> KQMotionDisplacement::getQuaternion() {
  updateTransform();
  std::lock_guard<std::mutex> lock(d_->mutex);
  return Math::quaternionFromTransform(d_->transform).toVector();
}

std::vector<float> KQMotionDisplacement::getTranslation() {
  updateTransform();
  std::lock_guard<std::mutex> lock(d_->mutex);
  return Math::position3DFromTransform(d_->transform).toVector();
}

}  // namespace KQ
