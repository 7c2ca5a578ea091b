// The interfaces between the worker's loop and the sockets that it polls.
//
// Everything here runs on the worker thread, except NextToken, which runs on any. Nothing throws.
#pragma once
#include <winsock2.h>

#include "common/types.h"

namespace moru_vyr::lsp {

// Receives the readiness of a socket.
class IRelaySocketDelegate {
 public:
  virtual ~IRelaySocketDelegate() = default;
  virtual void OnReadable(SOCKET socket) noexcept = 0;
  virtual void OnWritable(SOCKET socket) noexcept = 0;
  virtual void OnException(SOCKET socket) noexcept = 0;
  virtual void OnClose(SOCKET socket) noexcept = 0;  // Kept: the loop never calls it
};

// The loop, as providers and sessions see it.
class IRelaySocketMgr {
 public:
  virtual ~IRelaySocketMgr() = default;

  // Watches the socket for reading and for exceptions from the next pass on. The delegate is not
  // owned and must outlive the registration. 0 if added; not 0 if the socket was already known, and
  // then nothing changes. Kept: a socket that finds no room in the sets is added and never polled.
  virtual u32 AddSocket(SOCKET socket, IRelaySocketDelegate* delegate) noexcept = 0;
  // Asks for one writable event. 0, or not 0 if it was already asked for. Does nothing for a socket
  // that was not added.
  virtual u32 EnableWrite(SOCKET socket) noexcept = 0;
  // Stops readable events and exceptions for a socket that will send nothing more, or whose bytes
  // there is no room for.
  virtual void StopReading(SOCKET socket) noexcept = 0;
  // Undoes that. The socket is then the last to be served.
  virtual void ResumeReading(SOCKET /*socket*/) noexcept {}
  // Whether that many more sockets would be polled. Any thread.
  virtual bool HasRoom(u32 /*sockets*/) const noexcept { return true; }
  // The next update of the timers comes in that many milliseconds at the latest. Holds once.
  virtual void UpdateWithin(u32 /*ms*/) noexcept {}
  // The delegate, which is the caller's to delete or to keep; null if there was none.
  virtual IRelaySocketDelegate* RemoveSocket(SOCKET socket) noexcept = 0;

  virtual u32 NextToken() noexcept = 0;
};

}  // namespace moru_vyr::lsp
