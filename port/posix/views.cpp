// This backend does not watch views.
#include "port/shared/backend.h"

namespace port {

void OnViewMapped(const std::string&, const void*, size_t) {}

void OnViewUnmapped(const void*) {}

}  // namespace port
