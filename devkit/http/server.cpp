#include "http/server.h"

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <set>
#include <utility>

#include "http/thread.h"

namespace http {
namespace {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace wire = boost::beast::http;
using beast::error_code;
using net::ip::tcp;
using std::chrono::milliseconds;

constexpr unsigned kHeaderLimit = 8 * 1024;
constexpr milliseconds kRest{100};  // after an accept that failed, as without a free handle

constexpr char kPlain[] = "text/plain; charset=utf-8";

Reply Refusal(unsigned status, const char* words) {
  return {status, kPlain, std::make_shared<std::string>(std::string(words) + "\n")};
}

// An answer is for those who asked this server itself: it is not kept, not read by pages of other
// origins, and no page among them fetches from elsewhere.
constexpr char kGuards[] =
    "Cache-Control: no-store\r\n"
    "X-Content-Type-Options: nosniff\r\n"
    "Cross-Origin-Resource-Policy: same-origin\r\n"
    "Referrer-Policy: no-referrer\r\n"
    "Content-Security-Policy: default-src 'none'; script-src 'unsafe-inline'; "
    "style-src 'unsafe-inline'; img-src data:; connect-src 'self'; base-uri 'none'; "
    "form-action 'none'; frame-ancestors 'none'\r\n";

// Without a length, the end of the answer is that of the connection.
std::string Head(unsigned status, const std::string& type, bool keeps_alive,
                 std::optional<size_t> length) {
  const auto reason = wire::obsolete_reason(wire::int_to_status(status));
  std::string head = "HTTP/1.1 " + std::to_string(status) + " " +
                     std::string(reason.data(), reason.size()) + "\r\nContent-Type: " + type +
                     "\r\n";
  if (status == 405) head += "Allow: GET, HEAD\r\n";
  if (status == 503) head += "Retry-After: 10\r\n";
  head += kGuards;
  if (!keeps_alive) head += "Connection: close\r\n";
  if (length) head += "Content-Length: " + std::to_string(*length) + "\r\n";
  return head + "\r\n";
}

net::const_buffer BytesOf(const SharedText& text) {
  return text != nullptr ? net::buffer(*text) : net::const_buffer();
}

// What all connections share. It outlives them.
struct Shared {
  Site* site;
  std::vector<std::string> names;
  Limits limits;
  size_t connections = 0;
  std::set<class Connection*> streams = {};
};

using Request = wire::request<wire::empty_body>;

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(Shared* shared, tcp::socket socket) : shared_(shared), stream_(std::move(socket)) {
    ++shared_->connections;
  }
  ~Connection() {
    shared_->streams.erase(this);
    --shared_->connections;
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void Read(unsigned within_ms) {
    parser_.emplace();
    parser_->header_limit(kHeaderLimit);
    parser_->body_limit(0);
    stream_.expires_after(milliseconds(within_ms));
    wire::async_read(
        stream_, buffer_, *parser_,
        [self = shared_from_this()](error_code error, size_t) { self->OnRead(error); });
  }

  // Sends the reader of a stream what it has not had, unless it is still busy with something.
  void Look() {
    if (is_writing_) return;
    const Event event = shared_->site->Latest();
    const auto now = std::chrono::steady_clock::now();
    if (event.number != sent_number_ && event.text != nullptr) {
      sent_number_ = event.number;
      WriteEvent("id: " + std::to_string(event.number) + "\ndata: ", event.text);
    } else if (now - sent_at_ >= milliseconds(shared_->limits.beat_ms)) {
      WriteEvent(":", nullptr);
    }
  }

 private:
  void OnRead(error_code error) {
    if (!error) return Answer(parser_->get());
    if (error.category() != wire::make_error_code(wire::error::end_of_stream).category()) return;
    if (error == wire::error::end_of_stream || error == wire::error::partial_message) return;
    Reply refusal = Refusal(400, "this is no request");
    if (error == wire::error::header_limit) refusal = Refusal(431, "the request is too long");
    if (error == wire::error::body_limit || error == wire::error::unexpected_body) {
      refusal = Refusal(413, "a request has no body here");
    }
    Write(refusal, Request());
  }

  void Answer(const Request& request) {
    try {
      const auto target = std::string_view(request.target().data(), request.target().size());
      const std::string_view path = target.substr(0, target.find_first_of("?#"));
      if (const auto refusal = Refuse(request, path)) return Write(*refusal, request);
      if (shared_->site->IsStream(path)) return BeginStream(request);
      const auto reply = shared_->site->Get(path);
      Write(reply ? *reply : Refusal(404, "there is no such page"), request);
    } catch (const std::exception&) {
      Write(Refusal(500, "this could not be answered"), request);
    }
  }

  std::optional<Reply> Refuse(const Request& request, std::string_view path) const {
    const auto host = request[wire::field::host];
    if (request.count(wire::field::host) != 1 ||
        !IsAllowedHost({host.data(), host.size()}, shared_->names)) {
      return Refusal(403, "ask by address: this name was not allowed (--allow-host NAME)");
    }
    if (request.method() != wire::verb::get && request.method() != wire::verb::head) {
      return Refusal(405, "only GET and HEAD");
    }
    if (path.empty() || path.front() != '/') return Refusal(400, "this is no request");
    return std::nullopt;
  }

  // After a request that could not be read, it is not known where the next one begins.
  void Write(const Reply& reply, const Request& request) {
    keeps_alive_ = reply.status == 200 && request.keep_alive();
    head_ = Head(reply.status, reply.type, keeps_alive_, reply.body->size());
    body_ = request.method() != wire::verb::head ? reply.body : nullptr;
    Send("", &Connection::OnWritten);
  }

  void OnWritten(error_code error) {
    if (error) return;
    if (keeps_alive_) return Read(shared_->limits.idle_ms);
    stream_.socket().shutdown(tcp::socket::shutdown_send, error);
  }

  // What stands in head_ and body_, and the end. One kind of write, because each takes the compiler
  // seconds.
  void Send(std::string_view end, void (Connection::*then)(error_code)) {
    const std::array<net::const_buffer, 3> parts = {net::buffer(head_), BytesOf(body_),
                                                    net::buffer(end.data(), end.size())};
    stream_.expires_after(milliseconds(shared_->limits.write_ms));
    net::async_write(stream_, parts, [self = shared_from_this(), then](error_code error, size_t) {
      (*self.*then)(error);
    });
  }

  // --- streams ------------------------------------------------------------------------------

  void BeginStream(const Request& request) {
    if (shared_->streams.size() >= shared_->limits.streams) {
      return Write(Refusal(503, "too many readers"), request);
    }
    keeps_alive_ = false;
    head_ = Head(200, "text/event-stream", keeps_alive_, std::nullopt);
    body_ = nullptr;
    const bool is_head = request.method() == wire::verb::head;
    is_writing_ = true;
    Send("", is_head ? &Connection::OnWritten : &Connection::OnBegun);
  }

  void OnBegun(error_code error) {
    if (!error) Stream();
  }

  void Stream() {
    is_writing_ = false;
    shared_->streams.insert(this);
    stream_.expires_never();
    WatchReader();
    Look();
  }

  // A reader has nothing more to say. Anything that comes from it, its end included, ends the
  // stream.
  void WatchReader() {
    stream_.async_read_some(net::buffer(from_reader_),
                            [self = shared_from_this()](error_code, size_t) { self->Close(); });
  }

  void WriteEvent(std::string head, SharedText text) {
    is_writing_ = true;
    sent_at_ = std::chrono::steady_clock::now();
    head_ = std::move(head);
    body_ = std::move(text);
    Send("\n\n", &Connection::OnEventWritten);
  }

  void OnEventWritten(error_code error) {
    is_writing_ = false;
    body_ = nullptr;
    if (error) return Close();
    Look();
  }

  void Close() {
    shared_->streams.erase(this);
    error_code ignored;
    stream_.socket().close(ignored);
  }

  Shared* const shared_;
  beast::tcp_stream stream_;
  beast::flat_buffer buffer_{2 * kHeaderLimit};
  std::optional<wire::request_parser<wire::empty_body>> parser_;
  std::string head_;  // of the answer or event that is being written
  SharedText body_;   // its text, if any
  bool keeps_alive_ = false;
  std::array<char, 64> from_reader_ = {};
  uint64_t sent_number_ = 0;
  std::chrono::steady_clock::time_point sent_at_ = std::chrono::steady_clock::now();
  bool is_writing_ = false;
};

}  // namespace

class Server::Impl {
 public:
  Impl(Site* site, std::vector<std::string> names, Limits limits)
      : shared_{.site = site, .names = std::move(names), .limits = limits} {}

