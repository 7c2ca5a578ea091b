// One value of the file as the bytes of its field.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "client/check/problems.h"
#include "client/check/toml.h"
#include "client/fields/fields.h"

namespace client {

// The records are little-endian, and so is every machine that this is built for.
void Store(std::byte* to, size_t size, uint64_t value);

// Reads values that do not depend on the rest of the file. A value that is refused leaves its bytes
// as they are and goes to `problems`.
class ValueReader {
 public:
  explicit ValueReader(Problems* problems) : problems_(problems) {}

  // False if the field takes no value of that type; nothing is reported then.
  bool Read(const toml::node& node, const Field& field, std::byte* to, const std::string& key);
  void WrongType(const toml::node& node, const Field& field, const std::string& key);

 private:
  bool ReadString(const std::string& text, unsigned line, const Field& field, std::byte* to,
                  const std::string& key);
  void Number(int64_t number, unsigned line, const Field& field, std::byte* to,
              const std::string& key);
  void BigNumber(const std::string& digits, unsigned line, const Field& field, std::byte* to,
                 const std::string& key);
  std::optional<uint64_t> Name(const std::string& written, unsigned line, const Field& field,
                               const std::string& key);
  void NameBits(const toml::array& list, const Field& field, std::byte* to, const std::string& key);
  void Text(const std::string& text, unsigned line, const Field& field, std::byte* to,
            const std::string& key);
  void Address(const std::string& text, unsigned line, const Field& field, std::byte* to,
               const std::string& key);
  void Bytes(const std::string& text, unsigned line, const Field& field, std::byte* to,
             const std::string& key);
  void Error(unsigned line, const std::string& key, const std::string& reason);

  Problems* const problems_;
};

}  // namespace client
