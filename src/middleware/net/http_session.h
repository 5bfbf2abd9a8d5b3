// HttpSession: one HTTP/1.1 connection to the RPC server. Reads each request
// header first and judges it (Origin 403, token 401, path 404/405, content
// type 415, declared size 413) before reading any body; runs POST /rpc bodies
// on the worker pool; hands GET /ws upgrades to a WebSocketSession and GET /foxglove ones to a
// FoxgloveSession; serves the viewer's files at GET / (StaticFiles).
//
// Reading is done here, byte counts in hand, rather than by Beast's read
// loops: the header bytes of a request are counted across reads (Beast's
// limit holds per read only), and so are a chunked body's extensions and
// trailers; the read buffer never grows past the header limit plus a little,
// so a line that never ends is refused instead of held; a request must
// arrive whole within the request timeout of its first byte.
//
// Invariants: at most one request is read or answered at a time (HTTP/1.1
// without pipelining of calls); no timer runs while a call is on a worker,
// so a slow call is never cut off, while a silent client is after the idle
// timeout; a refused request whose body was not read closes the connection,
// after a linger with an absolute end. The session holds one share of the
// connection budget, which an upgrade hands on to the WebSocket session.
//
// Threading: every member runs on the I/O thread except the worker job,
// which touches only the dispatcher and posts its reply back.
#ifndef KQ_MIDDLEWARE_NET_HTTP_SESSION_H_
#define KQ_MIDDLEWARE_NET_HTTP_SESSION_H_

#include <cstdint>
#include <functional>
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
  HttpSession(boost::asio::ip::tcp::socket socket, ServerContext& context, BudgetShare connectionShare);
  ~HttpSession() override;

  void run();
  void shutdown() override;

 private:
  using Request = boost::beast::http::request<boost::beast::http::string_body>;
  using Response = boost::beast::http::response<boost::beast::http::string_body>;

  enum class Phase { Header, Body, Done };

  void readHeader();  // starts the next request
  void readMore();    // reads once more into buffer_, then parses
  void onRead(boost::beast::error_code ec, std::size_t bytes);
  void parseBuffered();  // feeds buffer_ to the parser, judging each limit
  void onHeader();
  void readBody();
  void onBody();
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
  ServerContext& context_;
  BudgetShare connectionShare_;
  std::string peer_;  // the client's address, for the log
  boost::beast::flat_buffer buffer_;  // bounded: see the constructor
  // Counts chunk extensions; the parser holds a reference, so it outlives it.
  std::function<void(std::uint64_t, boost::beast::string_view, boost::beast::error_code&)> onChunkHeader_;
  std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> parser_;
  RequestGuard guard_;
  Phase phase_ = Phase::Header;
  bool requestStarted_ = false;    // a byte of the current request arrived
  bool servedOne_ = false;         // a whole header was read on this connection
  std::size_t headerBytes_ = 0;    // of the current request
  std::size_t framingBytes_ = 0;   // chunk extensions and trailer of the current request
  bool inTrailer_ = false;         // the last chunk was read
  bool closed_ = false;
  bool lingering_ = false;
  std::size_t discarded_ = 0;  // bytes dropped while lingering
};

}  // namespace net
}  // namespace KQ

#endif  // KQ_MIDDLEWARE_NET_HTTP_SESSION_H_
