// Winsock's installation calls over the catalogues in a file, of which each kind of program changes
// its own, as on Windows.
//   VYR_TRIAL_CATALOGUE  the file
//   VYR_TRIAL_FAULT      "KIND CALL HOW": the call (install, deinstall, order) that fails in
//                        programs of that kind (32, 64). HOW is error, or dies-before or
//                        dies-after: the process ends before or after it has done what was asked.
#include "setup/install_calls.h"
//
#include <cstdlib>
#include <cstring>

#include "setup/image_json.h"
#include "setup/image_machine.h"
#include "setup/utf8.h"

namespace {

using namespace setup;

constexpr Kind kKind = winsock_host::kOwnKind;
constexpr UINT kKilled = 137;

std::string Asked(const char* name) {
  const wchar_t* const value = _wgetenv(ToWide(name).c_str());
  return value != nullptr ? ToUtf8(value) : std::string();
}

struct Catalogues {
  FileStorage file{ToWide(Asked("VYR_TRIAL_CATALOGUE"))};
  MachineImage image;

  Catalogues() {
    bool failed = false;
    std::string problem;
    const auto text = file.Read(&failed);
    if (text && ParseImage(*text, &image, &problem)) return;
    std::fprintf(stderr, "no catalogue to try on: %s\n", problem.c_str());
    std::exit(1);
  }
  const CatalogueImage& own() { return image.catalogues.at(kKind); }
};

int Fail(int error, LPINT reason) {
  if (reason != nullptr) *reason = error;
  return SOCKET_ERROR;
}

// 0, or the error of a call that changes something.
template <class Call>
int Change(const char* name, Call call) {
  const std::string fault = Asked("VYR_TRIAL_FAULT");
  const std::string here = std::string(KindName(kKind)) + " " + name + " ";
  if (fault == here + "error") return WSANO_RECOVERY;
  if (fault == here + "dies-before") TerminateProcess(GetCurrentProcess(), kKilled);
  Catalogues catalogues;
  FileMachine machine(catalogues.image, &catalogues.file);
  const int error = call(machine);
  if (fault == here + "dies-after") TerminateProcess(GetCurrentProcess(), kKilled);
  return error;
}

}  // namespace

extern "C" {

int WSPAPI WSCEnumProtocols(LPINT, LPWSAPROTOCOL_INFOW buffer, LPDWORD size, LPINT reason) {
  Catalogues catalogues;
  const auto& entries = catalogues.own().entries;
  const auto needed = static_cast<DWORD>(entries.size() * sizeof(WSAPROTOCOL_INFOW));
  if (buffer == nullptr || *size < needed) {
    *size = needed;
    return Fail(WSAENOBUFS, reason);
  }
  std::memcpy(buffer, entries.data(), needed);
  return static_cast<int>(entries.size());
}

int WSPAPI WSCGetProviderPath(LPGUID provider, WCHAR* path, LPINT length, LPINT reason) {
  Catalogues catalogues;
  const std::wstring known = PathOf(catalogues.own(), *provider);
  if (known.empty()) return Fail(WSAEINVAL, reason);
  if (known.size() >= static_cast<size_t>(*length)) return Fail(WSAEFAULT, reason);
  std::memcpy(path, known.c_str(), (known.size() + 1) * sizeof(WCHAR));
  return 0;
}

int WSPAPI WSCInstallProvider(LPGUID provider, const WCHAR* path, const LPWSAPROTOCOL_INFOW entries,
                              DWORD count, LPINT reason) {
  const Provider installed = {*provider, path, {entries, entries + count}};
  const int error =
      Change("install", [&](Machine& machine) { return machine.Install(kKind, installed); });
  return error != 0 ? Fail(error, reason) : 0;
}

int WSPAPI WSCDeinstallProvider(LPGUID provider, LPINT reason) {
  const int error =
      Change("deinstall", [&](Machine& machine) { return machine.Deinstall(kKind, *provider); });
  return error != 0 ? Fail(error, reason) : 0;
}

int WSPAPI WSCWriteProviderOrder(LPDWORD ids, DWORD count) {
  return Change("order", [&](Machine& machine) {
    return machine.WriteOrder(kKind, {ids, ids + count});
  });
}

int WSPAPI WSCGetApplicationCategory(LPCWSTR program, DWORD, LPCWSTR, DWORD, DWORD* permitted,
                                     LPINT reason) {
  Catalogues catalogues;
  const auto known = catalogues.image.applications.find(program);
  if (known == catalogues.image.applications.end()) return Fail(WSASERVICE_NOT_FOUND, reason);
  *permitted = known->second;
  return 0;
}

int WSPAPI WSCSetApplicationCategory(LPCWSTR program, DWORD, LPCWSTR, DWORD, DWORD permitted,
                                     DWORD*, LPINT reason) {
  const int error = Change(
      "permit", [&](Machine& machine) { return machine.PermitCategories(program, permitted); });
  return error != 0 ? Fail(error, reason) : 0;
}

}  // extern "C"
