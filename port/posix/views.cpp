// Views that are mapped and unmapped: nobody watches them here.
#include "port/shared/backend.h"

namespace port {

void OnViewMapped(const std::string&, const void*, size_t) {}

void OnViewUnmapped(const void*) {}

}  // namespace port
