#include "client/sample/sample.h"

#include <set>

#include "client/fields/fields.h"
#include "client/fields/toml_text.h"

namespace client {
namespace {

constexpr size_t kCommentWidth = 92;  // columns

constexpr char kHeading[] =
    "# The games that are served, and the tables that say which of their connections go through\n"
    "# which node. A key that is left out is 0 or empty, unless its comment says otherwise;\n"
    "# \"required\" marks those that must not be left out. Texts are UTF-8 and hold at most the\n"
    "# number of bytes that their comment gives.\n"
    "#\n"
    "#   vyr_client check FILE                 says whether a file is right\n"
    "#   vyr_client explain --file FILE ADDRESS:PORT tcp\n"
    "#                                         says how a destination is decided, and why\n"
    "#   vyr_client serve FILE                 puts it where games find it, and follows changes\n"
    "\n";

std::string Comment(const std::string& text, size_t indent = 0) {
  std::string out;
  const std::string margin = std::string("#").append(indent, ' ');
  std::string line = margin;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find(' ', at), text.size());
    const std::string word = text.substr(at, end - at);
    if (line.size() + 1 + word.size() > kCommentWidth) {
      out += line + "\n";
      line = margin;
    }
    line += " " + word;
    at = end + 1;
  }
  return out + line + "\n";
}

std::string Bounds(const Field& field) {
  if (field.kind == Kind::kAddress || field.shape != nullptr) return "";
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

// The library writes beside what has no separator at its end.
std::string AsFolder(const std::string& path) {
  const bool is_folder = path.empty() || path.back() == '\\' || path.back() == '/';
  return is_folder ? path : path + "\\";
}

class Writer {
 public:
  explicit Writer(const SampleOptions& options) : options_(options) {}

  // Values first, tables behind them, since TOML allows no other order.
  void Record(const Shape& shape, const std::string& path) {
    const bool explained = !explained_.insert(&shape).second;
    for (const Field& field : shape.fields) {
      if (field.shape != nullptr) continue;
      if (!explained) text_ += Heading(field) + Explain(field);
      if (field.sample != nullptr || field.kind == Kind::kPath || field.kind == Kind::kDirectory) {
        text_ += std::string(field.key) + " = " + SampleValue(field) + "\n";
      }
    }
    for (const Field& field : shape.fields) {
      if (field.shape == nullptr) continue;
      const std::string name = path.empty() ? field.key : path + "." + field.key;
      if (field.example != nullptr) {
        Example(field, name);
        continue;
      }
      text_ += "\n";
      if (!explained) text_ += Comment(Describe(field));
      text_ += field.capacity != 0 ? "[[" + name + "]]\n" : "[" + name + "]\n";
      Record(*field.shape, name);
    }
  }

  std::string Take() { return std::move(text_); }

 private:
  static std::string Explain(const Field& field) {
    if (field.kind != Kind::kFromNode) return Comment(Describe(field));
    return Comment("Instead of most of what follows, node = 'NAME': " + Describe(field));
  }

  // All keys first, then entries that use some of them.
  void Example(const Field& field, const std::string& name) {
    std::string line = "\n# --- [[" + name + "]] ";
    line.resize(kCommentWidth + 1, '-');
    text_ += line + "\n" + Comment(Describe(field));
    if (explained_.insert(field.shape).second) Keys(*field.shape, 2);
    text_ += std::string("\n") + field.example;
  }

  void Keys(const Shape& shape, size_t indent) {
    for (const Field& field : shape.fields) {
      text_ += Comment(std::string(field.key) + ": " + Describe(field), indent);
      if (field.shape != nullptr && explained_.insert(field.shape).second) {
        Keys(*field.shape, indent + 2);
      }
    }
  }

  std::string SampleValue(const Field& field) const {
    if (field.kind == Kind::kDirectory) return QuoteToml(AsFolder(options_.log_path));
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
  writer.Record(FileShape(), "");
  return writer.Take();
}

}  // namespace client
