// How every reader of the file describes one of its nodes.
#pragma once

#include <cstddef>
#include <string>

#include "client/check/problems.h"
#include "client/check/toml.h"

namespace client {

unsigned LineOf(const toml::node& node);
const char* TypeName(const toml::node& node);  // "a text"

// That of the key, "game[0].forced_proxy.flag", or of the innermost table around it where the key
// is left out.
unsigned LineOfKey(const toml::table& root, const std::string& key);

std::string EntryKey(const std::string& key, size_t index);  // "route[3]"

void AddError(Problems* problems, unsigned line, const std::string& key, const std::string& reason);

}  // namespace client
