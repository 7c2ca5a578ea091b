// Reports as JSON, a line each, and back: what `watch --json` prints, `watch --from` reads.
#pragma once

#include <optional>
#include <string>

#include "client/watch/report.h"

namespace client {

// Every field of the record under its own name, behind "event" (the channel), "time" (milliseconds
// since 1970) and "slot". Without a line's end.
std::string ReportJson(const Report& report);

// Nothing where the line is no such report; *why then says what is wrong with it, or is empty where
// the line is another of this program's events. Fields that are left out are zero.
std::optional<Report> ReportFromJson(const std::string& line, std::string* why);

}  // namespace client
