// What the tables in force say of that which is reported.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "abi/report_records.h"
#include "client/fields/tables.h"
#include "client/watch/report.h"

namespace client {

// Nothing if no listed game has that number and such a program.
std::optional<uint32_t> MendedFor(const Tables& tables,
                                  const moru_vyr::lsp::LspLoadedRecord& record);

// By the route that the library would find for that game and data centre. Nothing if there is none,
// or if it leaves the direct way open.
std::optional<DirectWay> DirectWayTo(const Tables& tables, uint64_t game_id, uint32_t game_idc);

// Completes reports that have just been taken: `loaded` by what is mended, decisions and figures of
// traffic by the direct way. A process reads what is mended as it starts, so that is true unless
// the tables have changed since.
class TablesInForce {
 public:
  void Note(std::vector<Report>* reports, unsigned wait_ms);

 private:
  const Tables& Read(uint32_t oldest_ms, unsigned wait_ms);

  std::unique_ptr<Tables> tables_;
  uint32_t tick_ = 0;
};

}  // namespace client
