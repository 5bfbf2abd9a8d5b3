// FoxgloveSession: one connection of Foxglove's WebSocket protocol
// (GET /foxglove, subprotocol "foxglove.websocket.v1" or "foxglove.sdk.v1",
// answered with the one the client offered). Sends serverInfo and advertises
// two JSON channels, "/tf" (foxglove.FrameTransforms) and "/scene"
// (foxglove.SceneUpdate); on subscribe sends a full snapshot of the channel,
// then the changes: moves (PositionChanged), the robot's frames at
// kRobotPeriod, objects entering or leaving the display (DisplayRequired),
// redrawn ones (AttributeChanged of "Display"), and frames that appeared or
// went (a tree check every kTreeEvery robot periods).
//
// Invariants: one write at a time. What waits to be sent is bounded per
// client: the newest transform of each frame and the newest entity or
// deletion of each object, nothing older; a client that reads slowly thus
// loses intermediate transforms, never the latest, and gets a status warning
// (level 1) each time some were dropped. Other clients are not slowed: events
// only post to each session's I/O thread.
//
// Threading: socket, queues and subscriptions belong to the I/O thread;
// world reads run on the worker pool and post their results back; event
// callbacks arrive on any thread and only post.
#ifndef KQ_MIDDLEWARE_NET_FOXGLOVE_SESSION_H_
#define KQ_MIDDLEWARE_NET_FOXGLOVE_SESSION_H_

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <nlohmann/json.hpp>

#include "middleware/net/foxglove_world.h"
#include "middleware/net/server_context.h"

namespace KQ {

class KQBroker;
class KQProxy;
class KQValue;

namespace net {

class FoxgloveSession : public Connection, public std::enable_shared_from_this<FoxgloveSession> {
 public:
  static constexpr std::chrono::milliseconds kRobotPeriod{100};
  static constexpr int kTreeEvery = 10;  // robot periods between tree checks
  static constexpr uint32_t kTfChannel = 1;
  static constexpr uint32_t kSceneChannel = 2;

  // connectionShare: this connection's part of the server's connection
  // budget, given back when the session ends.
  FoxgloveSession(boost::beast::tcp_stream&& stream, ServerContext& context, BudgetShare connectionShare);
  ~FoxgloveSession() override;

  // Completes the upgrade asked by request (400 without one of our subprotocols).
  void run(boost::beast::http::request<boost::beast::http::string_body> request);
  void shutdown() override;

  // A new id at every start of the process (serverInfo's sessionId).
  static const std::string& processSessionId();

 private:
  void read();
  void onText(const std::string& text);
  void subscribe(const nlohmann::json& subscriptions);
  void tick();
  // A world read, on a worker; what it returns is applied on the I/O thread.
  using Apply = std::function<void(FoxgloveSession&)>;
  using WorldJob = std::function<Apply(KQBroker&)>;
  void readWorld(WorldJob job);
  void subscribeEvents();
  void onEvent(const std::string& name, const nlohmann::json& value);
  void applyDisplayList(const std::vector<std::string>& names);
  void applyFrames(const std::vector<foxglove::Frame>& frames, bool wholeTree);

  // Queueing, I/O thread.
  void queueText(std::string text);
  void queueTransform(const foxglove::Frame& frame);
  void queueEntity(const std::string& name, nlohmann::json entityOrDeletion, bool deletion);
  void write();
  // Moves the next protocol text, warning or coalesced update into outgoing_.
  void fillOutgoing();
  std::string messageData(uint32_t subscription, const nlohmann::json& payload) const;
  bool subscribed(uint32_t channel) const;
  void finish();
  void dropEvents();

  boost::beast::websocket::stream<boost::beast::tcp_stream> ws_;
  boost::beast::flat_buffer buffer_;
  ServerContext& context_;
  BudgetShare connectionShare_;
  boost::asio::steady_timer timer_;

  // I/O thread only.
  std::map<uint32_t, uint32_t> subscriptions_;           // subscription id -> channel
  std::deque<std::string> texts_;                         // protocol messages, sent first
  std::map<std::string, nlohmann::json> pendingTf_;       // frame -> newest transform
  std::map<std::string, std::pair<bool, nlohmann::json>> pendingScene_;  // id -> (deletion, JSON)
  std::map<std::string, std::string> parents_;            // frame -> parent, from the last tree read
  std::set<std::string> displayed_;
  std::deque<std::pair<bool, std::string>> outgoing_;  // (binary, bytes); front is being written
  std::chrono::steady_clock::time_point lastWarning_{};
  uint64_t dropped_ = 0;  // transforms replaced before they were sent, since the last warning
  bool writing_ = false;
  bool finished_ = false;
  bool robotReadBusy_ = false;
  bool treeReadBusy_ = false;
  int ticks_ = 0;

  std::mutex eventMutex_;
  std::shared_ptr<KQProxy> memory_;        // guarded by eventMutex_
  std::vector<uint64_t> eventIds_;         // guarded by eventMutex_
  bool eventsClosed_ = false;              // guarded by eventMutex_
};

}  // namespace net
}  // namespace KQ

#endif  // KQ_MIDDLEWARE_NET_FOXGLOVE_SESSION_H_
