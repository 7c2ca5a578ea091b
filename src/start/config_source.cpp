#include "start/config_source.h"

#include "route/acc_config.h"

namespace moru_vyr::lsp {

bool ObtainAccConfig() noexcept { return ReadAccConfig(); }

}  // namespace moru_vyr::lsp
