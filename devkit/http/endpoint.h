// Where a server listens, and by which names it may be asked.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace http {

struct Endpoint {
  std::string address;  // a number, IPv4 or IPv6
  uint16_t port = 0;    // 0: any
};

// Reads ADDRESS:PORT or [ADDRESS]:PORT. Empty, or what is wrong with it in words: an address that
// other machines can reach is refused unless `remote` is set.
std::string ParseEndpoint(const std::string& text, bool remote, Endpoint* endpoint);

// http://ADDRESS:PORT/
std::string UrlOf(const Endpoint& endpoint);

// Whether a request with that Host means this server. A page from elsewhere can have its own name
// point at this machine and then counts as the same origin, but it cannot have an address for a
// name: so addresses and "localhost" are allowed, whatever the port, and those names.
bool IsAllowedHost(std::string_view host, const std::vector<std::string>& names);

}  // namespace http
