// The bytes of the restriction region, as another client program would write them. (Offsets and
// sizes are asserted where the records are declared.)
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "abi/restriction_formats.h"
#include "common/shared_mem_header.h"

namespace {

using moru_vyr::lsp::AccConfigRecord;
using moru_vyr::lsp::RestrictionRegion;

class Bytes {
 public:
  void Put(std::size_t offset, std::initializer_list<int> bytes) {
    for (const int byte : bytes) data_[offset++] = static_cast<unsigned char>(byte);
  }
  void PutText(std::size_t offset, const char* text) {
    std::memcpy(data_.data() + offset, text, std::strlen(text));
  }
  const RestrictionRegion& AsRegion() const {
    return *reinterpret_cast<const RestrictionRegion*>(data_.data());
  }

 private:
  std::vector<unsigned char> data_ = std::vector<unsigned char>(134216);
};

TEST(RestrictionRegion, FieldsAreLittleEndianAtTheirOffsets) {
  Bytes bytes;
  bytes.Put(0, {0x48, 0x0c, 0x02, 0x00, 1, 0, 0, 0, 36, 0, 0, 0});
  constexpr std::size_t kThirdGame = 16 + 2 * 13368;
  bytes.Put(kThirdGame, {1});
  bytes.Put(kThirdGame + 8, {1, 2, 3, 4, 5, 6, 7, 8});
  bytes.Put(kThirdGame + 16, {0x30, 0x00, 0x03, 0x02});
  bytes.PutText(kThirdGame + 24 + 9 * 260, "C:\\game.exe");
  bytes.Put(kThirdGame + 2628 + 31 * 4, {0x50, 0xc3});
  bytes.PutText(kThirdGame + 3172 + 8, "198.51.100.10");
  bytes.Put(kThirdGame + 3172 + 40, {0x39, 0x30});
  bytes.Put(kThirdGame + 3336 + 19 * 336 + 332, {9});
  bytes.Put(kThirdGame + 10056 + 8 + 63 * 16 + 4, {0x0f, 0x27});
  bytes.Put(kThirdGame + 11156 + 128, {'z'});
  bytes.Put(kThirdGame + 11285, {1});
  bytes.Put(kThirdGame + 11312 + 255 * 8 + 4, {77});
  bytes.Put(kThirdGame + 13360, {3});
  bytes.PutText(133696, "route");
  bytes.PutText(133956, "second");

  const RestrictionRegion& region = bytes.AsRegion();
  EXPECT_EQ(region.header.shared_mem_size, 134216u);
  EXPECT_EQ(region.header.major_ver, common::kSharedMemMajorVersion);
  EXPECT_EQ(region.header.minor_ver, common::kSharedMemMinorVersion);
  const AccConfigRecord& game = region.games[2];
  EXPECT_EQ(game.valid, 1u);
  EXPECT_EQ(game.game_id, 0x0807060504030201u);
  EXPECT_EQ(game.net_mode, 0x02030030u);
  EXPECT_STREQ(game.game_paths[9], "C:\\game.exe");
  EXPECT_EQ(game.excluded_ports[31], 50000u);
  EXPECT_STREQ(game.forced_proxy.proxy_addr, "198.51.100.10");
  EXPECT_EQ(game.forced_proxy.proxy_port, 12345);
  EXPECT_EQ(game.manual_routes[19].last_node, 9u);
  EXPECT_EQ(game.reachability.records[63].delay, 9999u);
  EXPECT_EQ(game.list_text[128], 'z');
  EXPECT_EQ(game.game_link_switch_open, 1);
  EXPECT_EQ(game.port_idc_records[255].idc, 77u);
  EXPECT_EQ(game.game_vip_level, 3u);
  EXPECT_STREQ(region.route_binary_file_path, "route");
  EXPECT_STREQ(region.second_path, "second");
}

TEST(RestrictionRegion, FreshRecordIsAllZero) {
  const std::vector<unsigned char> zeros(sizeof(AccConfigRecord));
  const AccConfigRecord record;
  EXPECT_EQ(std::memcmp(&record, zeros.data(), sizeof record), 0);
}

}  // namespace
