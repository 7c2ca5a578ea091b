// Reports as JSON, a line each, and back: what `watch --json` prints, `watch --from` reads.
#pragma once

#include <optional>
#include <string>

#include "client/check/problems.h"
#include "client/watch/report.h"

namespace client {

// Every field of the record under its own name, behind "event" (the channel), "time" (milliseconds
// since 1970) and "slot". Without a line's end.
std::string ReportJson(const Report& report);

// Nothing if the line is not such a report; *problem then says what is wrong with it, without a
// line number, or has no reason if the line is another of this program's events. Fields that are
// left out are zero.
std::optional<Report> ReportFromJson(const std::string& line, Problem* problem);

}  // namespace client
