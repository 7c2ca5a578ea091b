#include "node/control_port.h"

namespace node {

int ControlPort::Listen(const Address& address) {
  int error = 0;
  listener_ = Socket::Listener(address, &error);
  return error;
}

void ControlPort::Want(Poller* poller) const {
  if (!listener_.open()) return;
  poller->Want(listener_.get(), {.read = clients_.size() < kMostClients});
  for (const Client& client : clients_)
    poller->Want(client.stream.get(), {.read = !client.ended, .write = !client.out.empty()});
}

void ControlPort::Step(const Poller& poller) {
  if (!listener_.open()) return;
  for (Client& client : clients_) {
    const Readiness ready = poller.Of(client.stream.get());
    if (ready.read) Read(&client);
    if (client.stream.open() && !client.out.empty()) Write(&client);
    if (client.ended && client.out.empty()) client.stream.Close();
  }
  clients_.remove_if([](const Client& client) { return !client.stream.open(); });
  if (poller.Of(listener_.get()).read) Accept();
}

void ControlPort::Accept() {
  while (clients_.size() < kMostClients) {
    Socket stream(accept(listener_.get(), nullptr, nullptr));
    if (!stream.open()) return;
    if (PrepareStream(stream.get()) == 0) clients_.push_back({std::move(stream)});
  }
}

void ControlPort::Read(Client* client) {
  char bytes[4096];
  const int count = recv(client->stream.get(), bytes, sizeof bytes, 0);
  if (count > 0) {
    client->in.append(bytes, static_cast<std::size_t>(count));
  } else if (count == 0) {
    client->ended = true;
    if (!client->in.empty()) client->in += '\n';  // the last line may lack its end
  } else if (WSAGetLastError() != WSAEWOULDBLOCK) {
    return client->stream.Close();
  }
  RunLines(client);
  if (client->in.size() > kLongestLine || client->out.size() > kMostUnread) client->stream.Close();
}

void ControlPort::RunLines(Client* client) {
  std::size_t begin = 0;
  for (std::size_t end; (end = client->in.find('\n', begin)) != std::string::npos;
       begin = end + 1) {
    std::string line = client->in.substr(begin, end - begin);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty()) client->out += RunCommand(line, target_) + "\n";
  }
  client->in.erase(0, begin);
}

void ControlPort::Write(Client* client) {
  const int count =
      send(client->stream.get(), client->out.data(), static_cast<int>(client->out.size()), 0);
  if (count != SOCKET_ERROR) {
    client->out.erase(0, static_cast<std::size_t>(count));
  } else if (WSAGetLastError() != WSAEWOULDBLOCK) {
    client->stream.Close();
  }
}

}  // namespace node
