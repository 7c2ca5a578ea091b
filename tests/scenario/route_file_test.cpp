// The route file while the client program is writing it.
#include "route/route_file.h"

#include "port/shared/faults.h"
#include "port/sim/scenario.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_texts.h"
#include "tests/support/temp_dir.h"

namespace {

using moru_vyr::lsp::LoadRouteFromBinFile;
using namespace sim;  // NOLINT: a scenario says 5ms

class RouteFile : public ScenarioTest {
 protected:
  RouteFile() {
    const HANDLE file = CreateFileW(test::Wide(path).c_str(), GENERIC_WRITE, 0, nullptr,
                                    CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    DWORD written = 0;
    EXPECT_TRUE(WriteFile(file, "route", 5, &written, nullptr));
    CloseHandle(file);
  }
  bool Load() { return LoadRouteFromBinFile(path.c_str(), buffer, 5); }

  test::TempDir dir;
  const std::string path = dir / "route.bin";
  char buffer[5] = {};
};

SCENARIO_F(RouteFile, IsOpenedAtOnceIfItIsNotInUse) {
  const Duration start = world.now();
  EXPECT_TRUE(Load());
  EXPECT_LT(world.now() - start, 5ms);
}

SCENARIO_F(RouteFile, IsTriedFiveTimesWithFiveMillisecondsBetween) {
  for (unsigned nth = 1; nth <= 4; ++nth)
    port::FailCall("CreateFileW", nth, ERROR_SHARING_VIOLATION);
  const Duration start = world.now();
  EXPECT_TRUE(Load());
  EXPECT_EQ(std::string(buffer, 5), "route");
  EXPECT_GE(world.now() - start, 20ms);
  EXPECT_LT(world.now() - start, 25ms);
  EXPECT_EQ(port::CallCount("CreateFileW"), 5u);
}

SCENARIO_F(RouteFile, IsAbandonedAfterFiveAttempts) {
  test::LogCapture log(4);
  port::FailCall("CreateFileW", 0, ERROR_SHARING_VIOLATION);
  EXPECT_FALSE(Load());
  EXPECT_EQ(port::CallCount("CreateFileW"), 5u);
  port::ClearFaults();
  EXPECT_TRUE(log.Contains(test::kFileShared)) << log.Text();
}

}  // namespace
