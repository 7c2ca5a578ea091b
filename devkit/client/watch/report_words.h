// Reports in words.
#pragma once

#include <cstdint>
#include <string>

#include "client/watch/report.h"

namespace client {

// What happened, in one line without its end and without the time.
std::string ReportWords(const Report& report);

// A decision or an outcome, shorter still, for a mark on a time axis.
std::string ReportMark(const Report& report);

std::string Endpoint(const std::string& address, uint32_t port);
std::string HostAddressText(uint32_t ip);  // host byte order
const char* NegotiationFailureWords(int32_t nego_result);
const char* TrialOutcomeWords(int32_t is_switch_succ);
std::string DelayWords(uint32_t delay);  // "12 ms", or that it was not measured
std::string LossWords(int64_t lost);     // "3 %", or what the code past 100 means
std::string BytesWords(double bytes);    // "1.4 MB"
std::string SpanWords(uint32_t ms);      // "2 min 5 s"

// "14:03:07.250", in local time.
std::string ClockText(uint64_t time_ms);

// Without what would move a terminal's cursor or colour its text.
std::string Printable(std::string text);

}  // namespace client
