// The true source of a datagram that came through the relay, written into the game's own memory. At
// stake: not a byte beyond the buffer that the game provides for it.
#include <cstring>
#include <vector>

#include "tests/scenario/udp_spied_world.h"

namespace {

using namespace udp_test;       // NOLINT
using namespace moru_vyr::lsp;  // NOLINT

LPWSPRECVFROM real_recv_from = nullptr;
int fails_with = 0;       // where not 0: with this, after all has been handed out
bool says_whole = false;  // how long the address is, however much of it there was room for

// A next provider that writes as much of the source as there is room for, and reports its size.
int WSPAPI RecvFromWithWhatFits(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received,
                                LPDWORD flags, struct sockaddr* from, LPINT from_size,
                                LPWSAOVERLAPPED overlapped,
                                LPWSAOVERLAPPED_COMPLETION_ROUTINE completion, LPWSATHREADID thread,
                                LPINT error) {
  sockaddr_in whole = {};
  INT whole_size = sizeof whole;
  const int result = real_recv_from(s, buffers, count, received, flags, Raw(whole), &whole_size,
                                    overlapped, completion, thread, error);
  if (result != 0 || from == nullptr || from_size == nullptr) return result;
  *from_size = std::min(*from_size, whole_size);
  if (*from_size > 0) std::memcpy(from, &whole, static_cast<size_t>(*from_size));
  if (says_whole) *from_size = whole_size;
  if (fails_with == 0) return 0;
  *error = fails_with;
  return SOCKET_ERROR;
}

class UdpSource : public UdpSpiedWorld {
 protected:
  UdpSource() {
    Starts();
    s = Udp();
    EXPECT_EQ(Talks(s, "first"), "first from 198.51.100.10:27015");
    real_recv_from = NextProvider().lpWSPRecvFrom;
    NextProvider().lpWSPRecvFrom = RecvFromWithWhatFits;
  }
  // The place of `room` bytes after a datagram has come, and a margin behind it. Memory behind the
  // margin is inaccessible.
  std::vector<char> PlaceOf(int room) {
    std::vector<char> place(static_cast<size_t>(room) + kMargin, kOld);
    EXPECT_EQ(Sends(s, "again"), 0);
    EXPECT_TRUE(ReadableWithin(s, 1000));
    char bytes[100];
    int size = room;
    EXPECT_EQ(recvfrom(s, bytes, sizeof bytes, 0, reinterpret_cast<struct sockaddr*>(place.data()),
                       &size),
              5);
    EXPECT_EQ(size, says_whole ? 16 : std::min(room, 16));
    return place;
  }
  static constexpr size_t kMargin = 4;
  static constexpr char kOld = '\xEE';
  SOCKET s = INVALID_SOCKET;
};

SCENARIO_F(UdpSource, IsWrittenAsFarAsTheGamesPlaceReaches) {
  const sockaddr_in truth = At(kServer, kPort);
  for (const int room : {8, 11, 12, 15, 16, 28}) {
    SCOPED_TRACE(room);
    const std::vector<char> place = PlaceOf(room);
    const size_t written = static_cast<size_t>(std::min(room, 16));
    EXPECT_EQ(std::memcmp(place.data(), &truth, written), 0);
    for (size_t i = written; i < place.size(); ++i) EXPECT_EQ(place[i], kOld) << i;
  }
  EXPECT_EQ(TakeLoneEntry(s, RecordOf(s).recv_queue), "none");
}

// Nor further if the provider reports the size of an address that it had no room for.
SCENARIO_F(UdpSource, IsBoundByTheGamesPlaceWhateverTheProviderSays) {
  const sockaddr_in truth = At(kServer, kPort);
  says_whole = true;
  for (const int room : {8, 11, 16}) {
    SCOPED_TRACE(room);
    const std::vector<char> place = PlaceOf(room);
    EXPECT_EQ(std::memcmp(place.data(), &truth, static_cast<size_t>(room)), 0);
    for (size_t i = static_cast<size_t>(room); i < place.size(); ++i) EXPECT_EQ(place[i], kOld);
  }
  says_whole = false;
}

// If the address does not fit, it cannot be recognised as the relay's.
SCENARIO_F(UdpSource, IsNotLookedUpIfTheAddressDoesNotFit) {
  const sockaddr_in relay = RecordOf(s).relay_addr;
  const std::vector<char> place = PlaceOf(4);
  EXPECT_EQ(std::memcmp(place.data(), &relay, 4), 0);
  for (size_t i = 4; i < place.size(); ++i) EXPECT_EQ(place[i], kOld) << i;
  EXPECT_EQ(TakeLoneEntry(s, RecordOf(s).recv_queue), "198.51.100.10:27015");
}

// Nor if the call asks for no source at all.
SCENARIO_F(UdpSource, IsNotLookedUpIfItIsNotRequested) {
  EXPECT_EQ(Sends(s, "again"), 0);
  ASSERT_TRUE(ReadableWithin(s, 1000));
  char bytes[100];
  EXPECT_EQ(recvfrom(s, bytes, sizeof bytes, 0, nullptr, nullptr), 5);
  EXPECT_EQ(TakeLoneEntry(s, RecordOf(s).recv_queue), "198.51.100.10:27015");
}

// A provider that answers without a size has written no address either.
SCENARIO_F(UdpSource, IsNotLookedUpWithoutASize) {
  EXPECT_EQ(Sends(s, "again"), 0);
  ASSERT_TRUE(ReadableWithin(s, 1000));
  char bytes[100];
  sockaddr_in place = {};
  EXPECT_EQ(recvfrom(s, bytes, sizeof bytes, 0, Raw(place), nullptr), 5);
  EXPECT_EQ(place.sin_port, 0);
  EXPECT_EQ(TakeLoneEntry(s, RecordOf(s).recv_queue), "198.51.100.10:27015");
}

// A datagram that was cut fails the call, whatever has been handed out with it.
SCENARIO_F(UdpSource, IsNotLookedUpIfTheCallFails) {
  EXPECT_EQ(Sends(s, "again"), 0);
  ASSERT_TRUE(ReadableWithin(s, 1000));
  fails_with = WSAEMSGSIZE;
  char bytes[100];
  sockaddr_in place = {};
  int size = sizeof place;
  EXPECT_EQ(ErrorOf(recvfrom(s, bytes, sizeof bytes, 0, Raw(place), &size)), WSAEMSGSIZE);
  fails_with = 0;
  EXPECT_EQ(place.sin_port, RecordOf(s).relay_addr.sin_port);
  EXPECT_EQ(TakeLoneEntry(s, RecordOf(s).recv_queue), "198.51.100.10:27015");
}

}  // namespace
