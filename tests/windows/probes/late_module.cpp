// The calls are in a DLL that is loaded after the program has used Winsock. It is loaded, used and
// unloaded once with each of the loader's functions.
#include "probe.h"

namespace {

using Talk = void (*)(const sockaddr_in*);

void TalkAndUnload(const char* how, HMODULE module) {
  probe::Say("%s: %s", how, module != nullptr ? "loaded" : "failed");
  if (module == nullptr) return;
  const auto talk =
      reinterpret_cast<Talk>(reinterpret_cast<void*>(GetProcAddress(module, "TalkFromModule")));
  talk(&probe::g_server);
  FreeLibrary(module);
}

}  // namespace

int main(int argc, char** argv) {
  probe::Begin(argc, argv);
  const SOCKET early = probe::ConnectedStream();
  TalkAndUnload("LoadLibraryA", LoadLibraryA("probe_module.dll"));
  TalkAndUnload("LoadLibraryW", LoadLibraryW(L"probe_module.dll"));
  TalkAndUnload("LoadLibraryExA", LoadLibraryExA("probe_module.dll", nullptr, 0));
  TalkAndUnload("LoadLibraryExW", LoadLibraryExW(L"probe_module.dll", nullptr, 0));
  probe::SayResult("early socket", send(early, "x", 1, 0));
  closesocket(early);
  return probe::End();
}
