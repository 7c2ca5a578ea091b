// The TOML library as the client uses it: a parser that answers instead of throwing. To be
// included before any Windows header, whose macros its names do not survive.
#pragma once

#define TOML_EXCEPTIONS 0
#include <toml++/toml.h>
