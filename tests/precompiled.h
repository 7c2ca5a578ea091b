#pragma once
// What nearly every test includes, parsed once for a suite. A file still includes what it uses.
#if defined(_WIN32)
#include <gtest_notification.h>
#endif
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>
