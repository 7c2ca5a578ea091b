// The extension functions that applications ask for by GUID.
#pragma once
#include <winsock2.h>

namespace moru_vyr::lsp {

// Answers a query for an extension function that the next provider has already answered: if the 16
// bytes of `in` ask for ConnectEx, its address in `out` is replaced with WSPConnectEx. Every other
// function keeps the next provider's address. Kept: this happens also when the next provider
// failed, and for any size of `out`.
void AnswerExtensionQuery(const void* in, DWORD in_size, void* out) noexcept;

}  // namespace moru_vyr::lsp
