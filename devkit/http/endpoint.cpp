#include "http/endpoint.h"

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <cctype>
#include <charconv>

namespace http {
namespace {

using boost::asio::ip::address;
using boost::asio::ip::make_address;

bool ParseAddress(std::string_view text, address* found) {
  boost::system::error_code error;
  *found = make_address(std::string(text), error);
  return !error;
}

bool ParsePort(std::string_view text, uint16_t* port) {
  const char* const end = text.data() + text.size();
  const auto [at, error] = std::from_chars(text.data(), end, *port);
  return error == std::errc() && at == end;
}

// "[::1]:80" and "name:80" without the port, and without the brackets. A text with several colons
// and no brackets is an address as a whole.
std::string_view WithoutPort(std::string_view host) {
  if (!host.empty() && host.front() == '[') {
    const size_t end = host.find(']');
    return end == std::string_view::npos ? "" : host.substr(1, end - 1);
  }
  const size_t colon = host.find(':');
  return host.find(':', colon + 1) == std::string_view::npos ? host.substr(0, colon) : host;
}

bool SameName(std::string_view a, std::string_view b) {
  const auto same = [](unsigned char x, unsigned char y) {
    return std::tolower(x) == std::tolower(y);
  };
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), same);
}

}  // namespace

std::string ParseEndpoint(const std::string& text, bool remote, Endpoint* endpoint) {
  const size_t colon = text.rfind(':');
  address found;
  const bool is_right = colon != std::string::npos &&
                        ParseAddress(WithoutPort(std::string_view(text)), &found) &&
                        ParsePort(std::string_view(text).substr(colon + 1), &endpoint->port);
  if (!is_right) return "'" + text + "' is not ADDRESS:PORT";
  if (!found.is_loopback() && !remote) {
    return "other machines may reach " + found.to_string() + ": say --allow-remote if they shall";
  }
  endpoint->address = found.to_string();
  return "";
}

std::string UrlOf(const Endpoint& endpoint) {
  const bool is_v6 = endpoint.address.find(':') != std::string::npos;
  const std::string host = is_v6 ? '[' + endpoint.address + ']' : endpoint.address;
  return "http://" + host + ":" + std::to_string(endpoint.port) + "/";
}

bool IsAllowedHost(std::string_view host, const std::vector<std::string>& names) {
  const std::string_view name = WithoutPort(host);
  address any;
  if (ParseAddress(name, &any) || SameName(name, "localhost")) return true;
  return std::any_of(names.begin(), names.end(),
                     [&](const std::string& allowed) { return SameName(name, allowed); });
}

}  // namespace http
