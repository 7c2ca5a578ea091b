// What a process starts with, where memory runs out: each step refuses, and works again as soon as
// there is memory. The host must never see an exception of ours.
#include <gtest/gtest.h>

#include <string>

#include "common/log_file.h"
#include "common/process_info.h"
#include "common/text.h"
#include "route/acc_config.h"
#include "route/init_log.h"
#include "route/route_file.h"
#include "sockets/socket_map.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/out_of_memory.h"
#include "tests/unit/trace_capture.h"
#include "udp/udp_package_queue.h"

namespace moru_vyr::lsp {
namespace {

using test::OutOfMemory;

// So long that a copy of it is more than the platform ever allocates for itself.
std::string LongName() { return std::string(OutOfMemory::kOfTheProduct + 2, 'n'); }

bool HasTraced(const std::string& part) {
  for (const std::string& line : test::TraceCapture::lines())
    if (line.find(part) != std::string::npos) return true;
  return false;
}

TEST(WithoutMemory, ALogFileIsNotOpened) {
  const test::TempDir dir;
  const std::string path = dir / LongName();
  common::LogFile log;
  {
    const OutOfMemory none(1, OutOfMemory::kOfTheProduct);
    EXPECT_FALSE(log.Open(path));
  }
  EXPECT_TRUE(OutOfMemory::WasFelt());
  EXPECT_TRUE(log.Open(path));
}

TEST(WithoutMemory, AMissingLogIsTraced) {
  const test::TempDir dir;
  const test::TraceCapture trace;
  test::TraceCapture::lines().reserve(16);
  common::GetLogFile().Shut();
  AccConfig config;
  common::SetFieldText(config.log_path, dir / LongName() + "\\");
  ReplaceAccConfig(config);
  {
    const OutOfMemory none(1, OutOfMemory::kOfTheProduct);
    InitLog();
  }
  EXPECT_TRUE(HasTraced("InitLog: out of memory\n"));
  EXPECT_FALSE(common::GetLogFile().Write("line\n", 5));
  InitLog();
  EXPECT_TRUE(common::GetLogFile().Write("line\n", 5));
  common::GetLogFile().Shut();
  common::GetLogFile().SetLevel(common::LogFile::kInitialLevel);
  ReplaceAccConfig(AccConfig{});
}

TEST(WithoutMemory, ARouteFileIsNotRead) {
  const test::TempDir dir;
  const std::string path = dir / LongName();
  test::MakeSparseFile(path, 100);
  char buffer[100];
  {
    const OutOfMemory none(1, OutOfMemory::kOfTheProduct);
    EXPECT_FALSE(LoadRouteFromBinFile(path.c_str(), buffer, sizeof buffer));
  }
  EXPECT_TRUE(OutOfMemory::WasFelt());
  EXPECT_TRUE(LoadRouteFromBinFile(path.c_str(), buffer, sizeof buffer));
}

TEST(WithoutMemory, ASocketHasNoRecord) {
  constexpr SOCKET kSocket = 77;
  SocketMap map;
  {
    const OutOfMemory none(1, sizeof(SocketRecord));
    EXPECT_FALSE(map.Add(kSocket, SOCK_STREAM, IPPROTO_TCP, 9));
  }
  EXPECT_TRUE(OutOfMemory::WasFelt());
  EXPECT_EQ(map.Get(kSocket).socket, INVALID_SOCKET);
  EXPECT_TRUE(map.Add(kSocket, SOCK_STREAM, IPPROTO_TCP, 9));
}

TEST(WithoutMemory, ADatagramIsNotQueued) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  UdpPackageQueue queue;
  {
    const OutOfMemory none(1, OutOfMemory::kOfTheProduct);
    EXPECT_FALSE(queue.Push("x", 1, &address));
  }
  EXPECT_TRUE(OutOfMemory::WasFelt());
  EXPECT_TRUE(queue.Push("x", 1, &address));
}

}  // namespace
}  // namespace moru_vyr::lsp
