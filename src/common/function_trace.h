// Writes "... begin" and "... end" around a scope, at level 0 and only if that level is on when
// the scope is entered.
#pragma once

namespace common {

class FunctionTrace {
 public:
  explicit FunctionTrace(const char* function_name) noexcept;
  ~FunctionTrace();
  FunctionTrace(const FunctionTrace&) = delete;
  FunctionTrace& operator=(const FunctionTrace&) = delete;

 private:
  bool active_;
  char name_[64];  // without the library's own namespace; set only if active
};

}  // namespace common
