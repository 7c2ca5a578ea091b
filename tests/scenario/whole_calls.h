// A socket in one of the ways in which games call it. One thread may send while another receives.
#pragma once
#include "tests/scenario/sim_sockets.h"
//
#include <array>
#include <string>

namespace whole_test {

enum class Style { kBlocks, kSelects, kWaitsForEvents, kOverlaps };
inline constexpr const char* kStyleNames[] = {"blocks", "selects", "waits for events", "overlaps"};

// Each call waits at most that long, so that no thread waits for ever for what a fault has taken.
inline constexpr DWORD kPatienceMs = 60'000;
// How often a reader of a quiet flow looks whether it is to go on.
inline constexpr DWORD kIdleLookMs = 5000;

// How often a call that waits looks by itself whether it may go on; for worlds in which that would
// be most of what happens. After a look for nothing it rests: an event may be that of the call
// before, and set for as long as the game waits.
void LookAgainEvery(DWORD ms, DWORD rest_ms);

class Caller {
 public:
  Caller(SOCKET s, Style style);
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;

  SOCKET socket() const { return s_; }
  // Whether its receives are pending without an event, which a fault has kept from being made.
  bool ReceivesUnseen() const;
  // 0 or the error.
  int Connect(const char* ip, int port);
  // The count of bytes, or the negative error; WSAETIMEDOUT after kPatienceMs.
  int Send(const char* bytes, int size);
  int Receive(char* bytes, int size);
  // 0 or the error.
  int SendTo(const std::string& text, const char* ip, int port);
  // WSAETIMEDOUT if nothing has come in that time.
  int ReceiveFrom(std::string* text, sockaddr_in* from, DWORD ms);
  // Closes the socket and ends what is pending on it. May be called again.
  void Close();

 private:
  // An overlapped call, and the memory that it writes to, which is never freed: it may be pending
  // when the thread that made it is gone.
  struct Late;

  int SendOnce(const char* bytes, int size);
  int ReceiveOnce(char* bytes, int size);
  int AwaitConnection();
  // Until the call may work now, or a while has passed.
  void AwaitChance(bool writes, DWORD ms) const;
  int ResultOfLate(Late* late, DWORD ms, DWORD* bytes) const;

  SOCKET s_;
  const Style style_;
  HANDLE event_ = nullptr;
  Late* receive_ = nullptr;
  Late* send_ = nullptr;
};

}  // namespace whole_test
