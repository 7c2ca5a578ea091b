// For the developer build, in place of config_source.cpp.
#include "gametest/test_mode.h"
#include "start/config_source.h"

namespace moru_vyr::lsp {

bool ObtainAccConfig() noexcept { return ReadTestConfig(); }

}  // namespace moru_vyr::lsp
