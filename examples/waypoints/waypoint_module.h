// WaypointModule ("Waypoints"): an example of a module of the user's own,
// loaded into a broker beside the world model with
//   kqbroker --load libkqworldrepresentation.so --load libkqwaypoints.so
//
// It keeps named waypoints (x, y, z in metres, in the "World" frame) and
// answers which object of the world lies nearest to one of them, by calling
// KQWorldRepresentation through a proxy of the same broker: an in-process
// call, no network.
//
// Threading: the broker may call any method from several threads at once;
// mutex_ guards the waypoints.
#ifndef KQ_EXAMPLES_WAYPOINT_MODULE_H_
#define KQ_EXAMPLES_WAYPOINT_MODULE_H_

#include <array>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "middleware/module.h"

class WaypointModule : public KQ::KQModule {
 public:
  WaypointModule(std::shared_ptr<KQ::KQBroker> broker, const std::string& name);

  // xyz: three floats, the waypoint in "World" (metres).
  void setWaypoint(const std::string& name, const std::vector<float>& xyz);
  std::vector<std::string> getWaypointNames();
  // The name of the object nearest to the waypoint, "" in an empty world.
  // KQError for an unknown waypoint.
  std::string nearestObject(const std::string& waypoint);

 private:
  std::mutex mutex_;
  std::map<std::string, std::array<float, 3>> waypoints_;
};

#endif  // KQ_EXAMPLES_WAYPOINT_MODULE_H_
