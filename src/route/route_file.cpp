#include "route/route_file.h"

#include <winsock2.h>

#include <new>
#include <string>

#include "common/handle.h"
#include "common/log.h"
#include "common/text.h"

namespace moru_vyr::lsp {
namespace {

constexpr int kOpenTries = 5;
constexpr DWORD kOpenRetryDelayMs = 5;

common::UniqueHandle OpenForReading(const std::wstring& path, DWORD* error) noexcept {
  for (int i = 0; i < kOpenTries; ++i) {
    common::UniqueHandle file(CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING,
                                          FILE_ATTRIBUTE_NORMAL, nullptr));
    if (file) return file;
    *error = GetLastError();
    Sleep(kOpenRetryDelayMs);
  }
  return {};
}

bool ReadWhole(HANDLE file, const char* utf8_path, void* buffer, u32 size) noexcept {
  const DWORD file_size = GetFileSize(file, nullptr);
  if (file_size != size) {
    LSP_LOG(5,
            "[Route][LoadRouteFromBinFile] load_mem_binary_from_file failed:file(%s) file "
            "size(%d) not match data size(%d)",
            utf8_path, static_cast<int>(file_size), static_cast<int>(size));
    return false;
  }
  DWORD read = 0;
  if (!ReadFile(file, buffer, size, &read, nullptr)) {
    const DWORD error = GetLastError();
    LSP_LOG(5,
            "[Route][LoadRouteFromBinFile] load_mem_binary_from_file failed:file(%s) ReadFile "
            "failed(error=%d)",
            utf8_path, static_cast<int>(error));
    return false;
  }
  if (read != size) {
    LSP_LOG(5,
            "[Route][LoadRouteFromBinFile] load_mem_binary_from_file failed:file(%s) read "
            "size(%d) not file size(%d)",
            utf8_path, static_cast<int>(read), static_cast<int>(size));
    return false;
  }
  LSP_LOG(5,
          "[Route][LoadRouteFromBinFile] load_mem_binary_from_file success:file(%s) read "
          "size(%d)",
          utf8_path, static_cast<int>(read));
  return true;
}

// False also where there is no memory for it.
bool Widen(const char* utf8, std::wstring* out) noexcept {
  try {
    return common::u8to16(utf8, out);
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace

bool LoadRouteFromBinFile(const char* utf8_path, void* buffer, u32 size) noexcept {
  if (utf8_path == nullptr || buffer == nullptr || size == 0) return false;
  if (*utf8_path == '\0') {
    LSP_LOG(5, "[Route][LoadRouteFromBinFile] load_mem_binary_from_file failed,file_path is empty");
    return false;
  }
  std::wstring path;
  if (!Widen(utf8_path, &path)) {
    LSP_LOG(5,
            "[Route][LoadRouteFromBinFile] load_mem_binary_from_file "
            "failed,route_binary_file_path u8to16(%s) failed",
            utf8_path);
    return false;
  }
  DWORD error = 0;
  const common::UniqueHandle file = OpenForReading(path, &error);
  if (!file) {
    LSP_LOG(5,
            "[Route][LoadRouteFromBinFile] load_mem_binary_from_file failed:file(%s) CreateFileW "
            "failed(error=%d)",
            utf8_path, static_cast<int>(error));
    return false;
  }
  return ReadWhole(file.get(), utf8_path, buffer, size);
}

}  // namespace moru_vyr::lsp
