// A catalogue with entries of other vendors: circular chains, impossible chain lengths, layers
// above and below. For any content, a start gets a record of our own list or none.
#include <winsock2.h>
#include <ws2spi.h>

#include <vector>

#include "check.h"
#include "common/process_info.h"
#include "input.h"
#include "port/shared/catalogue.h"
#include "start/catalogue.h"
#include "start/provider_match.h"

namespace {

using namespace moru_vyr::lsp;

// Small numbers, so that ids collide.
WSAPROTOCOL_INFOW Entry(fuzz::Input* input) {
  WSAPROTOCOL_INFOW entry = {};
  if (input->Byte() % 4 == 0) entry.ProviderId = kLspGuid;
  entry.dwCatalogEntryId = static_cast<DWORD>(input->Byte() % 16);
  entry.ProtocolChain.ChainLen = input->Byte() - 120;  // most of them out of range
  if (input->Byte() % 2 == 0) entry.ProtocolChain.ChainLen = input->Byte() % 9;
  for (DWORD& id : entry.ProtocolChain.ChainEntries) id = static_cast<DWORD>(input->Byte() % 16);
  entry.iAddressFamily = AF_INET;
  entry.iSocketType = 1 + input->Byte() % 3;
  entry.iProtocol = input->Byte() % 2 == 0 ? 6 : 17;
  entry.dwServiceFlags1 = static_cast<DWORD>(input->Byte() % 2) * XP1_IFS_HANDLES;
  return entry;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  fuzz::Input input(data, size);
  WSAPROTOCOL_INFOW in_info = Entry(&input);
  std::vector<WSAPROTOCOL_INFOW> catalogue;
  while (!input.empty() && catalogue.size() < 64) catalogue.push_back(Entry(&input));
  port::SetCatalogue(catalogue);
  common::GetProcessInfo().lsp_catalog_id = 0;

  LspProvider* list = nullptr;
  int count = 0;
  if (!GetProviders(&list, &count)) return 0;
  const GlobalPtr<LspProvider> owner(list);
  const LspProvider* const found = FindMatchingProvider(&in_info, list, count);
  fuzz::Require(found == nullptr || (found >= list && found < list + count),
                "a record of our own list");
  return 0;
}
