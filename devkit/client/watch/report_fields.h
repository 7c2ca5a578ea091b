// The report records as data: one row for each field, from which JSON is written and read.
#pragma once

#include <cstddef>
#include <span>

#include "abi/report_channels.h"
#include "client/watch/report.h"

namespace client {

enum class Form {
  kUnsigned,
  kSigned,
  kFloat,     // eight bytes
  kText,      // up to its first zero
  kIp,        // dotted text; the number lies in network byte order
  kIpOfHost,  // the same, in host byte order
  kHex,       // bytes as text
  kRecord,    // of a shape of its own
};

struct ReportShape;

struct ReportField {
  const char* key;
  Form form;
  size_t offset;
  size_t size;       // bytes of the field, or of one entry of a list
  size_t count = 0;  // lists: how many entries
  const ReportShape* shape = nullptr;
};

struct ReportShape {
  size_t size;
  std::span<const ReportField> fields;
};

// A channel, and its name in the output.
struct ChannelRow {
  const char* name;
  const moru_vyr::lsp::ReportChannel* channel;
  ReportShape shape;
};

const ChannelRow& ChannelOf(ReportKind kind);

}  // namespace client