  ~Impl() { context_.stop(); }

  std::string Start(Endpoint* endpoint) {
    const std::string error = Listen(endpoint);
    if (!error.empty()) return error;
    Accept();
    LookAgain();
    return thread_.Start([this] { Run(); }) ? "" : "no thread for it";
  }

 private:
  std::string Listen(Endpoint* endpoint) {
    const tcp::endpoint at(net::ip::make_address(endpoint->address), endpoint->port);
    error_code error;
    acceptor_.open(at.protocol(), error);
#ifdef _WIN32
    // Without it another program could listen on the same port.
    using Exclusive = net::detail::socket_option::boolean<SOL_SOCKET, SO_EXCLUSIVEADDRUSE>;
    if (!error) acceptor_.set_option(Exclusive(true), error);
#else
    if (!error) acceptor_.set_option(tcp::acceptor::reuse_address(true), error);
#endif
    if (!error) acceptor_.bind(at, error);
    if (!error) acceptor_.listen(tcp::acceptor::max_listen_connections, error);
    if (error) {
      const bool is_taken = error == net::error::address_in_use;
      return "cannot listen on " + endpoint->address + ":" + std::to_string(endpoint->port) + ": " +
             (is_taken ? "the port is taken" : error.message());
    }
    endpoint->port = acceptor_.local_endpoint().port();
    return "";
  }

