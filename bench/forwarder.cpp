#include "bench/forwarder.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
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

void Execute(const std::vector<std::string>& command) {
  const int null = open("/dev/null", O_RDWR);
  dup2(null, STDIN_FILENO);
  dup2(null, STDOUT_FILENO);
  std::vector<char*> words;
  for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  execvp(words[0], words.data());
}

}  // namespace

Forwarder::Forwarder(const std::vector<std::string>& command)
    : Forwarder([&command] { Execute(command); }) {}

Forwarder::Forwarder(const std::function<void()>& work) : pid_(fork()) {
  if (pid_ != 0) {
    setpgid(pid_, pid_);
    return;
  }
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  work();
  _exit(127);
}

Forwarder::~Forwarder() {
  if (pid_ <= 0) return;
  kill(-pid_, SIGKILL);  // the process group that this object created
  waitpid(pid_, nullptr, 0);
}

bool HasProgram(const std::string& name) {
  std::istringstream folders(std::getenv("PATH") != nullptr ? std::getenv("PATH") : "");
  for (std::string folder; std::getline(folders, folder, ':');) {
    if (access((folder + "/" + name).c_str(), X_OK) == 0) return true;
  }
  return false;
}

ProcessorUse::ProcessorUse(std::vector<pid_t> groups)
    : groups_(std::move(groups)), before_(SecondsOfEach()) {}

std::map<pid_t, double> ProcessorUse::SecondsOfEach() const {
  std::map<pid_t, double> seconds;
  if (groups_.empty()) return seconds;
  DIR* const processes = opendir("/proc");
  while (const dirent* entry = readdir(processes)) {
    const pid_t pid = std::atoi(entry->d_name);
    const bool counts =
        pid > 0 && std::find(groups_.begin(), groups_.end(), getpgid(pid)) != groups_.end();
    if (counts) seconds[pid] = CpuSecondsOf(pid);
  }
  closedir(processes);
  return seconds;
}

double ProcessorUse::Seconds() const {
  double sum = 0;
  for (const auto& [pid, seconds] : SecondsOfEach()) {
    const auto before = before_.find(pid);
    sum += std::max(seconds - (before != before_.end() ? before->second : 0), 0.0);
  }
  return sum;
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

}  // namespace bench
