// What the common layer waits for, what it does not wait for, and what it leaves unchanged.
#include <atomic>
#include <string>

#include "common/log.h"
#include "common/named_mutex.h"
#include "common/shared_mem_obj.h"
#include "port/shared/debug_output.h"
#include "port/sim/scenario.h"
#include "tests/support/threads.h"

namespace {

// The creator of a region fills it under its mutex. An object that did not wait would hand out a
// region without a header.
SCENARIO(SharedMemWaits, ConstructionWaitsForTheMutex) {
  common::NamedMutex mutex("waits_mutex");
  std::atomic<bool> held{false};
  test::RunThreads(2, [&](int i) {
    if (i == 0) {
      const common::NamedMutexGuard guard(&mutex, false);
      held = true;
      Sleep(500);
      return;
    }
    while (!held) Sleep(1);
    const DWORD start = GetTickCount();
    const common::Shared_mem_obj object("waits_mem", 16, "waits_mutex", false);
    EXPECT_GE(GetTickCount() - start, 400u);
  });
}

SCENARIO(TraceFaults, LastErrorSurvivesASinkThatChangesIt) {
  std::string seen;
  port::SetDebugSink([&](const char* text) {
    seen = text;
    SetLastError(5);
  });
  SetLastError(4711);
  common::LspTrace("x");
  const DWORD error = GetLastError();
  port::SetDebugSink(nullptr);
  EXPECT_EQ(seen, "[LspTrace]x\n");
  EXPECT_EQ(error, 4711u);
}

}  // namespace
