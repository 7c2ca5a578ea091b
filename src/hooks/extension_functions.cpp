#include "hooks/extension_functions.h"

#include <mswsock.h>

#include <cstring>

#include "common/log.h"
#include "hooks/hook_entries.h"

namespace moru_vyr::lsp {
namespace {

struct ExtensionFunction {
  GUID id;
  const char* text;  // A3 BA is the full-width colon of code page GBK
};

// In the order in which they are compared. The first is the one that we replace.
const ExtensionFunction kExtensionFunctions[] = {
    {WSAID_CONNECTEX,
     "[Main]WSPIoctl\xA3\xBA"
     "extension function is ConnectEx"},
    {WSAID_ACCEPTEX,
     "[Main]WSPIoctl\xA3\xBA"
     "extension function is WSPAcceptEx"},
    {WSAID_TRANSMITFILE,
     "[Main]WSPIoctl\xA3\xBA"
     "extension function is TransmitFile"},
    {WSAID_DISCONNECTEX,
     "[Main]WSPIoctl\xA3\xBA"
     "extension function is DisconnectEx"},
    {WSAID_TRANSMITPACKETS,
     "[Main]WSPIoctl\xA3\xBA"
     "extension function is TransmitPackets"},
    {WSAID_WSARECVMSG,
     "[Main]WSPIoctl\xA3\xBA"
     "extension function is WsaRecvMsg"},
    {WSAID_WSASENDMSG,
     "[Main]WSPIoctl\xA3\xBA"
     "extension function is WSPWsaSendMsg"},
    {WSAID_GETACCEPTEXSOCKADDRS,
     "[Main]WSPIoctl\xA3\xBA"
     "extension function is GetAcceptExSockaddrs"},
};

const ExtensionFunction* Recognise(const void* id) {
  for (const ExtensionFunction& function : kExtensionFunctions) {
    if (std::memcmp(&function.id, id, sizeof function.id) == 0) return &function;
  }
  return nullptr;
}

}  // namespace

void AnswerExtensionQuery(const void* in, DWORD in_size, void* out) noexcept {
  if (in_size != sizeof(GUID) || in == nullptr) return;
  const ExtensionFunction* const function = Recognise(in);
  if (function == nullptr) {
    LSP_LOG(0,
            "[Main]WSPIoctl\xA3\xBA"
            "extension function is unknown");
    return;
  }
  if (function == &kExtensionFunctions[0] && out != nullptr) {
    const auto ours = &WSPConnectEx;
    std::memcpy(out, &ours, sizeof ours);
  }
  LSP_LOG(0, "%s", function->text);
}

}  // namespace moru_vyr::lsp
