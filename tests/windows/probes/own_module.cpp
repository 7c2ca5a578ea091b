// The calls are in a DLL with which the program is linked.
#include "probe.h"

extern "C" void TalkFromModule(const sockaddr_in* server);

int main(int argc, char** argv) {
  probe::Begin(argc, argv);
  TalkFromModule(&probe::g_server);
  return probe::End();
}
