#include "common/function_trace.h"

#include <cstring>

#include "common/log.h"
#include "common/text.h"

namespace common {
namespace {

// Length of "moru_vyr::lsp::". Recognised by the colon at its end; shorter names are kept whole.
constexpr std::size_t kNamespaceSize = 15;

}  // namespace

FunctionTrace::FunctionTrace(const char* function_name) noexcept : active_(IsLogged(0)) {
  if (!active_) return;
  SetFieldText(name_, function_name);
  const std::size_t size = std::strlen(name_);
  if (size > kNamespaceSize && name_[kNamespaceSize - 1] == ':')
    std::memmove(name_, name_ + kNamespaceSize, size - kNamespaceSize + 1);
  LspLog(0, "%s begin", name_);
}

FunctionTrace::~FunctionTrace() {
  if (active_) LspLog(0, "%s end", name_);
}

}  // namespace common
