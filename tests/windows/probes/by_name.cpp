// Also built with the older Winsock library, and with import libraries that import by ordinal: see
// CMakeLists.txt.
#include "plain_work.h"

int main(int argc, char** argv) {
  probe::Begin(argc, argv);
  probe::PlainWork();
  return probe::End();
}
