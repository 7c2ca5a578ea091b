// The TOML library as the client uses it: a parser that returns errors instead of throwing.
#pragma once

// Some of its names clash with macros of the Windows headers.
#pragma push_macro("time")
#undef time
#define TOML_EXCEPTIONS 0
#include <toml++/toml.h>
#pragma pop_macro("time")
