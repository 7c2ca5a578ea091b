#pragma once

#include <cstdint>

namespace client {

// What an acc_reason of the decision reports means.
const char* ReasonWords(int32_t acc_reason);

}  // namespace client
