#include "waypoint_module.h"

#include <limits>

#include "middleware/broker.h"
#include "middleware/error.h"

WaypointModule::WaypointModule(std::shared_ptr<KQ::KQBroker> broker, const std::string& name)
    : KQ::KQModule(broker, name) {
  const std::string cls = "WaypointModule";
  functionName("setWaypoint", cls, "Store a named waypoint: x, y, z in metres in World.");
  advertiseMethod(&WaypointModule::setWaypoint);
  functionName("getWaypointNames", cls, "Names of the stored waypoints.");
  advertiseMethod(&WaypointModule::getWaypointNames);
  functionName("nearestObject", cls, "The object of the world nearest to a waypoint.");
  advertiseMethod(&WaypointModule::nearestObject);
}

void WaypointModule::setWaypoint(const std::string& name, const std::vector<float>& xyz) {
  if (xyz.size() != 3) throw KQ::KQError(getName(), "setWaypoint", "a waypoint is 3 floats: x, y, z");
  std::lock_guard<std::mutex> lock(mutex_);
  waypoints_[name] = {xyz[0], xyz[1], xyz[2]};
}

std::vector<std::string> WaypointModule::getWaypointNames() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> names;
  for (const auto& entry : waypoints_) names.push_back(entry.first);
  return names;
}

std::string WaypointModule::nearestObject(const std::string& waypoint) {
  std::array<float, 3> target;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = waypoints_.find(waypoint);
    if (found == waypoints_.end()) throw KQ::KQError(getName(), "nearestObject", "no waypoint " + waypoint);
    target = found->second;
  }
  // Same broker: a local proxy, a plain function call into the world model.
  std::shared_ptr<KQ::KQProxy> world = getParentBroker()->getProxy("KQWorldRepresentation");
  std::string nearest;
  float best = std::numeric_limits<float>::infinity();
  for (const std::string& object : world->call("getObjectNames").toStringVector()) {
    // getPosition6D(reference, object): x, y, z, wx, wy, wz of the object in World.
    const std::vector<float> pose = world->call("getPosition6D", std::string("World"), object).toFloatVector();
    if (pose.size() < 3) continue;
    const float dx = pose[0] - target[0], dy = pose[1] - target[1], dz = pose[2] - target[2];
    const float distance = dx * dx + dy * dy + dz * dz;
    if (distance < best) {
      best = distance;
      nearest = object;
    }
  }
  return nearest;
}

// The entry points a broker looks for when it loads this library.
extern "C" {
int _createModule(std::shared_ptr<KQ::KQBroker> broker) {
  KQ::KQModule::createModule<WaypointModule>(broker, "Waypoints");
  return 0;
}
int _closeModule(std::shared_ptr<KQ::KQBroker> /*broker*/) { return 0; }
}
