#include "middleware/net/http_session.h"

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

}  // namespace

HttpSession::HttpSession(asio::ip::tcp::socket socket, ServerContext& context)
    : stream_(std::move(socket)),
      context_(context),
      guard_(context.options.token, context.port, ownHostsOf(stream_.socket(), context.options.host)) {}

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
  stream_.expires_after(std::chrono::seconds(context_.options.idleTimeoutSeconds));
  http::async_read_header(stream_, buffer_, *parser_,
                          [self = shared_from_this()](beast::error_code ec, std::size_t) { self->onHeader(ec); });
}

void HttpSession::onHeader(beast::error_code ec) {
  if (closed_) return;
  if (ec) {
    // end_of_stream: the client is done; timeout: idle; anything else is a
    // malformed request, which gets no more of our time than a close.
    if (ec == http::error::header_limit) return refuse(http::status::request_header_fields_too_large,
                                                        "Request header too large.");
    return close();
  }
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

  if (beast::iequals(request[http::field::expect], "100-continue")) {
    // curl and others wait for this before sending a larger body.
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
  http::async_read(stream_, buffer_, *parser_,
                   [self = shared_from_this()](beast::error_code ec, std::size_t) { self->onBody(ec); });
}

void HttpSession::onBody(beast::error_code ec) {
  if (closed_) return;
  if (ec == http::error::body_limit)
    return refuse(http::status::payload_too_large,
                   "Message larger than " + std::to_string(context_.options.maxMessageBytes) + " bytes.");
  if (ec) return close();

  // No timer while the call runs: a call may wait on a module's lock for as
  // long as it takes.
  stream_.expires_never();
  Request request = parser_->release();
  const bool keepAlive = request.keep_alive();
  const unsigned version = request.version();
  auto self = shared_from_this();
  const bool posted = context_.pool.post([self, body = std::move(request.body()), keepAlive, version]() mutable {
    std::string reply = self->context_.dispatcher.handle(body, nullptr);
    asio::post(self->stream_.get_executor(), [self, reply = std::move(reply), keepAlive, version]() mutable {
      // A notification has nothing to answer.
      auto response = std::make_shared<Response>(reply.empty() ? http::status::no_content : http::status::ok,
                                                 version);
      if (!reply.empty()) response->set(http::field::content_type, "application/json");
      response->body() = std::move(reply);
      response->keep_alive(keepAlive);
      response->prepare_payload();
      self->send(std::move(response));
    });
  });
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
  // An upgrade request has no body; reading "the rest" finishes the parser.
  http::async_read(stream_, buffer_, *parser_, [self = shared_from_this(), foxglove](beast::error_code ec, std::size_t) {
    if (self->closed_) return;
    if (ec) return self->close();
    self->closed_ = true;  // the socket now belongs to the WebSocket session
    self->stream_.expires_never();
    if (foxglove) {
      auto session = std::make_shared<FoxgloveSession>(std::move(self->stream_), self->context_);
      return session->run(self->parser_->release());
    }
    auto session = std::make_shared<WebSocketSession>(std::move(self->stream_), self->context_);
    session->run(self->parser_->release());
  });
}

void HttpSession::refuse(http::status status, const std::string& text, bool closeAfter) {
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
  stream_.expires_after(std::chrono::seconds(2));
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
