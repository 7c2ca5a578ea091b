// The stream forwarders that the library's relay is compared with.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// Each forwards 127.0.0.1:`from` to `to`:`to_port`, configured as its manual recommends.
std::vector<std::string> SocatCommand(std::uint16_t from, const std::string& to,
                                      std::uint16_t to_port);
std::vector<std::string> HaproxyCommand(const std::string& folder, std::uint16_t from,
                                        const std::string& to, std::uint16_t to_port);

}  // namespace bench
