// Every region of the route policy, for code that writes all of them. (The restriction region,
// which lists the games, is in restriction_formats.h.)
#pragma once
#include "abi/blacklist_formats.h"
#include "abi/ip_table_formats.h"
#include "abi/launch_test_formats.h"
#include "abi/proxy_formats.h"
#include "abi/route_table_formats.h"
