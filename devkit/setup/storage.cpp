#include "setup/storage.h"

#include <cstdio>
#include <filesystem>
#include <memory>

#ifdef _WIN32
#include <io.h>
#include <windows.h>
#else
#include <unistd.h>
#endif

namespace setup {
namespace {

namespace fs = std::filesystem;

struct Closer {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, Closer>;

#ifdef _WIN32
File Open(const fs::path& path, const wchar_t* mode) { return File(_wfopen(path.c_str(), mode)); }
bool Sync(std::FILE* file) { return _commit(_fileno(file)) == 0; }
bool Replace(const fs::path& from, const fs::path& to) {
  return MoveFileExW(from.c_str(), to.c_str(),
                     MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != FALSE;
}
#else
File Open(const fs::path& path, const wchar_t* mode) {
  return File(std::fopen(path.c_str(), std::string(mode, mode + 2).c_str()));
}
bool Sync(std::FILE* file) { return fsync(fileno(file)) == 0; }
bool Replace(const fs::path& from, const fs::path& to) {
  return std::rename(from.c_str(), to.c_str()) == 0;
}
#endif

bool WriteDown(const fs::path& path, const wchar_t* mode, const std::string& text) {
  const File file = Open(path, mode);
  return file != nullptr && std::fwrite(text.data(), 1, text.size(), file.get()) == text.size() &&
         std::fflush(file.get()) == 0 && Sync(file.get());
}

}  // namespace

std::optional<std::string> FileStorage::Read(bool* failed) {
  std::error_code error;
  const bool exists = fs::exists(path_, error);
  *failed = static_cast<bool>(error);
  if (!exists) return std::nullopt;
  const File file = Open(path_, L"rb");
  std::string text;
  char block[4096];
  for (size_t got = 0; file && (got = std::fread(block, 1, sizeof block, file.get())) > 0;) {
    text.append(block, got);
  }
  *failed = file == nullptr || std::ferror(file.get()) != 0;
  if (*failed) return std::nullopt;
  return text;
}

bool FileStorage::Write(const std::string& text) {
  const fs::path beside = path_ + L".new";
  return WriteDown(beside, L"wb", text) && Replace(beside, path_);
}

bool FileStorage::Append(const std::string& text) { return WriteDown(path_, L"ab", text); }

bool FileStorage::Remove() {
  std::error_code error;
  fs::remove(path_, error);
  return !error && !fs::exists(path_, error);
}

}  // namespace setup
