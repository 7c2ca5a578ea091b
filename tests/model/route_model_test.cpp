// The same questions go to the route policy and to its model, on random tables. Both must answer
// alike, to the last byte of every record that they fill.
//
// Each seed is a world of tables with a series of destinations. A failure prints its seed; with
// VYR_SEED set to it, only that world is run.
#include <winsock2.h>
//
#include <windows.h>

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "common/process_info.h"
#include "common/text.h"
#include "route/acc_config.h"
#include "route/route.h"
#include "tests/model/client_regions.h"
#include "tests/model/route_model.h"
#include "tests/model/route_world.h"
#include "tests/support/temp_dir.h"

namespace test {
namespace {

using namespace moru_vyr::lsp;

#ifdef NDEBUG
constexpr u64 kWorlds = 3000;
constexpr u64 kFullWorlds = 40;
#else
constexpr u64 kWorlds = 250;  // unoptimised and sanitized
constexpr u64 kFullWorlds = 6;
#endif
constexpr int kDestinations = 40;  // per world
constexpr char kGame[] = "C:\\Games\\dawn.exe";

// --- what is compared ------------------------------------------------------------------------

struct Field {
  const char* name;
  std::size_t offset;
};

constexpr Field kInfoFields[] = {
    {"used", 0},
    {"guid", 1},
    {"reserved_66", 66},
    {"acc_reason", 68},
    {"game_id", 72},
    {"zone_id", 80},
    {"net_mode", 88},
    {"process_id", 92},
    {"socket", 96},
    {"socket_type", 104},
    {"game_ip", 108},
    {"game_port", 112},
    {"game_idc", 116},
    {"entry_word3", 120},
    {"entry_word4", 124},
    {"entry_name", 128},
    {"entry_word21", 192},
    {"direct_delay", 196},
    {"direct_lost", 200},
    {"header0", 204},
    {"header1", 208},
    {"header2", 212},
    {"entry_word0", 216},
    {"entry_word1", 220},
    {"header3", 224},
    {"top_proxy[0]", 228},
    {"top_proxy[1]", 392},
    {"top_proxy[2]", 556},
    {"selected_proxy", 720},
    {"game_launch_test_use", 884},
    {"reserved_885", 885},
    {"glt_route_info", 888},
    {"glt_word", 1124},
};
constexpr Field kPairFields[] = {
    {"proxies[0]", 0}, {"proxies[1]", 164}, {"game_idc", 328}, {"last_node", 332}};

// Names the field in which the two records differ, or is empty.
template <typename Record, std::size_t N>
std::string Difference(const Record& product, const Record& model, const Field (&fields)[N]) {
  const u8* const a = reinterpret_cast<const u8*>(&product);
  const u8* const b = reinterpret_cast<const u8*>(&model);
  for (std::size_t i = 0; i < sizeof product; ++i) {
    if (a[i] == b[i]) continue;
    const Field* field = &fields[0];
    for (const Field& candidate : fields)
      if (candidate.offset <= i) field = &candidate;
    std::ostringstream text;
    text << field->name << ", byte " << i - field->offset << ": the product has " << int{a[i]}
         << ", the model " << int{b[i]};
    return text.str();
  }
  return "";
}

// The bytes after the end of a text do not matter.
template <std::size_t N>
void WipeBehindText(char (&field)[N]) {
  std::size_t end = 0;
  while (end < N && field[end] != '\0') ++end;
  std::memset(field + end, 0, N - end);
}

void WipeBehindTexts(RouteProxyInfo* proxy) {
  WipeBehindText(proxy->proxy_addr);
  WipeBehindText(proxy->proxy_name);
}

// What a session keeps from its decision to its switches.
struct Session {
  AccDecisionInfo info;
  SwitchProxyInfo record;
};

void WipeBehindTexts(Session* session) {
  WipeBehindText(session->info.guid);
  WipeBehindText(session->info.entry_name);
  for (RouteProxyInfo& proxy : session->info.top_proxy) WipeBehindTexts(&proxy);
  WipeBehindTexts(&session->info.selected_proxy);
  WipeBehindTexts(&session->info.glt_route_info.proxy);
  for (RouteProxyInfo& proxy : session->record.proxies) WipeBehindTexts(&proxy);
}

// --- one world -------------------------------------------------------------------------------

// The answers that have occurred, over all worlds: a comparison proves nothing about an answer that
// never did.
struct Coverage {
  u64 destinations = 0;
  std::array<u64, 2> relay = {};
  std::map<i32, u64> reasons;
  std::map<RouteModel::SwitchSource, u64> switches;
  std::map<u32, u64> lags;  // 0, 20, 50, and all others as 1
};

class Comparison {
 public:
  Comparison(u64 seed, WorldSize size, const TempDir& dir, Coverage* coverage)
      : dice_(seed), world_(MakeWorld(dice_, size)), coverage_(coverage) {
    PrepareFile(dir);
    // Some regions are created only while the game runs.
    late_routes_ = world_->has_route_region && dice_.OneIn(8);
    if (late_routes_) world_->has_route_region = false;
    common::SetFieldText(common::GetProcessInfo().process_path, kGame);
    common::SetFieldText(world_->config.game_paths[0], kGame);
    world_->config.path_count = 1;
    regions_ = std::make_unique<ClientRegions>(*world_);
    model_ = std::make_unique<RouteModel>(*world_);
    ReadConfig();
    route_ = std::make_unique<Route>();
  }
  ~Comparison() {
    ReplaceAccConfig(AccConfig{});
    common::GetProcessInfo() = {};
  }
  Comparison(const Comparison&) = delete;
  Comparison& operator=(const Comparison&) = delete;

