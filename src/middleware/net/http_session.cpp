#include "middleware/net/http_session.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <limits>
#include <utility>

#include <boost/asio/post.hpp>
#include <boost/beast/websocket.hpp>

#include "middleware/net/foxglove_session.h"
#include "middleware/net/static_files.h"
#include "middleware/net/websocket_session.h"

namespace KQ {
namespace net {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;

namespace {

std::vector<std::string> ownHostsOf(const asio::ip::tcp::socket& socket, const std::string& boundHost) {
  std::vector<std::string> hosts{boundHost};
  beast::error_code ec;
  const auto local = socket.local_endpoint(ec);
  if (!ec) hosts.push_back(local.address().to_string());
  return hosts;
}

std::string_view view(beast::string_view text) { return std::string_view(text.data(), text.size()); }

std::string peerOf(const asio::ip::tcp::socket& socket) {
  beast::error_code ec;
  const auto remote = socket.remote_endpoint(ec);
  return ec ? std::string("a client") : remote.address().to_string();
}

// Room in the read buffer beyond the header limit: a header at the limit
// still fits with the start of its body.
constexpr std::size_t kBufferSlack = 4096;

}  // namespace

HttpSession::HttpSession(asio::ip::tcp::socket socket, ServerContext& context, BudgetShare connectionShare)
    : stream_(std::move(socket)),
      context_(context),
      connectionShare_(std::move(connectionShare)),
      peer_(peerOf(stream_.socket())),
      buffer_(context.options.maxHeaderBytes + kBufferSlack),
      guard_(context.options.token, context.port, ownHostsOf(stream_.socket(), context.options.host)) {
  onChunkHeader_ = [this](std::uint64_t size, beast::string_view extensions, beast::error_code& ec) {
    framingBytes_ += extensions.size();
    if (size == 0) inTrailer_ = true;
    if (framingBytes_ > context_.options.maxHeaderBytes) ec = http::error::bad_chunk_extension;
  };
}

HttpSession::~HttpSession() { context_.connections.remove(this); }

void HttpSession::run() {
  context_.connections.add(this, shared_from_this());
  readHeader();
}

void HttpSession::shutdown() { close(); }

void HttpSession::close() {
  if (closed_) return;
  closed_ = true;
  beast::error_code ec;
  stream_.socket().shutdown(asio::ip::tcp::socket::shutdown_both, ec);
  stream_.close();
}

void HttpSession::readHeader() {
  if (closed_) return;
  parser_.emplace();
  // The size is judged by onHeader once the request is known to be allowed
  // at all (a 401 comes before a 413); the body limit is set after that.
  // (Not boost::none: Beast 1.74 compares a length against it as smaller
  // than any number.)
  parser_->body_limit(std::numeric_limits<std::uint64_t>::max());
  parser_->header_limit(static_cast<std::uint32_t>(
      std::min<std::size_t>(context_.options.maxHeaderBytes, std::numeric_limits<std::uint32_t>::max())));
  parser_->on_chunk_header(onChunkHeader_);
  phase_ = Phase::Header;
  headerBytes_ = 0;
  framingBytes_ = 0;
  inTrailer_ = false;
  // A kept-alive connection may wait the idle time for its next request;
  // once a byte of it is here, the request timeout runs (see onRead). A new
  // connection owes its first request at once: a silent one holds a
  // connection slot no longer than the request timeout.
  requestStarted_ = buffer_.size() > 0 || !servedOne_;
  stream_.expires_after(std::chrono::seconds(requestStarted_ ? context_.options.requestTimeoutSeconds
                                                             : context_.options.idleTimeoutSeconds));
  if (requestStarted_) return parseBuffered();
  readMore();
}

void HttpSession::readMore() {
  if (closed_) return;
  const std::size_t room = buffer_.max_size() - buffer_.size();
  if (room == 0) {
    // A line longer than the whole buffer: a header field or a chunk line.
    if (phase_ == Phase::Header)
      return refuse(http::status::request_header_fields_too_large, "Request header too large.");
    return refuse(http::status::bad_request, "Chunk line or trailer too large.");
  }
  stream_.async_read_some(buffer_.prepare(std::min<std::size_t>(room, 65536)),
                          [self = shared_from_this()](beast::error_code ec, std::size_t bytes) {
                            self->onRead(ec, bytes);
                          });
}

void HttpSession::onRead(beast::error_code ec, std::size_t bytes) {
  if (closed_) return;
  // end of stream: the client is done; timeout: idle or too slow; a reset.
  if (ec) return close();
  buffer_.commit(bytes);
  if (!requestStarted_ && bytes > 0) {
    requestStarted_ = true;
    stream_.expires_after(std::chrono::seconds(context_.options.requestTimeoutSeconds));
  }
  parseBuffered();
}

void HttpSession::parseBuffered() {
  const std::size_t maxHeader = context_.options.maxHeaderBytes;
  while (!closed_) {
    // A request without a body (or a body already read whole) needs no more bytes.
    if (phase_ == Phase::Body && parser_->is_done()) {
      phase_ = Phase::Done;
      return onBody();
    }
    if (buffer_.size() == 0) return readMore();
    beast::error_code ec;
    const std::size_t used = parser_->put(buffer_.data(), ec);
    buffer_.consume(used);
    if (phase_ == Phase::Header) headerBytes_ += used;
    if (inTrailer_) framingBytes_ += used;
    if (phase_ == Phase::Header && headerBytes_ > maxHeader)
      return refuse(http::status::request_header_fields_too_large, "Request header too large.");
    if (framingBytes_ > maxHeader || ec == http::error::bad_chunk_extension)
      return refuse(http::status::bad_request,
                    "Chunk extensions and trailer larger than " + std::to_string(maxHeader) + " bytes.");
    if (ec == http::error::need_more) return readMore();
    if (ec == http::error::header_limit)
      return refuse(http::status::request_header_fields_too_large, "Request header too large.");
    if (ec == http::error::body_limit)
      return refuse(http::status::payload_too_large,
                    "Message larger than " + std::to_string(context_.options.maxMessageBytes) + " bytes.");
    // A malformed request gets no more of our time than a close.
    if (ec) return close();
    if (phase_ == Phase::Header && parser_->is_header_done()) {
      phase_ = Phase::Body;
      return onHeader();
    }
    if (parser_->is_done()) {
      phase_ = Phase::Done;
      return onBody();
    }
    if (used == 0) return readMore();
  }
}

void HttpSession::onHeader() {
  if (closed_) return;
  servedOne_ = true;
  const auto& request = parser_->get();
  const auto originField = request.find(http::field::origin);
  std::string_view origin;
  if (originField != request.end()) origin = view(originField->value());
  if (!guard_.originAllowed(originField != request.end() ? &origin : nullptr))
    return refuse(http::status::forbidden, "Requests from another site's page are refused.");
  const std::string_view path = targetPath(view(request.target()));
  // The viewer's files hold no world data and a browser cannot put the token
  // on the scripts a page imports: they are served without it (the page
  // passes the token of its own address on to its WebSocket).
  if (StaticFiles::handles(path) && request.method() == http::verb::get) return serveStatic(path);
  if (!guard_.authorized(view(request[http::field::authorization]), view(request.target())))
    return refuse(http::status::unauthorized, "A valid token is required.");

  if (path == "/ws" || path == "/foxglove") {
    if (!beast::websocket::is_upgrade(request))
      return refuse(http::status::bad_request, "GET " + std::string(path) + " expects a WebSocket upgrade.");
    // An upgrade has no body; one that declares one would be read into
    // memory before the handshake.
    if (parser_->chunked() || parser_->content_length() || !parser_->is_done())
      return refuse(http::status::bad_request, "A WebSocket upgrade has no body.");
    return upgrade(path == "/foxglove");
  }
  if (path != "/rpc") return refuse(http::status::not_found, "Not found: use POST /rpc or GET /ws.");
  if (request.method() != http::verb::post) {
    auto response = std::make_shared<Response>(http::status::method_not_allowed, request.version());
    response->set(http::field::allow, "POST");
    response->set(http::field::content_type, "text/plain");
    response->body() = "POST /rpc only.";
    response->keep_alive(false);
    response->prepare_payload();
    return send(std::move(response));
  }
  if (!isJsonContentType(view(request[http::field::content_type])))
    return refuse(http::status::unsupported_media_type, "POST /rpc requires Content-Type: application/json.");
  const auto declared = parser_->content_length();
  if (declared && *declared > context_.options.maxMessageBytes)
    return refuse(http::status::payload_too_large,
                   "Message larger than " + std::to_string(context_.options.maxMessageBytes) + " bytes.");

  // curl and others wait for this before sending a larger body; an HTTP/1.0
  // client knows no interim answers.
  if (request.version() >= 11 && beast::iequals(request[http::field::expect], "100-continue")) {
    auto proceed = std::make_shared<http::response<http::empty_body>>(http::status::continue_, request.version());
    http::async_write(stream_, *proceed, [self = shared_from_this(), proceed](beast::error_code ec, std::size_t) {
      if (ec) return self->close();
      self->readBody();
    });
    return;
  }
  readBody();
}

void HttpSession::readBody() {
  if (closed_) return;
  // Also bounds chunked bodies, whose size shows only while they are read.
  parser_->body_limit(context_.options.maxMessageBytes);
  parseBuffered();
}

void HttpSession::onBody() {
  if (closed_) return;
  Request request = parser_->release();
  CallShare share;
  if (!context_.takeCall(request.body().size(), share)) {
    context_.logRefusal(peer_, "503 too many calls under way");
    return refuse(http::status::service_unavailable, "Too many calls under way; try again.", false);
  }
  // No timer while the call runs: a call may wait on a module's lock for as
  // long as it takes.
  stream_.expires_never();
  const bool keepAlive = request.keep_alive();
  const unsigned version = request.version();
  auto self = shared_from_this();
  auto reply = [self, keepAlive, version](std::string text) {
    asio::post(self->stream_.get_executor(), [self, text = std::move(text), keepAlive, version]() mutable {
      // A notification has nothing to answer.
      auto response = std::make_shared<Response>(text.empty() ? http::status::no_content : http::status::ok,
                                                 version);
      if (!text.empty()) response->set(http::field::content_type, "application/json");
      response->body() = std::move(text);
      response->keep_alive(keepAlive);
      response->prepare_payload();
      self->send(std::move(response));
    });
  };
  const bool posted = context_.postCall(std::move(request.body()), nullptr,
                                        std::make_shared<CallShare>(std::move(share)), std::move(reply));
  if (!posted) close();
}

void HttpSession::serveStatic(std::string_view path) {
  const auto& request = parser_->get();
  // A GET that came with a body (never read) ends the connection after the
  // answer, like any refusal.
  const bool bodyLeft = !parser_->is_done();
  // Read here, on the I/O thread: a few small files, from a local folder.
  const auto file = StaticFiles(context_.options.webRoot).find(path);
  if (!file) return refuse(http::status::not_found, "Not found.", bodyLeft);
  auto response = std::make_shared<Response>(http::status::ok, request.version());
  response->set(http::field::content_type, file->contentType);
  response->set(http::field::cache_control, "no-cache");
  response->body() = file->body;
  response->keep_alive(request.keep_alive() && !bodyLeft);
  response->prepare_payload();
  send(std::move(response));
}

void HttpSession::upgrade(bool foxglove) {
  closed_ = true;  // the socket now belongs to the WebSocket session
  stream_.expires_never();
  if (foxglove) {
    auto session = std::make_shared<FoxgloveSession>(std::move(stream_), context_, std::move(connectionShare_));
    return session->run(parser_->release());
  }
  auto session = std::make_shared<WebSocketSession>(std::move(stream_), context_, std::move(connectionShare_));
  session->run(parser_->release());
}

void HttpSession::refuse(http::status status, const std::string& text, bool closeAfter) {
  context_.logRefusal(peer_, std::to_string(static_cast<int>(status)) + " " + text);
  auto response = std::make_shared<Response>(status, parser_ ? parser_->get().version() : 11);
  response->set(http::field::content_type, "text/plain");
  if (status == http::status::unauthorized) response->set(http::field::www_authenticate, "Bearer");
  response->body() = text + "\n";
  response->keep_alive(!closeAfter);
  response->prepare_payload();
  send(std::move(response));
}

void HttpSession::send(std::shared_ptr<Response> response) {
  if (closed_) return;
  // A client that stops reading gets the idle timeout, not a stuck worker.
  stream_.expires_after(std::chrono::seconds(context_.options.idleTimeoutSeconds));
  http::async_write(stream_, *response, [self = shared_from_this(), response](beast::error_code ec, std::size_t) {
    if (ec) return self->close();
    if (!response->keep_alive()) return self->lingerClose();
    self->readHeader();
  });
}

void HttpSession::lingerClose() {
  if (closed_) return;
  beast::error_code ignored;
  stream_.socket().shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
  // Enough for the client to see the answer and stop; a client that goes on
  // sending is cut off after the limit or the pause.
  constexpr std::size_t kMaxDiscard = 4u << 20;
  // Armed once: a client trickling bytes does not push the end back.
  if (!lingering_) stream_.expires_after(std::chrono::seconds(2));
  lingering_ = true;
  auto scratch = std::make_shared<std::array<char, 16384>>();
  stream_.async_read_some(asio::buffer(*scratch), [self = shared_from_this(), scratch](beast::error_code ec,
                                                                                        std::size_t bytes) {
    self->discarded_ += bytes;
    if (ec || self->discarded_ > kMaxDiscard) return self->close();
    self->lingerClose();
  });
}

}  // namespace net
}  // namespace KQ
