#include "bench/forwarder.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>

namespace bench {
namespace {

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
