// How the file's tables refer to each other: nodes and data centres, by name or by number.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "client/check/problems.h"
#include "client/check/toml.h"
#include "client/fields/fields.h"
#include "client/fields/tables.h"

namespace client {

// A node is known once it is in the tables, so nodes are read before anything that names them.
class References {
 public:
  References(const Tables& tables, Problems* problems) : tables_(tables), problems_(problems) {}

  static bool IsReference(Kind kind);

  // The name and number that an [[idc]] of the file gave.
  void AddDataCentre(const std::string& name, uint32_t game_idc) { idcs_.emplace(name, game_idc); }

  // A reference by name.
  void Resolve(const std::string& name, unsigned line, const Field& field, std::byte* to,
               const std::string& key);
  // A node by number, as it was stored at that place: it must be there.
  void CheckNode(const std::byte* number, unsigned line, const std::string& key);

  // Adds to the first report of each unknown name the lines where it stands as well.
  void NameOtherPlaces();

  // Fills a proxy from the node that its table names. True if the table names one.
  bool TakeOverNode(const toml::table& table, const Shape& shape, std::byte* record,
                    const std::string& path);

 private:
  void NoSuchNode(const std::string& name, unsigned line, const std::string& key);
  void Unresolved(const std::string& name, unsigned line, const std::string& key, const char* list,
                  const std::vector<std::string_view>& names);

  const Tables& tables_;
  Problems* const problems_;
  std::map<std::string, uint32_t> idcs_;
  std::map<std::string, std::set<unsigned>> other_lines_;  // by the reason of the first report
};

}  // namespace client
