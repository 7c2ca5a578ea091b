// Files by names in UTF-8, as all text of the client is, also where the platform's narrow names are
// in another code page.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace client {

std::filesystem::path PathOf(const std::string& name);

// The whole content, or the reason why there is none, in words.
struct FileText {
  std::optional<std::string> text;
  std::string problem;
};

// "-" is standard input.
FileText ReadWhole(const std::string& name);

// Writes beside the file first, so that whoever has it open finds all of the old content or all of
// the new. The reason in words, or nothing on success.
std::string WriteWhole(const std::string& name, const std::string& content);

// Why WriteWhole could not write there, in words; empty if it could. Leaves what stands there.
std::string WhyNotWritable(const std::string& name);

}  // namespace client
