// The TOML library as the client uses it: a parser that answers instead of throwing.
#pragma once

// Its names do not survive the macros of Windows' headers.
#pragma push_macro("time")
#undef time
#define TOML_EXCEPTIONS 0
#include <toml++/toml.h>
#pragma pop_macro("time")
