// That one client serves at a time: a second one would overwrite the tables of the first.
#pragma once

#include <string>

#include "common/handle.h"

namespace client {

class OnlyServer {
 public:
  // Claims to be the one that serves, with that file.
  explicit OnlyServer(const std::string& file);
  ~OnlyServer();
  OnlyServer(const OnlyServer&) = delete;
  OnlyServer& operator=(const OnlyServer&) = delete;

  // The client that serves already, in words; empty if it is us.
  const std::string& other() const { return other_; }

 private:
  common::UniqueHandle mapping_;
  std::string other_;
};

}  // namespace client
