#include "route/init_log.h"

#include <winsock2.h>

#include <cstdio>
#include <ctime>
#include <exception>
#include <string>

#include "common/log.h"
#include "common/log_file.h"
#include "common/paths.h"
#include "common/process_info.h"
#include "common/text.h"
#include "route/acc_config.h"
#include "route/mending.h"

namespace moru_vyr::lsp {
namespace {

constexpr std::size_t kTextSize = 260;

// Files are told apart by their second and the process id: two runs that share both share a file.
void FormatStartTime(char (&out)[kTextSize]) noexcept {
  const std::time_t now = time(nullptr);
  std::tm local = {};
  if (localtime_s(&local, &now) != 0 ||
      std::strftime(out, sizeof out, "[%Y-%m-%d][%H-%M-%S]", &local) == 0)
    common::SetFieldText(out, "[get_local_time_failed]");
}

// The directory is the parent of log_path, so a log_path that means a directory ends in a
// separator; without any parent the files go to the root of the current drive.
std::string LogFilePath() {
  char start_time[kTextSize];
  FormatStartTime(start_time);
  char name[kTextSize] = {};
  const int size =
      std::snprintf(name, sizeof name, "[%s][P%d]%s.log", common::GetProcessInfo().process_name,
                    static_cast<int>(GetCurrentProcessId()), start_time);
  if (size < 0) name[0] = '\0';
  std::string directory;
  if (!common::ParentPath(GetAccConfig()->log_path, &directory)) directory.clear();
  return directory + "\\" + name;
}

// Call sites test the level themselves, so where they are all silent the file keeps an ordinary
// level of its own.
int LogFileLevel(u32 log_level) noexcept {
  return log_level >= 6 ? 2 : static_cast<int>(log_level);
}

std::string AccelerateText(u32 net_mode) {
  std::string text = "accelerate\xA3\xBA";  // a full-width colon, in the code page of its readers
  if ((net_mode & kNetModeTcp) != 0) text += " TCP";
  if ((net_mode & kNetModeUdp) != 0) text += " UDP";
  if ((net_mode & kNetModeAsyTcp) != 0) text += " ASYTCP";
  return text;
}

void LogBasicInfo() {
  const AccConfig& config = *GetAccConfig();
  const char* const process_name = common::GetProcessInfo().process_name;
  LSP_LOG(5, "Basic info,uin=%s", config.uin);
  if (config.net_mode != 0)
    LSP_LOG(5, "will accelerate game process:%s, log level:%d", process_name,
            static_cast<int>(config.log_level));
  else
    LSP_LOG(5, "Based on server config, the game will not be accelerated:%s", process_name);
  LSP_LOG(5, "game_id=%llu, zone_id=%llu, net_mode=0x%08x, acc_mode=%d, manual_mode=%s, %s",
          static_cast<unsigned long long>(config.game_id),
          static_cast<unsigned long long>(config.zone_id), static_cast<unsigned>(config.net_mode),
          static_cast<int>(config.acc_mode), config.manual_mode != 0 ? "true" : "false",
          AccelerateText(config.net_mode).c_str());
}

void OpenLog() {
  const std::string path = LogFilePath();
  const bool opened = common::GetLogFile().Open(path);
  const DWORD error = opened ? 0 : GetLastError();
  common::SetFieldText(common::GetProcessInfo().log_file_path, path);
  common::LspTrace("InitLog: %s", path.c_str());
  // Guard: a line more than is asked for, since a log that is missing can say nothing itself.
  if (!opened) common::LspTrace("InitLog: no log file, err=%lu", static_cast<unsigned long>(error));
  common::GetLogFile().SetLevel(LogFileLevel(GetAccConfig()->log_level));
  common::GetLogFile().SetDropsPastTotal(GetMending().DropsLogPastItsTotal());
  LogBasicInfo();
}

}  // namespace

void InitLog() noexcept {
  try {
    OpenLog();
  } catch (const std::exception&) {
    common::LspTrace("InitLog: out of memory");
  }
}

}  // namespace moru_vyr::lsp
