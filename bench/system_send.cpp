#include "bench/system_send.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

namespace bench {

SystemSend::SystemSend()
    : receiver_(socket(AF_INET, SOCK_DGRAM, 0)), sender_(socket(AF_INET, SOCK_DGRAM, 0)) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (bind(receiver_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      getsockname(receiver_, reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
      connect(sender_, reinterpret_cast<sockaddr*>(&address), size) != 0) {
    close(sender_);
    sender_ = -1;
  }
}

SystemSend::~SystemSend() {
  close(receiver_);
  close(sender_);
}

bool SystemSend::Send() const { return send(sender_, "x", 1, 0) == 1; }

}  // namespace bench
