// RequestGuard: the checks every HTTP request and WebSocket upgrade passes
// before it reaches a module: the token and the Origin of the page that sent
// it. A robot must not be driven by a web page the user happens to have open:
// a browser always names the page's site in Origin, so any Origin that is not
// this server itself (or loopback with this server's port) is refused; a
// request with no Origin comes from a program, not a page, and is let in.
//
// Invariants: the token is compared in time independent of where it differs;
// an empty token asks for none.
//
// Threading: immutable after construction; safe from any thread.
#ifndef KQ_MIDDLEWARE_NET_REQUEST_GUARD_H_
#define KQ_MIDDLEWARE_NET_REQUEST_GUARD_H_

#include <string>
#include <string_view>
#include <vector>

namespace KQ {
namespace net {

class RequestGuard {
 public:
  // ownHosts: the names this server answers to besides the loopback ones
  // (the host it was bound to, the address a connection arrived at); IPv6
  // addresses without brackets.
  RequestGuard(std::string token, unsigned short port, std::vector<std::string> ownHosts);

  // origin: the Origin header's value, absent given as nullptr.
  bool originAllowed(const std::string_view* origin) const;
  // authorization: the Authorization header's value (may be empty); target:
  // the request target, whose ?token= is read for browsers that cannot set
  // headers on a WebSocket.
  bool authorized(std::string_view authorization, std::string_view target) const;

  bool asksToken() const { return !token_.empty(); }

 private:
  bool hostIsOwn(const std::string& host) const;  // host lowercased, brackets removed

  std::string token_;
  unsigned short port_;
  std::vector<std::string> ownHosts_;
};

// Equality in time that depends only on the lengths.
bool constantTimeEquals(std::string_view a, std::string_view b);
// "/rpc?token=x" -> "/rpc".
std::string_view targetPath(std::string_view target);
// Value of one query parameter, percent-decoded; empty when absent.
std::string queryParameter(std::string_view target, std::string_view name);
// "application/json" with any parameters (charset) and in any letter case.
bool isJsonContentType(std::string_view contentType);

}  // namespace net
}  // namespace KQ

#endif  // KQ_MIDDLEWARE_NET_REQUEST_GUARD_H_
