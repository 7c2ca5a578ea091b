// One small file that survives a loss of power: every operation that returns true has reached the
// disk.
#pragma once
#include <optional>
#include <string>

namespace setup {

class Storage {
 public:
  virtual ~Storage() = default;

  // Nothing if there is no such file. *failed is set if there is one and it cannot be read.
  virtual std::optional<std::string> Read(bool* failed) = 0;
  // Replaces the whole file at once: after a cut it holds the old text or the new one.
  virtual bool Write(const std::string& text) = 0;
  // After a cut any beginning of `text` may be there.
  virtual bool Append(const std::string& text) = 0;
  // True if it is gone.
  virtual bool Remove() = 0;
};

class FileStorage : public Storage {
 public:
  explicit FileStorage(std::wstring path) : path_(std::move(path)) {}
  std::optional<std::string> Read(bool* failed) override;
  bool Write(const std::string& text) override;
  bool Append(const std::string& text) override;
  bool Remove() override;

 private:
  std::wstring path_;
};

}  // namespace setup