  void Run() {
    Expect("Load", route_->Load(50, 100), model_->Load());
    const int destinations = world_->route_file == RouteFile::kMissing ? 2 : kDestinations;
    for (int i = 0; i < destinations && !testing::Test::HasFailure(); ++i) {
      asked_.str("");
      asked_ << "destination " << i << ": ";
      if (dice_.OneIn(4)) ChangeTables();
      AskAboutOneDestination();
      ++coverage_->destinations;
    }
  }

 private:
  void PrepareFile(const TempDir& dir) {
    if (world_->route_file == RouteFile::kNoPath) return;
    const std::string path =
        world_->route_file == RouteFile::kMissing ? dir / "none.bin" : dir / "routes.bin";
    common::SetFieldText(world_->config.route_binary_file_path, path);
    if (world_->route_file == RouteFile::kMissing) return;
    std::string bytes(reinterpret_cast<const char*>(&world_->route_file_image),
                      sizeof world_->route_file_image);
    if (world_->route_file == RouteFile::kTooShort) bytes.pop_back();
    if (world_->route_file == RouteFile::kTooLong) bytes.push_back('\0');
    const HANDLE file = CreateFileW(Wide(path).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    DWORD written = 0;
    WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    CloseHandle(file);
    ASSERT_EQ(written, bytes.size()) << path;
  }

  // As at a start.
  void ReadConfig() {
    ReplaceAccConfig(AccConfig{});
    Expect("ReadAccConfig", ReadAccConfig(), world_->config.net_mode != 0);
    model_->ReadConfig();
  }

  // The client program at work while the game runs.
  void ChangeTables() {
    switch (dice_.Below(6)) {
      case 0:  // a new route table in the other buffer, then the flip
        FillRouteBuffer(dice_, &world_->route_buffers[world_->route_selector == 0 ? 1 : 0]);
        world_->route_selector = world_->route_selector == 0 ? 1 : 0;
        break;
      case 1:
        if (late_routes_) world_->has_route_region = true;
        break;
      case 2:
        world_->launch_test = MakeLaunchTest(dice_);
        break;
      case 3:
        ChangeSpurList();
        return;
      default:  // no client program does this under a running game; it saves worlds
        ChangeModes(dice_, &world_->config);
        regions_->PublishGames(*world_);
        ReadConfig();
        return;
    }
    regions_->PublishSmall(*world_);
  }

  // Counts only once it is signalled, and then from the next beat on.
  void ChangeSpurList() {
    world_->spur_list = MakeSpurList(dice_);
    regions_->PublishSmall(*world_);
    route_->OnUpdate(30000);  // the first beat makes the event
    if (dice_.OneIn(3)) return;
    const std::wstring name =
        L"spur_iplist_change_notify_" + std::to_wstring(GetCurrentProcessId());
    const HANDLE event = CreateEventW(nullptr, FALSE, FALSE, name.c_str());
    SetEvent(event);
    route_->OnUpdate(30000);
    CloseHandle(event);
    model_->ReloadSpurList();
  }

  void AskAboutOneDestination() {
    ip_ = AnyIp(dice_);
    port_ = AnyPort(dice_);
    const i32 types[] = {1, 1, 1, 2, 2, 2, 0, 3, -1};
    socket_type_ = dice_.Of(types);
    socket_ = static_cast<SOCKET>(dice_.Word());
    asked_ << "ip " << (ip_ & 0xFF) << '.' << (ip_ >> 8 & 0xFF) << '.' << (ip_ >> 16 & 0xFF) << '.'
           << (ip_ >> 24) << ", port " << ntohs(port_) << ", socket type " << socket_type_;
    if (dice_.OneIn(2)) AskGameIdc();
    if (dice_.OneIn(2)) AskRelay();
    if (dice_.OneIn(3)) AskLag();
    if (!dice_.OneIn(4)) AskDecision();
    for (u32 switches = dice_.Below(4); switches > 0; --switches) AskSwitch();
  }

  void AskGameIdc() {
    const bool ignore_port = dice_.OneIn(2);
    u32 product_idc = 12345;
    u32 model_idc = 12345;
    const bool product = route_->GetGameIDC(ip_, port_, &product_idc, ignore_port);
    const bool model = model_->GetGameIDC(ip_, port_, &model_idc, ignore_port);
    Expect(ignore_port ? "GetGameIDC of any port" : "GetGameIDC", product, model);
    Expect("the data centre of GetGameIDC", product_idc, model_idc);
    Expect("GetGameIDC of no place", route_->GetGameIDC(ip_, port_, nullptr, ignore_port), false);
  }

  void AskRelay() {
    const bool model = model_->NeedRelay(ip_, port_, socket_type_);
    ++coverage_->relay[model ? 1 : 0];
    Expect("NeedRelay", route_->NeedRelay(ip_, port_, socket_type_, socket_, 7), model);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ip_;
    address.sin_port = port_;
    Expect("NeedRelay of an address", route_->NeedRelay(&address, socket_type_, socket_, 7), model);
  }

  void AskLag() {
    const u32 model = model_->GetServerLag(ip_);
    ++coverage_->lags[model == 0 || model == 20 || model == 50 ? model : 1];
    Expect("GetServerLag", route_->GetServerLag(ip_), model);
  }

  void AskDecision() {
    if (dice_.OneIn(10)) RenewSession();
    const std::string guid(dice_.Below(3) * 32, 'g');  // 64 characters just fit
    const bool is_tcp = dice_.OneIn(4);
    const bool product = route_->MakeDecision(ip_, port_, socket_type_, guid, &product_.info,
                                              is_tcp ? nullptr : &product_.record, socket_, 7);
    const bool model =
        model_->MakeDecision(ip_, port_, socket_type_, guid, GetCurrentProcessId(), socket_,
                             &model_session_.info, is_tcp ? nullptr : &model_session_.record);
    ++coverage_->reasons[model_session_.info.acc_reason];
    Expect("MakeDecision", product, model);
    ExpectSessions("MakeDecision");
    Expect("MakeDecision of no place",
           route_->MakeDecision(ip_, port_, socket_type_, guid, nullptr, nullptr, socket_, 7),
           false);
  }

  void AskSwitch() {
    if (dice_.OneIn(4)) RenewSession();
    const u16 nodes[] = {0, 1, 1, 2, 3, 65535, static_cast<u16>(product_.record.last_node)};
    const u16 last_node = dice_.Of(nodes);
    const bool has_record = !dice_.OneIn(5);
    asked_ << ", last node " << last_node;
    const bool product = route_->MakeSwitchDecision(
        &product_.info, has_record ? &product_.record : nullptr, &last_node, 7);
    const bool model = model_->MakeSwitchDecision(
        &model_session_.info, has_record ? &model_session_.record : nullptr, last_node);
    ++coverage_->switches[model_->switch_source()];
    Expect("MakeSwitchDecision", product, model);
    ExpectSessions("MakeSwitchDecision");
  }

  // Another session, that has seen other tables.
  void RenewSession() {
    Session session;
    std::memset(static_cast<void*>(&session.info), dice_.OneIn(2) ? 0 : 0x5A, sizeof session.info);
    session.info.selected_proxy = AnyProxyInfo(dice_);
    session.info.game_idc = AnyGameIdc(dice_);
    session.record = AnySwitchProxyInfo(dice_);
    // Its own memory: texts have their ends.
    for (RouteProxyInfo* proxy :
         {&session.info.selected_proxy, &session.record.proxies[0], &session.record.proxies[1]}) {
      proxy->proxy_addr[31] = 0;
      proxy->proxy_name[63] = 0;
    }
    product_ = session;
    model_session_ = session;
  }

  template <typename T>
  void Expect(const char* what, const T& product, const T& model) {
    EXPECT_EQ(product, model) << what << " (first the product, then the model)\n" << asked_.str();
  }

  void ExpectSessions(const char* what) {
    WipeBehindTexts(&product_);
    WipeBehindTexts(&model_session_);
    EXPECT_EQ(Difference(product_.info, model_session_.info, kInfoFields), "")
        << "the info of " << what << '\n'
        << asked_.str();
    EXPECT_EQ(Difference(product_.record, model_session_.record, kPairFields), "")
        << "the switch record of " << what << '\n'
        << asked_.str();
  }

  Dice dice_;
  std::unique_ptr<World> world_;
  Coverage* const coverage_;
  bool late_routes_ = false;
  std::unique_ptr<ClientRegions> regions_;
  std::unique_ptr<RouteModel> model_;
  std::unique_ptr<Route> route_;
  Session product_;
  Session model_session_;
  std::ostringstream asked_;
  u32 ip_ = 0;
  u16 port_ = 0;
  i32 socket_type_ = 0;
  SOCKET socket_ = 0;
};

// --- many worlds -----------------------------------------------------------------------------

class RouteModelCheck : public testing::Test {
 protected:
  // Worlds of the seeds from `first` on, or the one that was asked for.
  void RunWorlds(u64 first, u64 count, WorldSize size) {
    if (const char* const wanted = std::getenv("VYR_SEED")) {
      first = std::strtoull(wanted, nullptr, 0);
      count = 1;
      single_ = true;
    }
    for (u64 seed = first; seed < first + count && !HasFailure(); ++seed) {
      Comparison(seed, size, dir_, &coverage_).Run();
      if (HasFailure()) SayHowToReplay(seed);
    }
    RecordProperty("destinations", std::to_string(coverage_.destinations));
  }

