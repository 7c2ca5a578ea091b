#include "bench/tcp_forwarders.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace bench {
namespace {

constexpr int kListenTries = 500;
constexpr useconds_t kListenPauseUs = 10'000;

bool Listens(const sockaddr_in& address) {
  const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool connected =
      connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(s);
  return connected;
}

double CpuSecondsOf(pid_t pid) {
  clockid_t clock;
  timespec used = {};
  if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &used) != 0) return 0;
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

}  // namespace

Forwarder::Forwarder(const std::vector<std::string>& command) : pid_(fork()) {
  if (pid_ != 0) {
    setpgid(pid_, pid_);
    return;
  }
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  const int null = open("/dev/null", O_RDWR);
  dup2(null, STDIN_FILENO);
  dup2(null, STDOUT_FILENO);
  std::vector<char*> words;
  for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  execvp(words[0], words.data());
  _exit(127);
}

Forwarder::~Forwarder() {
  if (pid_ <= 0) return;
  kill(-pid_, SIGKILL);  // the group that this object made
  waitpid(pid_, nullptr, 0);
}

bool HasProgram(const std::string& name) {
  std::istringstream folders(std::getenv("PATH") != nullptr ? std::getenv("PATH") : "");
  for (std::string folder; std::getline(folders, folder, ':');) {
    if (access((folder + "/" + name).c_str(), X_OK) == 0) return true;
  }
  return false;
}

std::vector<std::string> SocatCommand(std::uint16_t from, const std::string& to,
                                      std::uint16_t to_port) {
  return {
      "socat",
      "TCP4-LISTEN:" + std::to_string(from) + ",bind=127.0.0.1,reuseaddr,fork,backlog=128,nodelay",
      "TCP4:" + to + ":" + std::to_string(to_port) + ",nodelay"};
}

std::vector<std::string> HaproxyCommand(const std::string& folder, std::uint16_t from,
                                        const std::string& to, std::uint16_t to_port) {
  const std::string path = folder + "/haproxy.cfg";
  std::ofstream(path) << "global\n  nbthread 1\n"
                      << "defaults\n  mode tcp\n  timeout connect 5s\n  timeout client 1m\n"
                      << "  timeout server 1m\n"
                      << "listen forward\n  bind 127.0.0.1:" << from << "\n  server game " << to
                      << ":" << to_port << "\n";
  return {"haproxy", "-db", "-q", "-f", path};
}

bool WaitForListener(const std::string& address, std::uint16_t port) {
  sockaddr_in wanted = {};
  wanted.sin_family = AF_INET;
  wanted.sin_port = htons(port);
  inet_pton(AF_INET, address.c_str(), &wanted.sin_addr);
  for (int i = 0; i < kListenTries; ++i) {
    if (Listens(wanted)) return true;
    usleep(kListenPauseUs);
  }
  return false;
}

double CpuSecondsOfGroup(pid_t group) {
  double sum = 0;
  DIR* const processes = opendir("/proc");
  while (const dirent* entry = readdir(processes)) {
    const pid_t pid = std::atoi(entry->d_name);
    if (pid > 0 && getpgid(pid) == group) sum += CpuSecondsOf(pid);
  }
  closedir(processes);
  return sum;
}

}  // namespace bench
