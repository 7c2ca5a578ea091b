// Also built against the older Winsock library and against libraries that import by ordinal: see
// CMakeLists.txt.
#include "plain_work.h"

int main(int argc, char** argv) {
  probe::Begin(argc, argv);
  probe::PlainWork();
  return probe::End();
}
