// What belongs to each simulated thread, although all of them share one thread of the host: its
// stack, its last error, the exceptions that it handles, and the failures that it was told to have.
#include <memory>
#include <string>

#include "port/sim/scenario.h"
#include "tests/unit/out_of_memory.h"

namespace {

SCENARIO_SEEDS(SimFiber, EachThreadHasItsOwnLastError, 5) {
  int wrong = 0;
  for (DWORD error = 1; error <= 4; ++error)
    world.Spawn(world.home(), "t" + std::to_string(error), [&wrong, error] {
      for (int i = 0; i < 20; ++i) {
        SetLastError(error);
        Sleep(i % 3);
        wrong += GetLastError() != error;
      }
    });
  EXPECT_TRUE(world.RunUntilAllEnd());
  EXPECT_EQ(wrong, 0);
}

// The order in which handlers end is not that in which they began.
SCENARIO(SimFiber, AnExceptionStaysWithTheThreadThatHandlesIt) {
  int number = 0;
  std::string text;
  world.Spawn(world.home(), "numbers", [&number] {
    try {
      throw 7;
    } catch (...) {
      Sleep(10);
      try {
        throw;
      } catch (const int& caught) {
        number = caught;
      }
    }
  });
  world.Spawn(world.home(), "texts", [&text] {
    Sleep(5);
    try {
      throw std::string("seven");
    } catch (...) {
      Sleep(10);
      try {
        throw;
      } catch (const std::string& caught) {
        text = caught;
      }
    }
  });
  EXPECT_TRUE(world.RunUntilAllEnd());
  EXPECT_EQ(number, 7);
  EXPECT_EQ(text, "seven");
}

SCENARIO(SimFiber, MemoryRunsOutForTheThreadThatAskedForIt) {
  constexpr size_t kSize = 1000;
  bool other_had_memory = false, had_memory = true;
  world.Spawn(world.home(), "poor", [&had_memory] {
    const test::OutOfMemory none(1, kSize, kSize);
    Sleep(10);
    had_memory = std::unique_ptr<char[]>(new (std::nothrow) char[kSize]) != nullptr;
  });
  world.Spawn(world.home(), "rich", [&other_had_memory] {
    Sleep(5);
    other_had_memory = std::unique_ptr<char[]>(new (std::nothrow) char[kSize]) != nullptr;
  });
  EXPECT_TRUE(world.RunUntilAllEnd());
  EXPECT_TRUE(other_had_memory);
  EXPECT_FALSE(had_memory);
}

SCENARIO(SimFiber, TheStackOfAThreadThatHasEndedIsUsedAgain) {
  const volatile char* first = nullptr;
  const volatile char* second = nullptr;
  for (const volatile char** place : {&first, &second}) {
    world.Spawn(world.home(), "one", [place] {
      const volatile char local = 0;
      *place = &local;
    });
    EXPECT_TRUE(world.RunUntilAllEnd());
  }
  EXPECT_EQ(first, second);
}

// Others may have pointers into it, as on Windows.
SCENARIO(SimFiber, TheStackOfAKilledThreadStays) {
  const std::string* text = nullptr;
  const DWORD id = world.Spawn(world.home(), "killed", [&text] {
    const std::string local = "what was on the stack of a thread that was killed";
    text = &local;
    Sleep(INFINITE);
  });
  RunFor(10ms);
  world.Terminate(id);
  for (int i = 0; i < 10; ++i) {
    world.Spawn(world.home(), "next", [] {
      volatile char some[4096];
      for (volatile char& one : some) one = 1;
      Sleep(1);
    });
  }
  EXPECT_TRUE(world.RunUntilAllEnd());
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(*text, "what was on the stack of a thread that was killed");
}

}  // namespace
