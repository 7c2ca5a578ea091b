#include "abi/route_formats.h"
#include "client/fields/field_rows.h"

namespace client {
namespace {

using namespace moru_vyr::lsp;

constexpr char kAddressesDoc[] = "the game servers there, as dotted addresses";

constexpr Field kIdcFields[] = {
    {.key = "game_idc",
     AT(AddressGroup, game_idc),
     .doc = "number of the data centre. Its hundreds digit is the VIP level: 1301 holds the "
            "addresses of 1001 that users of level 3 may reach",
     .required = true,
     .min = 1},
    {.key = "name",
     .kind = Kind::kText,
     AT(AddressGroup, name),
     .doc = "a name for use in this file"},
    {.key = "vip_level",
     AT(AddressGroup, vip_level),
     .doc = "the hundreds digit of game_idc once more, as a check; may be left out",
     .max = 9},
    {.key = "addresses", .kind = Kind::kAddresses, .doc = kAddressesDoc, .required = true},
};

constexpr Field kSpurFields[] = {
    {.key = "game_idc",
     .kind = Kind::kIdc,
     AT(AddressGroup, game_idc),
     .doc = "the data centre, by name or by number",
     .required = true,
     .min = 1},
    {.key = "addresses", .kind = Kind::kAddresses, .doc = kAddressesDoc, .required = true},
};

constexpr NamedValue kProtocols[] = {{"TCP", kBlacklistTcp}, {"UDP", kBlacklistUdp}};

using Blocked = BlacklistRecord;
constexpr Field kBlacklistFields[] = {
    {.key = "type",
     .kind = Kind::kNames,
     AT(Blocked, type),
     .doc = "TCP (1) or UDP (2)",
     .required = true,
     .min = kBlacklistTcp,
     .max = kBlacklistUdp,
     .names = kProtocols},
    {.key = "ip", .kind = Kind::kIp, AT(Blocked, ip), .doc = "the address; left out: every one"},
    {.key = "port", AT(Blocked, port), .doc = "the port; left out or 0: every one", .max = 65535},
    {.key = "game_id",
     AT(Blocked, game_id),
     .doc = "the game that it holds for; left out or 0: every one"},
};

using Measured = GltRouteInfo;
constexpr Field kLaunchTestFields[] = {
    {.key = "game_idc",
     .kind = Kind::kIdc,
     AT(Measured, game_idc),
     .doc = "the data centre, by name or by number",
     .required = true,
     .min = 1},
    {.key = "glt_head",
     .kind = Kind::kHex,
     AT(Measured, glt_head),
     .doc = "carried into reports, as hexadecimal digits"},
    {.key = "proxy",
     .kind = Kind::kRecord,
     AT(Measured, proxy),
     .doc = "the node that was found best",
     .required = true,
     .shape = &kProxyShape},
};

}  // namespace

constexpr Shape kIdcShape = {"AddressGroup", sizeof(AddressGroup), kIdcFields};
constexpr Shape kSpurShape = {"AddressGroup", sizeof(AddressGroup), kSpurFields};
constexpr Shape kBlacklistShape = {"BlacklistRecord", sizeof(Blocked), kBlacklistFields};
constexpr Shape kLaunchTestShape = {"GltRouteInfo", sizeof(Measured), kLaunchTestFields};

}  // namespace client
