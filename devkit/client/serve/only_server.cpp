#include "client/serve/only_server.h"

#include <winsock2.h>
//
#include <windows.h>

#include "client/files.h"
#include "common/text.h"
#include "serve_claim.h"

namespace client {
namespace {

std::string FullName(const std::string& file) {
  if (file == "-") return "standard input";
  std::error_code error;
  const std::filesystem::path full = std::filesystem::absolute(PathOf(file), error);
  const std::u8string text = full.u8string();
  return error ? file : std::string(text.begin(), text.end());
}

std::string Describe(const devkit::ServeClaim* claim) {
  std::string text = "another vyr_client serves already";
  if (claim == nullptr || claim->process_id == 0) return text;
  return text + ": process " + std::to_string(claim->process_id) + ", with " +
         std::string(common::FieldText(claim->file));
}

}  // namespace

OnlyServer::OnlyServer(const std::string& file) {
  mapping_.Reset(CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                    sizeof(devkit::ServeClaim), devkit::kServeClaimName));
  const bool is_taken = mapping_ && GetLastError() == ERROR_ALREADY_EXISTS;
  void* const view =
      mapping_ ? MapViewOfFile(mapping_.get(), is_taken ? FILE_MAP_READ : FILE_MAP_WRITE, 0, 0, 0)
               : nullptr;
  auto* const claim = static_cast<devkit::ServeClaim*>(view);
  if (is_taken) {
    other_ = Describe(claim);
  } else if (claim != nullptr) {
    common::SetFieldText(claim->file, FullName(file));
    claim->process_id = GetCurrentProcessId();
  }
  if (view != nullptr) UnmapViewOfFile(view);
  if (is_taken) mapping_.Reset();
}

OnlyServer::~OnlyServer() = default;

}  // namespace client
