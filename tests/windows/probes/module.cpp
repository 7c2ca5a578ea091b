// A program's DLL, which makes the calls.
#include "plain_work.h"

extern "C" __declspec(dllexport) void TalkFromModule(const sockaddr_in* server) {
  probe::g_server = *server;
  probe::PlainWork();
}