  void SayHowToReplay(u64 seed) {
    const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
    ADD_FAILURE() << "seed " << seed << "; to see it again:\n  VYR_SEED=" << seed
                  << " model_tests --gtest_filter=" << test.test_suite_name() << '.' << test.name();
  }

  TempDir dir_;
  Coverage coverage_;
  bool single_ = false;
};

TEST_F(RouteModelCheck, AgreesOnRandomTables) {
  RunWorlds(1, kWorlds, WorldSize::kSmall);
  if (single_ || HasFailure()) return;
  EXPECT_GE(coverage_.destinations, kWorlds * (kDestinations - 2));
  // Every answer has occurred, and often enough not to be an accident.
  EXPECT_GE(coverage_.relay[0], 100u);
  EXPECT_GE(coverage_.relay[1], 100u);
  for (const i32 reason : {-1, 0, 1, 2, 3, 4, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16})
    EXPECT_GE(coverage_.reasons[reason], 10u) << "acc_reason " << reason;
  for (const RouteModel::SwitchSource source :
       {RouteModel::SwitchSource::kNone, RouteModel::SwitchSource::kManual,
        RouteModel::SwitchSource::kRouteTable, RouteModel::SwitchSource::kSessionRecord})
    EXPECT_GE(coverage_.switches[source], 10u) << "switch source " << static_cast<int>(source);
  for (const u32 lag : {0u, 1u, 20u, 50u})
    EXPECT_GE(coverage_.lags[lag], 10u) << (lag == 1 ? "a stored lag" : "lag ") << lag;
}

// As many addresses as the region holds, and counts beyond.
TEST_F(RouteModelCheck, AgreesOnFullIpTables) {
  RunWorlds(1000001, kFullWorlds, WorldSize::kFull);
  if (!single_ && !HasFailure()) {
    EXPECT_GE(coverage_.relay[1], 1u);
  }
}

}  // namespace
}  // namespace test
