#include "middleware/net/foxglove_session.h"

#include <algorithm>
#include <random>
#include <sstream>
#include <utility>

#include <boost/asio/post.hpp>

#include "middleware/broker.h"
#include "middleware/log.h"
#include "middleware/net/json_codec.h"
#include "middleware/proxy.h"

namespace KQ {
namespace net {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;

namespace {

const char* const kLogCategory = "KQRpcServer";
const char* const kProtocols[] = {"foxglove.websocket.v1", "foxglove.sdk.v1"};
// The kernel keeps little of a slow client's backlog: what waits, waits in
// our coalescing queues, where only the newest of each frame is kept.
constexpr int kSendBufferBytes = 64 * 1024;
constexpr std::size_t kMaxEntitiesPerMessage = 500;

uint64_t nowNs() {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
          .count());
}

// The first of our subprotocols that the client offered; empty when none.
std::string chooseProtocol(beast::string_view offered) {
  std::stringstream list{std::string(offered)};
  std::string item;
  while (std::getline(list, item, ',')) {
    item.erase(0, item.find_first_not_of(" \t"));
    item.erase(item.find_last_not_of(" \t") + 1);
    for (const char* ours : kProtocols)
      if (item == ours) return item;
  }
  return {};
}

}  // namespace

const std::string& FoxgloveSession::processSessionId() {
  static const std::string id = [] {
    std::random_device random;
    std::ostringstream out;
    out << std::hex << nowNs() << "-" << random();
    return out.str();
  }();
  return id;
}

FoxgloveSession::FoxgloveSession(beast::tcp_stream&& stream, ServerContext& context, BudgetShare connectionShare)
    : ws_(std::move(stream)),
      context_(context),
      connectionShare_(std::move(connectionShare)),
      timer_(ws_.get_executor()) {}

FoxgloveSession::~FoxgloveSession() {
  context_.connections.remove(this);
  dropEvents();
}

void FoxgloveSession::run(http::request<http::string_body> request) {
  context_.connections.add(this, shared_from_this());
  const std::string protocol = chooseProtocol(request[http::field::sec_websocket_protocol]);
  if (protocol.empty()) {
    // Foxglove's clients always offer one; anything else is not one of them.
    auto response = std::make_shared<http::response<http::string_body>>(http::status::bad_request, request.version());
    response->set(http::field::content_type, "text/plain");
    response->body() = "GET /foxglove needs the subprotocol foxglove.websocket.v1 or foxglove.sdk.v1.\n";
    response->keep_alive(false);
    response->prepare_payload();
    http::async_write(beast::get_lowest_layer(ws_), *response,
                      [self = shared_from_this(), response](beast::error_code, std::size_t) { self->finish(); });
    return;
  }
  websocket::stream_base::timeout timeout;
  timeout.handshake_timeout = std::chrono::seconds(30);
  timeout.idle_timeout = std::chrono::seconds(context_.options.idleTimeoutSeconds);
  timeout.keep_alive_pings = true;
  ws_.set_option(timeout);
  ws_.set_option(websocket::stream_base::decorator(
      [protocol](websocket::response_type& response) { response.set(http::field::sec_websocket_protocol, protocol); }));
  ws_.read_message_max(context_.options.maxMessageBytes);
  beast::error_code ignored;
  beast::get_lowest_layer(ws_).socket().set_option(asio::socket_base::send_buffer_size(kSendBufferBytes), ignored);
  ws_.async_accept(request, [self = shared_from_this()](beast::error_code ec) {
    if (ec) return self->finish();
    self->queueText(nlohmann::json{{"op", "serverInfo"},
                                   {"name", "kqworldrepresentation"},
                                   {"capabilities", nlohmann::json::array()},
                                   {"supportedEncodings", nlohmann::json::array()},
                                   {"metadata", nlohmann::json::object()},
                                   {"sessionId", processSessionId()}}
                        .dump());
    nlohmann::json channels = nlohmann::json::array();
    channels.push_back({{"id", kTfChannel},
                        {"topic", "/tf"},
                        {"encoding", "json"},
                        {"schemaName", "foxglove.FrameTransforms"},
                        {"schema", foxglove::frameTransformsSchema()},
                        {"schemaEncoding", "jsonschema"}});
    channels.push_back({{"id", kSceneChannel},
                        {"topic", "/scene"},
                        {"encoding", "json"},
                        {"schemaName", "foxglove.SceneUpdate"},
                        {"schema", foxglove::sceneUpdateSchema()},
                        {"schemaEncoding", "jsonschema"}});
    self->queueText(nlohmann::json{{"op", "advertise"}, {"channels", channels}}.dump());
    self->subscribeEvents();
    self->tick();
    self->read();
  });
}

void FoxgloveSession::shutdown() { finish(); }

void FoxgloveSession::read() {
  ws_.async_read(buffer_, [self = shared_from_this()](beast::error_code ec, std::size_t) {
    if (self->finished_) return;
    if (ec) return self->finish();
    const bool text = self->ws_.got_text();
    std::string message = beast::buffers_to_string(self->buffer_.data());
    self->buffer_.consume(self->buffer_.size());
    if (text) self->onText(message);
    self->read();
  });
}

void FoxgloveSession::onText(const std::string& text) {
  nlohmann::json message;
  if (parseJson(text, message) != ParseOutcome::Ok || !message.is_object()) return;
  const std::string op = message.value("op", "");
  if (op == "subscribe" && message.contains("subscriptions")) return subscribe(message["subscriptions"]);
  if (op == "unsubscribe" && message.contains("subscriptionIds") && message["subscriptionIds"].is_array()) {
    for (const auto& id : message["subscriptionIds"])
      if (id.is_number_unsigned()) subscriptions_.erase(id.get<uint32_t>());
  }
}

void FoxgloveSession::subscribe(const nlohmann::json& subscriptions) {
  if (!subscriptions.is_array()) return;
  bool tf = false;
  bool scene = false;
  for (const auto& subscription : subscriptions) {
    if (!subscription.is_object()) continue;
    const auto id = subscription.find("id");
    const auto channel = subscription.find("channelId");
    if (id == subscription.end() || channel == subscription.end() || !id->is_number_unsigned() ||
        !channel->is_number_unsigned())
      continue;
    const uint32_t channelId = channel->get<uint32_t>();
    if (channelId != kTfChannel && channelId != kSceneChannel) continue;
    subscriptions_[id->get<uint32_t>()] = channelId;
    (channelId == kTfChannel ? tf : scene) = true;
  }
  // The snapshot: a client that joins sees the world at once.
  if (tf) {
    readWorld([](KQBroker& broker) {
      auto frames = foxglove::readFrames(broker, false);
      return [frames = std::move(frames)](FoxgloveSession& self) { self.applyFrames(frames, true); };
    });
  }
  if (scene) {
    readWorld([](KQBroker& broker) {
      std::vector<std::string> names = foxglove::readDisplayList(broker);
      std::vector<nlohmann::json> entities;
      for (const auto& name : names) entities.push_back(foxglove::readEntity(broker, name, nowNs()));
      return [names = std::move(names), entities = std::move(entities)](FoxgloveSession& self) {
        self.displayed_.insert(names.begin(), names.end());
        for (std::size_t i = 0; i < names.size(); ++i) self.queueEntity(names[i], entities[i], false);
      };
    });
  }
}

void FoxgloveSession::tick() {
  if (finished_) return;
  if (subscribed(kTfChannel) && !robotReadBusy_) {
    robotReadBusy_ = true;
    readWorld([](KQBroker& broker) {
      auto frames = foxglove::readFrames(broker, true);
      return [frames = std::move(frames)](FoxgloveSession& self) {
        self.robotReadBusy_ = false;
        self.applyFrames(frames, false);
      };
    });
  }
  if (++ticks_ % kTreeEvery == 0 && !subscriptions_.empty() && !treeReadBusy_) {
    // Frames stored or cleared since: stores raise no event of their own.
    treeReadBusy_ = true;
    readWorld([known = parents_](KQBroker& broker) {
      std::vector<foxglove::Frame> frames;
      if (!foxglove::namesChanged(broker, known))
        return Apply([](FoxgloveSession& self) { self.treeReadBusy_ = false; });
      frames = foxglove::readFrames(broker, false, known);
      return Apply([frames = std::move(frames)](FoxgloveSession& self) {
        self.treeReadBusy_ = false;
        self.applyFrames(frames, true);
      });
    });
  }
  timer_.expires_after(kRobotPeriod);
  timer_.async_wait([self = shared_from_this()](beast::error_code ec) {
    if (!ec) self->tick();
  });
}

void FoxgloveSession::readWorld(WorldJob job) {
  auto self = shared_from_this();
  const bool posted = context_.pool.post([self, job = std::move(job)]() {
    Apply apply;
    try {
      apply = job(*self->context_.dispatcher.broker());
    } catch (const std::exception& e) {
      KO_LOG(ko::log::warning, kLogCategory, "", "FoxgloveSession", 0) << "Cannot read the world: " << e.what();
      // Let the next tick try again.
      apply = [](FoxgloveSession& session) { session.robotReadBusy_ = session.treeReadBusy_ = false; };
    }
    asio::post(self->ws_.get_executor(), [self, apply = std::move(apply)]() {
      if (!self->finished_) apply(*self);
    });
  });
  if (!posted) finish();
}

void FoxgloveSession::subscribeEvents() {
  auto self = shared_from_this();
  context_.pool.post([self]() {
    std::shared_ptr<KQProxy> memory;
    std::vector<uint64_t> ids;
    try {
      memory = self->context_.dispatcher.broker()->getProxy("KQMemory");
      std::weak_ptr<FoxgloveSession> weak = self;
      for (const char* event : {foxglove::kPositionEvent, foxglove::kDisplayEvent, foxglove::kAttributeEvent}) {
        ids.push_back(memory->subscribe(event, [weak](const std::string& name, const KQValue& value) {
          // Any thread: convert here, apply on the I/O thread.
          std::shared_ptr<FoxgloveSession> session = weak.lock();
          if (!session) return;
          asio::post(session->ws_.get_executor(), [session, name, json = toJson(value)]() {
            if (!session->finished_) session->onEvent(name, json);
          });
        }));
      }
    } catch (const std::exception& e) {
      KO_LOG(ko::log::warning, kLogCategory, "", "FoxgloveSession", 0) << "Cannot follow the world's events: "
                                                                       << e.what();
    }
    bool closed = false;
    {
      std::lock_guard<std::mutex> lock(self->eventMutex_);
      closed = self->eventsClosed_;
      if (!closed) {
        self->memory_ = memory;
        self->eventIds_ = ids;
      }
    }
    if (closed && memory)
      for (uint64_t id : ids) memory->unsubscribe(id);
  });
}

void FoxgloveSession::onEvent(const std::string& name, const nlohmann::json& value) {
  if (!value.is_array()) return;
  if (name == foxglove::kDisplayEvent) {
    std::vector<std::string> names;
    for (const auto& item : value)
      if (item.is_string()) names.push_back(item.get<std::string>());
    return applyDisplayList(names);
  }
  if (value.size() != 3 || !value[0].is_string()) return;
  const std::string object = value[0].get<std::string>();
  if (name == foxglove::kPositionEvent) {
    // [name, [w, x, y, z], [x, y, z]] in the parent, which the last tree
    // read named (a frame not read yet comes with the next one).
    const auto parent = parents_.find(object);
    if (parent == parents_.end() || value[1].size() != 4 || value[2].size() != 3) return;
    foxglove::Frame frame;
    frame.name = object;
    frame.parent = parent->second;
    for (int i = 0; i < 4; ++i) frame.rotation[i] = value[1][i].is_number() ? value[1][i].get<double>() : 0;
    for (int i = 0; i < 3; ++i) frame.translation[i] = value[2][i].is_number() ? value[2][i].get<double>() : 0;
    return queueTransform(frame);
  }
  if (name == foxglove::kAttributeEvent && value[1] == "Display" && displayed_.count(object)) {
    readWorld([object](KQBroker& broker) {
      auto entity = foxglove::readEntity(broker, object, nowNs());
      return [object, entity = std::move(entity)](FoxgloveSession& self) { self.queueEntity(object, entity, false); };
    });
  }
}

void FoxgloveSession::applyDisplayList(const std::vector<std::string>& names) {
  const std::set<std::string> now(names.begin(), names.end());
  for (const auto& name : displayed_)
    if (!now.count(name)) queueEntity(name, foxglove::deletionJson(name, nowNs()), true);
  std::vector<std::string> added;
  for (const auto& name : now)
    if (!displayed_.count(name)) added.push_back(name);
  displayed_ = now;
  if (added.empty()) return;
  readWorld([added](KQBroker& broker) {
    std::vector<nlohmann::json> entities;
    for (const auto& name : added) entities.push_back(foxglove::readEntity(broker, name, nowNs()));
    return [added, entities = std::move(entities)](FoxgloveSession& self) {
      for (std::size_t i = 0; i < added.size(); ++i)
        if (self.displayed_.count(added[i])) self.queueEntity(added[i], entities[i], false);
    };
  });
}

void FoxgloveSession::applyFrames(const std::vector<foxglove::Frame>& frames, bool wholeTree) {
  if (wholeTree) {
    std::map<std::string, std::string> parents;
    for (const auto& frame : frames) parents[frame.name] = frame.parent;
    // A displayed object that left the world leaves the scene.
    for (const auto& entry : parents_) {
      if (parents.count(entry.first) || !displayed_.count(entry.first)) continue;
      queueEntity(entry.first, foxglove::deletionJson(entry.first, nowNs()), true);
      displayed_.erase(entry.first);
    }
    parents_ = std::move(parents);
  }
  for (const auto& frame : frames) {
    if (!wholeTree) parents_[frame.name] = frame.parent;
    if (frame.posed) queueTransform(frame);
  }
}

bool FoxgloveSession::subscribed(uint32_t channel) const {
  return std::any_of(subscriptions_.begin(), subscriptions_.end(),
                     [channel](const auto& entry) { return entry.second == channel; });
}

void FoxgloveSession::queueText(std::string text) {
  texts_.push_back(std::move(text));
  write();
}

void FoxgloveSession::queueTransform(const foxglove::Frame& frame) {
  if (!subscribed(kTfChannel)) return;
  const bool replaced = !pendingTf_.insert_or_assign(frame.name, foxglove::transformJson(frame, nowNs())).second;
  if (replaced) ++dropped_;
  write();
}

void FoxgloveSession::queueEntity(const std::string& name, nlohmann::json entityOrDeletion, bool deletion) {
  if (!subscribed(kSceneChannel)) return;
  pendingScene_[name] = {deletion, std::move(entityOrDeletion)};
  write();
}

std::string FoxgloveSession::messageData(uint32_t subscription, const nlohmann::json& payload) const {
  std::string out(13, '\0');
  out[0] = 0x01;
  for (int i = 0; i < 4; ++i) out[1 + i] = static_cast<char>((subscription >> (8 * i)) & 0xff);
  const uint64_t time = nowNs();
  for (int i = 0; i < 8; ++i) out[5 + i] = static_cast<char>((time >> (8 * i)) & 0xff);
  out += payload.dump();
  return out;
}

void FoxgloveSession::fillOutgoing() {
  if (!texts_.empty()) {
    outgoing_.emplace_back(false, std::move(texts_.front()));
    texts_.pop_front();
    return;
  }
  if (dropped_ > 0 && std::chrono::steady_clock::now() - lastWarning_ >= std::chrono::seconds(1)) {
    lastWarning_ = std::chrono::steady_clock::now();
    outgoing_.emplace_back(false, nlohmann::json{{"op", "status"},
                                                 {"level", 1},
                                                 {"message", "Reading too slowly: " + std::to_string(dropped_) +
                                                                 " older transforms were dropped; only the "
                                                                 "newest of each frame is sent."},
                                                 {"id", "kq-dropped-transforms"}}
                                      .dump());
    dropped_ = 0;
    return;
  }
  nlohmann::json payload;
  uint32_t channel = 0;
  if (!pendingScene_.empty()) {
    channel = kSceneChannel;
    payload = {{"deletions", nlohmann::json::array()}, {"entities", nlohmann::json::array()}};
    for (std::size_t n = 0; n < kMaxEntitiesPerMessage && !pendingScene_.empty(); ++n) {
      auto first = pendingScene_.begin();
      payload[first->second.first ? "deletions" : "entities"].push_back(std::move(first->second.second));
      pendingScene_.erase(first);
    }
  } else if (!pendingTf_.empty()) {
    channel = kTfChannel;
    payload = {{"transforms", nlohmann::json::array()}};
    for (auto& entry : pendingTf_) payload["transforms"].push_back(std::move(entry.second));
    pendingTf_.clear();
  } else {
    return;
  }
  for (const auto& subscription : subscriptions_)
    if (subscription.second == channel) outgoing_.emplace_back(true, messageData(subscription.first, payload));
}

void FoxgloveSession::write() {
  if (writing_ || finished_) return;
  // An update for a channel no longer subscribed yields nothing: go on to
  // the next until something is ready or nothing waits.
  while (outgoing_.empty() && (!texts_.empty() || !pendingScene_.empty() || !pendingTf_.empty() || dropped_ > 0)) {
    const bool warningDue = dropped_ > 0 && texts_.empty() && pendingScene_.empty() && pendingTf_.empty();
    fillOutgoing();
    if (warningDue && outgoing_.empty()) break;  // the warning waits for its second
  }
  if (outgoing_.empty()) return;
  writing_ = true;
  ws_.binary(outgoing_.front().first);
  ws_.async_write(asio::buffer(outgoing_.front().second), [self = shared_from_this()](beast::error_code ec,
                                                                                      std::size_t) {
    self->writing_ = false;
    if (self->finished_) return;
    if (ec) return self->finish();
    self->outgoing_.pop_front();
    self->write();
  });
}

void FoxgloveSession::finish() {
  if (finished_) return;
  finished_ = true;
  timer_.cancel();
  dropEvents();
  beast::error_code ec;
  auto& socket = beast::get_lowest_layer(ws_).socket();
  socket.shutdown(asio::ip::tcp::socket::shutdown_both, ec);
  socket.close(ec);
}

void FoxgloveSession::dropEvents() {
  std::shared_ptr<KQProxy> memory;
  std::vector<uint64_t> ids;
  {
    std::lock_guard<std::mutex> lock(eventMutex_);
    eventsClosed_ = true;
    memory.swap(memory_);
    ids.swap(eventIds_);
  }
  for (uint64_t id : ids) {
    try {
      memory->unsubscribe(id);
    } catch (const std::exception& e) {
      KO_LOG(ko::log::warning, kLogCategory, "", "FoxgloveSession", 0) << "Cannot unsubscribe: " << e.what();
    }
  }
}

}  // namespace net
}  // namespace KQ
