// HttpSession: one HTTP/1.1 connection to the RPC server. Reads each request
// header first and judges it (Origin 403, token 401, path 404/405, content
// type 415, declared size 413) before reading any body; runs POST /rpc bodies
// on the worker pool; hands GET /ws upgrades to a WebSocketSession and GET /foxglove ones to a
// FoxgloveSession; serves the viewer's files at GET / (StaticFiles).
//
// Invariants: at most one request is read or answered at a time (HTTP/1.1
// without pipelining of calls); no timer runs while a call is on a worker,
// so a slow call is never cut off, while a silent client is after the idle
// timeout; a refused request whose body was not read closes the connection.
//
// Threading: every member runs on the I/O thread except the worker job,
// which touches only the dispatcher and posts its reply back.
#ifndef KQ_MIDDLEWARE_NET_HTTP_SESSION_H_
#define KQ_MIDDLEWARE_NET_HTTP_SESSION_H_

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include "middleware/net/request_guard.h"
#include "middleware/net/server_context.h"

namespace KQ {
namespace net {

class HttpSession : public Connection, public std::enable_shared_from_this<HttpSession> {
 public:
  HttpSession(boost::asio::ip::tcp::socket socket, ServerContext& context);
  ~HttpSession() override;

  void run();
  void shutdown() override;

 private:
  using Request = boost::beast::http::request<boost::beast::http::string_body>;
  using Response = boost::beast::http::response<boost::beast::http::string_body>;

  void readHeader();
  void onHeader(boost::beast::error_code ec);
  void readBody();
  void onBody(boost::beast::error_code ec);
  // GET / and the viewer's files (StaticFiles), answered without the token.
  void serveStatic(std::string_view path);
  // Hands the socket to a WebSocketSession (/ws) or a FoxgloveSession (/foxglove).
  void upgrade(bool foxglove);
  // A plain-text answer; closes the connection after it when closeAfter.
  void refuse(boost::beast::http::status status, const std::string& text, bool closeAfter = true);
  void send(std::shared_ptr<Response> response);
  // After a refusal whose body was never read: stop sending, read and drop
  // what the client still sends for a while, then close. Closing at once
  // would reset the connection, and the client would lose the answer.
  void lingerClose();
  void close();

  boost::beast::tcp_stream stream_;
  boost::beast::flat_buffer buffer_;
  std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> parser_;
  ServerContext& context_;
  RequestGuard guard_;
  bool closed_ = false;
  std::size_t discarded_ = 0;  // bytes dropped while lingering
};

}  // namespace net
}  // namespace KQ

#endif  // KQ_MIDDLEWARE_NET_HTTP_SESSION_H_
