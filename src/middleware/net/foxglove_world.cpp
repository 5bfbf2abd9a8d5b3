#include "middleware/net/foxglove_world.h"

#include <deque>

#include "middleware/broker.h"
#include "middleware/net/json_codec.h"
#include "middleware/proxy.h"

namespace KQ {
namespace net {
namespace foxglove {

const char* const kWorldModule = "KQWorldRepresentation";
const char* const kDisplayEvent = "KQWorldRepresentation/DisplayRequired";
const char* const kPositionEvent = "KQWorldRepresentation/PositionChanged";
const char* const kAttributeEvent = "KQWorldRepresentation/AttributeChanged";

namespace {

const char* const kRoot = "World";
const char* const kRobot = "Robot";

nlohmann::json stamp(uint64_t ns) { return {{"sec", ns / 1000000000u}, {"nsec", ns % 1000000000u}}; }

nlohmann::json identityPose() {
  return {{"position", {{"x", 0}, {"y", 0}, {"z", 0}}}, {"orientation", {{"x", 0}, {"y", 0}, {"z", 0}, {"w", 1}}}};
}

double number(const nlohmann::json& value, double fallback) { return value.is_number() ? value.get<double>() : fallback; }

}  // namespace

std::vector<Frame> readFrames(KQBroker& broker, bool robotOnly, const std::map<std::string, std::string>& known) {
  auto world = broker.getProxy(kWorldModule);
  std::vector<Frame> frames;
  std::deque<std::pair<std::string, std::string>> pending;  // (frame, parent)
  if (robotOnly) {
    pending.emplace_back(kRobot, kRoot);
  } else {
    for (const auto& child : toJson(world->call("getChildrenNames", std::string(kRoot))))
      if (child.is_string()) pending.emplace_back(child.get<std::string>(), kRoot);
  }
  while (!pending.empty()) {
    Frame frame;
    frame.name = pending.front().first;
    frame.parent = pending.front().second;
    pending.pop_front();
    const auto old = known.find(frame.name);
    frame.posed = old == known.end() || old->second != frame.parent;
    // [[w, x, y, z], [x, y, z]]: the frame in its parent; empty when it went.
    if (frame.posed) {
      const nlohmann::json pose = toJson(world->call("getPosition", frame.parent, frame.name));
      if (!pose.is_array() || pose.size() != 2 || pose[0].size() != 4 || pose[1].size() != 3) continue;
      for (int i = 0; i < 4; ++i) frame.rotation[i] = number(pose[0][i], i == 0 ? 1 : 0);
      for (int i = 0; i < 3; ++i) frame.translation[i] = number(pose[1][i], 0);
    }
    for (const auto& child : toJson(world->call("getChildrenNames", frame.name)))
      if (child.is_string()) pending.emplace_back(child.get<std::string>(), frame.name);
    frames.push_back(std::move(frame));
  }
  return frames;
}

bool namesChanged(KQBroker& broker, const std::map<std::string, std::string>& known) {
  // One call, where reading the tree takes one per frame.
  const nlohmann::json names = toJson(broker.getProxy(kWorldModule)->call("getObjectNames"));
  if (!names.is_array() || names.size() != known.size() + 1) return true;
  for (const auto& name : names)
    if (!name.is_string() || (name != kRoot && !known.count(name.get<std::string>()))) return true;
  return false;
}

std::vector<std::string> readDisplayList(KQBroker& broker) {
  std::vector<std::string> names;
  const nlohmann::json list = toJson(broker.getProxy("KQMemory")->call("getData", std::string(kDisplayEvent)));
  if (list.is_array())
    for (const auto& name : list)
      if (name.is_string()) names.push_back(name.get<std::string>());
  return names;
}

nlohmann::json readEntity(KQBroker& broker, const std::string& name, uint64_t stampNs) {
  double color[3] = {0.6, 0.6, 0.6};
  double scale[3] = {0.1, 0.1, 0.1};
  std::string model = "box";
  // [[attribute, [[ObjectName, TimeS, TimeUS, colorR, colorG, colorB,
  // scaleX, scaleY, scaleZ, model]]], ...]: the latest row of each.
  const nlohmann::json attributes =
      toJson(broker.getProxy(kWorldModule)->call("getObjectLatestAttributes", name, 1));
  for (const auto& attribute : attributes) {
    if (!attribute.is_array() || attribute.size() != 2 || attribute[0] != "Display") continue;
    const auto& rows = attribute[1];
    if (!rows.is_array() || rows.empty() || !rows[0].is_array() || rows[0].size() < 10) continue;
    const auto& row = rows[0];
    for (int i = 0; i < 3; ++i) color[i] = number(row[3 + i], color[i]);
    for (int i = 0; i < 3; ++i) scale[i] = number(row[6 + i], scale[i]);
    if (row[9].is_string()) model = row[9].get<std::string>();
  }
  return entityJson(name, color, scale, model, stampNs);
}

nlohmann::json transformJson(const Frame& frame, uint64_t stampNs) {
  return {{"timestamp", stamp(stampNs)},
          {"parent_frame_id", frame.parent},
          {"child_frame_id", frame.name},
          {"translation", {{"x", frame.translation[0]}, {"y", frame.translation[1]}, {"z", frame.translation[2]}}},
          {"rotation",
           {{"x", frame.rotation[1]}, {"y", frame.rotation[2]}, {"z", frame.rotation[3]}, {"w", frame.rotation[0]}}}};
}

nlohmann::json deletionJson(const std::string& name, uint64_t stampNs) {
  return {{"timestamp", stamp(stampNs)}, {"type", 0}, {"id", name}};
}

nlohmann::json entityJson(const std::string& name, const double color[3], const double scale[3],
                          const std::string& model, uint64_t stampNs) {
  const nlohmann::json rgba = {{"r", color[0]}, {"g", color[1]}, {"b", color[2]}, {"a", 1.0}};
  nlohmann::json primitive = {
      {"pose", identityPose()}, {"size", {{"x", scale[0]}, {"y", scale[1]}, {"z", scale[2]}}}, {"color", rgba}};
  nlohmann::json entity = {{"timestamp", stamp(stampNs)},
                           {"frame_id", name},
                           {"id", name},
                           {"lifetime", {{"sec", 0}, {"nsec", 0}}},
                           {"frame_locked", true},
                           {"metadata", nlohmann::json::array({{{"key", "model"}, {"value", model}}})},
                           {"arrows", nlohmann::json::array()},
                           {"cubes", nlohmann::json::array()},
                           {"spheres", nlohmann::json::array()},
                           {"cylinders", nlohmann::json::array()},
                           {"lines", nlohmann::json::array()},
                           {"triangles", nlohmann::json::array()},
                           {"texts", nlohmann::json::array()},
                           {"models", nlohmann::json::array()}};
  if (model == "sphere") {
    entity["spheres"].push_back(primitive);
  } else if (model == "cylinder") {
    primitive["bottom_scale"] = 1.0;
    primitive["top_scale"] = 1.0;
    entity["cylinders"].push_back(primitive);
  } else {
    entity["cubes"].push_back(primitive);
  }
  nlohmann::json labelPose = identityPose();
  labelPose["position"]["z"] = scale[2] / 2 + 0.05;  // just above the object
  entity["texts"].push_back({{"pose", labelPose},
                             {"billboard", true},
                             {"font_size", 14.0},
                             {"scale_invariant", true},
                             {"color", {{"r", 1.0}, {"g", 1.0}, {"b", 1.0}, {"a", 1.0}}},
                             {"text", name}});
  return entity;
}

namespace {

nlohmann::json objectOf(nlohmann::json properties) { return {{"type", "object"}, {"properties", std::move(properties)}}; }
nlohmann::json numbers(std::initializer_list<const char*> names) {
  nlohmann::json properties = nlohmann::json::object();
  for (const char* name : names) properties[name] = {{"type", "number"}};
  return objectOf(properties);
}
nlohmann::json timeSchema() { return numbers({"sec", "nsec"}); }
nlohmann::json poseSchema() {
  return objectOf({{"position", numbers({"x", "y", "z"})}, {"orientation", numbers({"x", "y", "z", "w"})}});
}
nlohmann::json listOf(nlohmann::json item) { return {{"type", "array"}, {"items", std::move(item)}}; }

}  // namespace

std::string frameTransformsSchema() {
  const nlohmann::json transform = objectOf({{"timestamp", timeSchema()},
                                             {"parent_frame_id", {{"type", "string"}}},
                                             {"child_frame_id", {{"type", "string"}}},
                                             {"translation", numbers({"x", "y", "z"})},
                                             {"rotation", numbers({"x", "y", "z", "w"})}});
  return objectOf({{"transforms", listOf(transform)}}).dump();
}

std::string sceneUpdateSchema() {
  const nlohmann::json color = numbers({"r", "g", "b", "a"});
  const nlohmann::json size = numbers({"x", "y", "z"});
  const nlohmann::json shape = objectOf({{"pose", poseSchema()}, {"size", size}, {"color", color}});
  nlohmann::json cylinder = shape;
  cylinder["properties"]["bottom_scale"] = {{"type", "number"}};
  cylinder["properties"]["top_scale"] = {{"type", "number"}};
  const nlohmann::json text = objectOf({{"pose", poseSchema()},
                                        {"billboard", {{"type", "boolean"}}},
                                        {"font_size", {{"type", "number"}}},
                                        {"scale_invariant", {{"type", "boolean"}}},
                                        {"color", color},
                                        {"text", {{"type", "string"}}}});
  const nlohmann::json entity =
      objectOf({{"timestamp", timeSchema()},
                {"frame_id", {{"type", "string"}}},
                {"id", {{"type", "string"}}},
                {"lifetime", timeSchema()},
                {"frame_locked", {{"type", "boolean"}}},
                {"metadata", listOf(objectOf({{"key", {{"type", "string"}}}, {"value", {{"type", "string"}}}}))},
                {"cubes", listOf(shape)},
                {"spheres", listOf(shape)},
                {"cylinders", listOf(cylinder)},
                {"texts", listOf(text)}});
  const nlohmann::json deletion =
      objectOf({{"timestamp", timeSchema()}, {"type", {{"type", "integer"}}}, {"id", {{"type", "string"}}}});
  return objectOf({{"deletions", listOf(deletion)}, {"entities", listOf(entity)}}).dump();
}

}  // namespace foxglove
}  // namespace net
}  // namespace KQ
