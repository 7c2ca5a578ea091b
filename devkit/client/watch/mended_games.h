// What the tables in force mend for the processes that began to be served.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "abi/report_records.h"
#include "client/fields/tables.h"
#include "client/watch/report.h"

namespace client {

// Nothing if no listed game has that number and such a program.
std::optional<uint32_t> MendedFor(const Tables& tables,
                                  const moru_vyr::lsp::LspLoadedRecord& record);

// Completes the `loaded` reports among these, which have just been taken. A process reads what is
// mended as it starts, so this is true unless the tables have changed since.
void NoteMended(std::vector<Report>* reports, unsigned wait_ms);

}  // namespace client
