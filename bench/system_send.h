// A send of the system's own, for scale.
#pragma once

namespace bench {

// Sends one datagram to a socket on the loopback interface that is not read: once its buffer is
// full, what arrives is dropped, so a send costs less than one that is waited for.
class SystemSend {
 public:
  SystemSend();
  ~SystemSend();
  SystemSend(const SystemSend&) = delete;
  SystemSend& operator=(const SystemSend&) = delete;

  bool Send() const;

 private:
  int receiver_;
  int sender_;
};

}  // namespace bench
