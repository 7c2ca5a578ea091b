// Every region of the route policy, for those who write all of them. (The restriction region, which
// lists the games, is in restriction_formats.h.)
#pragma once
#include "route/blacklist_formats.h"
#include "route/ip_table_formats.h"
#include "route/launch_test_formats.h"
#include "route/proxy_formats.h"
#include "route/route_table_formats.h"
