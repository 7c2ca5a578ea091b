// All that the page shows, as one JSON document. The page's own script draws it, as often as it is
// given one.
#pragma once

#include <string>

#include "client/watch/flow_book.h"

namespace client {

// Valid UTF-8 on one line. Times are seconds since 1970, delays milliseconds, losses percent, and
// null is what is not known.
std::string PageData(const FlowBook& book);

}  // namespace client
