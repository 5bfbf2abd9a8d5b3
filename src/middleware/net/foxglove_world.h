// FoxgloveWorld: what the Foxglove endpoint shows of the world, read by name
// through the broker (the world model's getChildrenNames, getPosition and
// getObjectLatestAttributes, the memory module's display list), so that the
// network front never links the world model itself, and the mapping of
// frames and Display attributes to Foxglove's "foxglove.FrameTransform" and
// "foxglove.SceneEntity" messages (JSON encoding).
//
// Mapping: one transform per frame, parent_frame_id its parent's name and
// the child's pose in the parent; one entity per displayed object, id and
// frame_id its name, frame_locked, one primitive at the identity pose sized
// by scaleX/Y/Z and coloured by colorR/G/B ("box" or anything unknown a
// cube, "sphere", "cylinder") and a text label with the name.
//
// Threading: the read functions block on module calls: run them on workers.
// The pure functions run anywhere.
#ifndef KQ_MIDDLEWARE_NET_FOXGLOVE_WORLD_H_
#define KQ_MIDDLEWARE_NET_FOXGLOVE_WORLD_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace KQ {

class KQBroker;

namespace net {
namespace foxglove {

extern const char* const kWorldModule;           // "KQWorldRepresentation"
extern const char* const kDisplayEvent;          // ".../DisplayRequired"
extern const char* const kPositionEvent;         // ".../PositionChanged"
extern const char* const kAttributeEvent;        // ".../AttributeChanged"

struct Frame {
  std::string name;
  std::string parent;
  double rotation[4] = {1, 0, 0, 0};  // w, x, y, z: the child in its parent
  double translation[3] = {0, 0, 0};  // metres
  bool posed = true;                  // false: a known frame whose pose was not read
};

// Every frame below "World" (parents before children), or only "Robot" and
// what hangs below it when robotOnly. A frame in known under the same parent
// is listed without reading its pose (posed false): its moves come as events.
std::vector<Frame> readFrames(KQBroker& broker, bool robotOnly,
                              const std::map<std::string, std::string>& known = {});
// Whether the world's frames are other than "World" and the keys of known.
bool namesChanged(KQBroker& broker, const std::map<std::string, std::string>& known);
// The current display list.
std::vector<std::string> readDisplayList(KQBroker& broker);
// The entity of a displayed object from its latest Display attribute
// (defaults: grey box 0.1 m when it has none); stampNs: its timestamp.
nlohmann::json readEntity(KQBroker& broker, const std::string& name, uint64_t stampNs);

nlohmann::json transformJson(const Frame& frame, uint64_t stampNs);
nlohmann::json deletionJson(const std::string& name, uint64_t stampNs);
// Display fields: colour 0..1, size in metres, model name.
nlohmann::json entityJson(const std::string& name, const double color[3], const double scale[3],
                          const std::string& model, uint64_t stampNs);
// The JSON schemas of the two channels (schemaEncoding "jsonschema").
std::string frameTransformsSchema();
std::string sceneUpdateSchema();

}  // namespace foxglove
}  // namespace net
}  // namespace KQ

#endif  // KQ_MIDDLEWARE_NET_FOXGLOVE_WORLD_H_
