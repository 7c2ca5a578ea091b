// The IP and ICMP headers that raw sockets see.
#pragma once
#include <cstdint>
#include <string>

#include "port/sim/network.h"

namespace sim {

constexpr size_t kIpHeaderSize = 20;
constexpr size_t kIcmpHeaderSize = 8;
constexpr uint8_t kIcmpEchoReply = 0;
constexpr uint8_t kIcmpUnreachable = 3;
constexpr uint8_t kIcmpEchoRequest = 8;
constexpr uint8_t kIcmpPortUnreachable = 3;  // a code of kIcmpUnreachable

// The Internet checksum. It is 0 for a message that contains its own correct checksum.
uint16_t Checksum(std::string_view bytes);

// An IP header of 20 bytes for a payload of that size.
std::string IpHeader(uint8_t protocol, uint32_t from, uint32_t to, size_t payload, uint16_t id);

// Sets the checksum of an ICMP message.
void SealIcmp(std::string& message);

// The message that a host sends back for a datagram to a closed port. It quotes the beginning of
// the datagram.
std::string PortUnreachable(const Packet& datagram);

// Reads the local and remote endpoints that such a message quotes. False for any other message.
bool ReadPortUnreachable(std::string_view message, Address* from, Address* to);

}  // namespace sim
