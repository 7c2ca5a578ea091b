#include "client/sample.h"

#include <set>

#include "client/fields.h"

namespace client {
namespace {

constexpr size_t kCommentWidth = 92;  // columns

constexpr char kHeading[] =
    "# The games that are served. A key that is left out is 0 or empty, unless its comment says\n"
    "# otherwise; \"required\" marks those that must not be left out. Texts are UTF-8 and hold at\n"
    "# most the number of bytes that their comment gives.\n"
    "#\n"
    "#   vyr_client check FILE    says whether a file is right\n"
    "#   vyr_client serve FILE    puts it where games find it when they start\n"
    "\n";

std::string Comment(const std::string& text) {
  std::string out;
  std::string line = "#";
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find(' ', at), text.size());
    const std::string word = text.substr(at, end - at);
    if (line.size() + 1 + word.size() > kCommentWidth) {
      out += line + "\n";
      line.assign(1, '#');
    }
    line += " " + word;
    at = end + 1;
  }
  return out + line + "\n";
}

std::string Bounds(const Field& field) {
  if (field.kind == Kind::kAddress || field.kind == Kind::kRecord) return "";
  if (field.IsText()) return "at most " + std::to_string(field.size - 1) + " bytes";
  if (field.kind == Kind::kNumber && (field.min != 0 || field.max != 0 || field.size < 4)) {
    return std::to_string(field.min) + " to " + std::to_string(field.Max());
  }
  return "";
}

std::string Describe(const Field& field) {
  std::string notes = field.required ? "required" : "";
  if (const std::string bounds = Bounds(field); !bounds.empty()) {
    notes += (notes.empty() ? "" : "; ") + bounds;
  }
  return std::string(field.doc) + (notes.empty() ? "" : " (" + notes + ")");
}

std::string Heading(const Field& field) {
  if (field.heading == nullptr) return "";
  std::string line = std::string("\n# --- ") + field.heading + " ";
  line.resize(kCommentWidth, '-');
  return line + "\n";
}

class Writer {
 public:
  explicit Writer(const SampleOptions& options) : options_(options) {}

  // Values first, tables behind them, since TOML allows no other order.
  void Record(const Shape& shape, const std::string& path) {
    const bool explained = !explained_.insert(&shape).second;
    for (const Field& field : shape.fields) {
      if (field.kind == Kind::kRecord) continue;
      if (!explained) text_ += Heading(field) + Comment(Describe(field));
      text_ += std::string(field.key) + " = " + SampleValue(field) + "\n";
    }
    for (const Field& field : shape.fields) {
      if (field.kind != Kind::kRecord) continue;
      const std::string name = path.empty() ? field.key : path + "." + field.key;
      text_ += "\n";
      if (!explained) text_ += Comment(Describe(field));
      text_ += field.capacity != 0 ? "[[" + name + "]]\n" : "[" + name + "]\n";
      Record(*field.shape, name);
    }
  }

  std::string Take() { return std::move(text_); }

 private:
  std::string SampleValue(const Field& field) const {
    if (field.kind == Kind::kDirectory) return QuoteToml(options_.log_path);
    if (field.kind != Kind::kPath) return field.sample;
    std::string list;
    for (const std::string& path : options_.game_paths) list += "  " + QuoteToml(path) + ",\n";
    return "[\n" + list + "]";
  }

  const SampleOptions& options_;
  std::set<const Shape*> explained_;  // a shape that comes again is not explained again
  std::string text_ = kHeading;
};

}  // namespace

std::string WriteSample(const SampleOptions& options) {
  Writer writer(options);
  writer.Record(RegionShape(), "");
  return writer.Take();
}

std::string QuoteToml(const std::string& text) {
  const bool literal = text.find_first_of("'\x7f") == std::string::npos &&
                       text.find_first_of("\n\r\t\b\f") == std::string::npos;
  if (literal) return "'" + text + "'";
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      quoted += {'\\', c};
    } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04X", static_cast<unsigned>(c));
      quoted += escape;
    } else {
      quoted += c;
    }
  }
  return quoted + "\"";
}

}  // namespace client
