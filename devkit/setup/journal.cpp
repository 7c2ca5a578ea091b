#include "setup/journal.h"

#include <nlohmann/json.hpp>

#include "setup/image_json.h"

namespace setup {

bool Journal::Begin(const MachineImage& before) {
  return file_->Write(ToJson(before).dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
}

bool Journal::Note(const std::string& step) {
  return file_->Append(Json(step).dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
}

bool Journal::End() { return file_->Remove(); }

std::optional<MachineImage> Journal::Left(std::string* problem) {
  bool failed = false;
  const std::optional<std::string> text = file_->Read(&failed);
  if (failed) *problem = "it cannot be read";
  if (!text) return std::nullopt;
  MachineImage before;
  if (!ParseImage(text->substr(0, text->find('\n')), &before, problem)) return std::nullopt;
  return before;
}

}  // namespace setup
