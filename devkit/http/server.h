// A web server on a thread of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "http/endpoint.h"

namespace http {

using SharedText = std::shared_ptr<const std::string>;

struct Reply {
  unsigned status = 200;
  std::string type = {};  // as Content-Type has it
  SharedText body = {};
};

struct Event {
  uint64_t number = 0;   // rises with each; 0: there is none yet
  SharedText text = {};  // one line
};

// What a server shows. All calls come on the server's thread.
class Site {
 public:
  virtual ~Site() = default;

  // Nothing: there is no such page. `path` has neither the query nor the fragment.
  virtual std::optional<Reply> Get(std::string_view path) = 0;

  // Whether that path is a stream of events, and what its readers should have seen by now. A
  // reader that is slow misses what was between two of them, and holds nothing up.
  virtual bool IsStream(std::string_view) { return false; }
  virtual Event Latest() { return {}; }
};

struct Limits {
  size_t connections = 64;       // more are closed at once
  size_t streams = 16;           // of those; more are refused
  unsigned request_ms = 10'000;  // from the connection to the end of its first request
  unsigned idle_ms = 75'000;     // from an answer to the end of the next request
  unsigned write_ms = 30'000;    // for a reader to take an answer or an event
  unsigned look_ms = 250;        // how often streams look for an event
  unsigned beat_ms = 15'000;     // without an event, until a stream shows that it lives
};

class Server {
 public:
  // The site must exist until the server has ended. `names` may stand in a request's Host besides
  // addresses and "localhost".
  Server(Site* site, std::vector<std::string> names, Limits limits = {});
  ~Server();  // ends all connections
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Listens, and answers from then on. *endpoint gets the port that was chosen. Empty, or in words
  // why not.
  std::string Start(Endpoint* endpoint);

 private:
  class Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace http
