// Holds the mutex named in argument 1 until its standard input ends, like a program that has been
// stopped in the middle of its work.
#include <windows.h>

#include <cstdio>

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const HANDLE mutex = CreateMutexA(nullptr, FALSE, argv[1]);
  if (mutex == nullptr || WaitForSingleObject(mutex, 10'000) != WAIT_OBJECT_0) return 1;
  std::printf("held\n");
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
  return 0;
}
