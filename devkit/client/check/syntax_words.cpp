#include "client/check/syntax_words.h"

#include <algorithm>
#include <array>

namespace client {
namespace {

constexpr std::string_view kParserPrefix = "Error while parsing ";
constexpr char kBlanks[] = " \t\r";

std::string_view LineAt(std::string_view text, unsigned number) {
  for (; number > 1 && !text.empty(); --number) {
    const size_t end = text.find('\n');
    text = end == std::string_view::npos ? "" : text.substr(end + 1);
  }
  return text.substr(0, text.find('\n'));
}

std::string_view Trimmed(std::string_view text) {
  const size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

bool Has(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

// The quoted text around that column, without its quotes; it ends with the line if it is open.
// Backslashes are taken for parts of a path, and not for escapes of a quote.
std::string QuotedAround(std::string_view line, size_t column, char quote) {
  size_t begin = std::string_view::npos;
  for (size_t at = 0; at < std::min(column, line.size()); ++at) {
    if (line[at] == quote) begin = begin == std::string_view::npos ? at : std::string_view::npos;
  }
  if (begin == std::string_view::npos) begin = line.find(quote);
  if (begin == std::string_view::npos) return "";
  const std::string_view rest = line.substr(begin + 1);
  return std::string(Trimmed(rest.substr(0, rest.find(quote))));
}

std::string EscapeWords(std::string_view line, size_t column) {
  const std::string path = QuotedAround(line, column, '"');
  return "in double quotes a backslash begins an escape: write a path in single quotes, '" + path +
         "'";
}

std::string OpenWords(std::string_view line, char quote) {
  // An earlier text of the line is closed; the last quote opens the one that is not.
  const size_t begin = line.rfind(quote);
  const std::string_view open = begin == std::string_view::npos ? line : line.substr(begin);
  return "the text that begins with " + std::string(Trimmed(open)) + " has no closing " + quote +
         " in its line";
}

// Of "key = VALUE", the value; of anything else, all.
std::string ValueOf(std::string_view line) {
  const size_t equals = line.find('=');
  const std::string_view value = equals == std::string_view::npos ? line : line.substr(equals + 1);
  return std::string(Trimmed(value.substr(0, value.find('#'))));
}

// A single quote opens texts in which a double one is ordinary, and the other way round.
char OpenQuote(std::string_view line) {
  char open = 0;
  for (size_t at = 0; at < line.size(); ++at) {
    const char c = line[at];
    if (open == '"' && c == '\\') {
      ++at;
    } else if (open == 0 && c == '#') {
      break;
    } else if (open == 0 ? c == '"' || c == '\'' : c == open) {
      open = open == 0 ? c : '\0';
    }
  }
  return open;
}

}  // namespace

std::string SyntaxWords(std::string_view text, unsigned line_number, unsigned column,
                        std::string_view found) {
  const std::string_view line = Trimmed(LineAt(text, line_number));
  const size_t margin = static_cast<size_t>(line.data() - LineAt(text, line_number).data());
  const size_t at = column > margin ? column - margin : 0;
  if (Has(found, "escape sequence") || Has(found, "unicode scalar")) return EscapeWords(line, at);
  if (const char open = OpenQuote(line); open != 0) {
    if (open == '"' && Has(line, "\\")) return EscapeWords(line, line.size());
    return OpenWords(line, open);
  }
  if (Has(found, "cannot redefine existing table") ||
      Has(found, "cannot redefine existing array")) {
    return std::string(line) +
           " stands in the file already; a further entry of a list is written "
           "with two brackets, [[ ]]";
  }
  if (Has(found, "table header")) return "the line begins with a [ that is not closed";
  if (Has(found, "cannot redefine existing")) {
    return "the key '" + std::string(Trimmed(line.substr(0, line.find('=')))) +
           "' stands in this table already";
  }
  if (Has(found, "expected '='")) return "'" + std::string(line) + "' has no '=' behind the key";
  if (Has(found, "expected value")) return "'" + std::string(line) + "' has no value";
  if (Has(found, "array: encountered end-of-file")) return "a list has no closing ]";
  if (Has(found, "boolean") || Has(found, "could not determine value type")) {
    return "'" + ValueOf(line) + "' is no value: texts stand in single quotes";
  }
  if (found.starts_with(kParserPrefix)) found.remove_prefix(kParserPrefix.size());
  return std::string(found);
}

std::string WhyWrongEncoding(std::string_view text) {
  const auto begins = [text](std::string_view mark) { return text.starts_with(mark); };
  const bool has_mark = begins("\xff\xfe") || begins("\xfe\xff");
  const bool has_zeros = text.size() >= 2 && (text[0] == '\0') != (text[1] == '\0');
  if (!has_mark && !has_zeros) return "";
  return "is UTF-16, and not UTF-8: save it as UTF-8 (where the shell's > writes UTF-16, use "
         "'vyr_client sample -o FILE')";
}

}  // namespace client