  void Accept() {
    acceptor_.async_accept([this](error_code error, tcp::socket socket) {
      if (error) {
        rest_.expires_after(kRest);
        rest_.async_wait([this](error_code) { Accept(); });
        return;
      }
      // A connection too many is closed here.
      if (shared_.connections < shared_.limits.connections) {
        std::make_shared<Connection>(&shared_, std::move(socket))->Read(shared_.limits.request_ms);
      }
      Accept();
    });
  }

  void LookAgain() {
    look_.expires_after(milliseconds(shared_.limits.look_ms));
    look_.async_wait([this](error_code) {
      LookAgain();
      // A stream may end, and leave the set, while it is looked at.
      const std::vector<Connection*> all(shared_.streams.begin(), shared_.streams.end());
      for (Connection* stream : all) {
        if (shared_.streams.contains(stream)) stream->Look();
      }
    });
  }

  // An exception ends what threw it, not the server.
  void Run() {
    for (;;) {
      try {
        context_.run();
        return;
      } catch (const std::exception&) {
      }
    }
  }

  Shared shared_;
  net::io_context context_{1};
  tcp::acceptor acceptor_{context_};
  net::steady_timer rest_{context_};
  net::steady_timer look_{context_};
  Thread thread_;  // ends before what it uses
};

Server::Server(Site* site, std::vector<std::string> names, Limits limits)
    : impl_(std::make_unique<Impl>(site, std::move(names), limits)) {}

Server::~Server() = default;

std::string Server::Start(Endpoint* endpoint) { return impl_->Start(endpoint); }

}  // namespace http
