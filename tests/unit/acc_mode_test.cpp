// What the configuration's modes allow each kind of socket.
#include "route/acc_mode.h"

#include <gtest/gtest.h>

namespace {

using namespace moru_vyr::lsp;

struct Modes {
  u32 net_mode;
  u32 acc_mode;
  i32 socket_type;
  ModeVerdict verdict;
};

TEST(AccMode, ModesAdmitEachKindOfSocket) {
  constexpr u32 kRefuse = kNetModeRefuseWithoutAccMode;
  const Modes rows[] = {
      {kNetModeTcp, 0, SOCK_STREAM, ModeVerdict::kMayRelay},
      {kNetModeTcp, 0, SOCK_DGRAM, ModeVerdict::kNotRelayed},
      {kNetModeUdp, 1, SOCK_STREAM, ModeVerdict::kNotRelayed},
      {kNetModeUdp, 1, SOCK_DGRAM, ModeVerdict::kMayRelay},
      {0, 1, SOCK_STREAM, ModeVerdict::kNotRelayed},
      {0, 1, SOCK_DGRAM, ModeVerdict::kNotRelayed},
      {0, 1, SOCK_RAW, ModeVerdict::kMayRelay},  // pings ask no further
      // The refusal comes first, whatever else is missing, and holds raw sockets too.
      {kRefuse, 0, SOCK_STREAM, ModeVerdict::kNeedsAccMode},
      {kRefuse | kNetModeTcp, 0, SOCK_STREAM, ModeVerdict::kNeedsAccMode},
      {kRefuse, 0, SOCK_RAW, ModeVerdict::kNeedsAccMode},
      {kRefuse | kNetModeTcp, 1, SOCK_STREAM, ModeVerdict::kMayRelay},
      {kRefuse, 2, SOCK_STREAM, ModeVerdict::kNotRelayed},
  };
  for (const Modes& row : rows) {
    EXPECT_EQ(ExamineModes(row.net_mode, row.acc_mode, row.socket_type), row.verdict)
        << row.net_mode << " " << row.acc_mode << " " << row.socket_type;
  }
}

}  // namespace
