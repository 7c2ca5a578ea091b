// A machine with both catalogues behind the installation calls, for the tests of vyr_setup: the
// 32-bit one is the port's, the 64-bit one is swapped in for each call. Files are in memory. Any
// step may be the last before a cut.
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "port/shared/catalogue.h"
#include "port/shared/faults.h"
#include "port/shared/installation.h"
#include "setup/commands.h"
#include "setup/image_json.h"
#include "setup/install_calls.h"
#include "setup/winsock_machine.h"

namespace setup_test {

using setup::Kind;

struct Cut {};  // thrown where the process is killed

// Counts the points at which a process can be killed, and kills it at one of them.
class Fuse {
 public:
  void Set(int points) { left_ = points; }
  void Off() { left_ = -1; }
  bool IsBurnt() const { return left_ == 0; }
  void Pass() {
    if (left_ > 0 && --left_ == 0) throw Cut{};
  }

 private:
  int left_ = -1;
};

// A file. A cut in the middle of an addition leaves half of it.
class MemoryFile : public setup::Storage {
 public:
  MemoryFile(std::string name, Fuse* fuse) : name_(std::move(name)), fuse_(fuse) {}

  std::optional<std::string> Read(bool* failed) override {
    *failed = port::Fails((name_ + " Read").c_str());
    return *failed ? std::nullopt : content;
  }
  bool Write(const std::string& text) override {
    fuse_->Pass();
    if (port::Fails((name_ + " Write").c_str())) return false;
    content = text;
    fuse_->Pass();
    return true;
  }
  bool Append(const std::string& text) override {
    if (port::Fails((name_ + " Append").c_str())) return false;
    *content += text.substr(0, text.size() / 2);
    fuse_->Pass();
    *content += text.substr(text.size() / 2);
    return true;
  }
  bool Remove() override {
    fuse_->Pass();
    if (port::Fails((name_ + " Remove").c_str())) return false;
    content.reset();
    fuse_->Pass();
    return true;
  }

  std::optional<std::string> content;

 private:
  std::string name_;
  Fuse* fuse_;
};

// A cut before and after each call.
class CutMachine : public setup::Machine {
 public:
  CutMachine(setup::Machine* machine, Fuse* fuse) : machine_(machine), fuse_(fuse) {}

  int Read(setup::MachineImage* image) override { return machine_->Read(image); }
  int Install(Kind kind, const setup::Provider& provider) override {
    return Around([&] { return machine_->Install(kind, provider); });
  }
  int Deinstall(Kind kind, const GUID& provider) override {
    return Around([&] { return machine_->Deinstall(kind, provider); });
  }
  int WriteOrder(Kind kind, const std::vector<DWORD>& ids) override {
    return Around([&] { return machine_->WriteOrder(kind, ids); });
  }
  int PermitCategories(const std::wstring& program, DWORD permitted) override {
    return Around([&] { return machine_->PermitCategories(program, permitted); });
  }

 private:
  template <class Call>
  int Around(Call call) {
    fuse_->Pass();
    const int error = call();
    fuse_->Pass();
    return error;
  }

  setup::Machine* machine_;
  Fuse* fuse_;
};

inline constexpr GUID kForeignHidden = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 1}};
inline constexpr GUID kForeignLayer = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 2}};
inline const std::wstring kForeignPath = L"C:\\other\\other.dll";

// The port's catalogue with its paths, to be put aside and back.
struct PortCatalogue {
  std::vector<WSAPROTOCOL_INFOW> entries;
  std::vector<setup::ProviderPath> paths;

  static std::vector<GUID> Providers() {
    std::vector<GUID> all = {setup::kHiddenGuid, kForeignHidden, kForeignLayer};
    for (const setup::Protocol& protocol : setup::kProtocols) all.push_back(protocol.guid);
    return all;
  }
  static PortCatalogue Taken() {
    PortCatalogue taken = {port::Catalogue(), {}};
    for (const GUID& provider : Providers()) {
      const std::wstring path = port::ProviderPath(provider);
      if (!path.empty()) taken.paths.push_back({provider, path});
    }
    return taken;
  }
  void Put() const {
    for (const GUID& provider : Providers()) port::RemoveProviderPath(provider);
    for (const setup::ProviderPath& known : paths)
      port::SetProviderPath(known.provider, known.path);
    port::SetCatalogue(entries);
  }
};

// The 64-bit catalogue: the same calls, over another catalogue.
class Twin : public setup::Machine {
 public:
  int Read(setup::MachineImage* image) override {
    return Over([&](setup::Machine& own) { return own.Read(image); });
  }
  int Install(Kind kind, const setup::Provider& provider) override {
    return Over([&](setup::Machine& own) { return own.Install(kind, provider); });
  }
  int Deinstall(Kind kind, const GUID& provider) override {
    return Over([&](setup::Machine& own) { return own.Deinstall(kind, provider); });
  }
  int WriteOrder(Kind kind, const std::vector<DWORD>& ids) override {
    return Over([&](setup::Machine& own) { return own.WriteOrder(kind, ids); });
  }
  int PermitCategories(const std::wstring&, DWORD) override { return WSAEINVAL; }

  PortCatalogue catalogue;

 private:
  template <class Call>
  int Over(Call call) {
    const PortCatalogue other = PortCatalogue::Taken();
    catalogue.Put();
    setup::WinsockMachine own(Kind::k64, nullptr, {});
    const int error = call(own);
    catalogue = PortCatalogue::Taken();
    other.Put();
    return error;
  }
};

// Catalogues in which numbers of the library's own entries do not matter, because Windows gives new
// ones to entries that are put back.
inline std::string Comparable(const setup::MachineImage& image) {
  std::string text;
  for (const auto& [kind, catalogue] : image.catalogues) {
    text += std::string(setup::KindName(kind)) + "\n";
    for (WSAPROTOCOL_INFOW entry : catalogue.entries) {
      for (const DWORD id : setup::ChainOf(entry)) {
        const setup::EntryName name = setup::NameOf(catalogue, id);
        text += name.own ? " own " + std::to_string(name.provider.Data4[7]) : std::to_string(id);
      }
      if (setup::IsOwn(entry.ProviderId)) entry.dwCatalogEntryId = 0;
      if (setup::IsOwn(entry.ProviderId)) entry.ProtocolChain = {};
      text.append(reinterpret_cast<const char*>(&entry), sizeof entry);
    }
    for (const setup::Provider& own : setup::OwnProviders(catalogue)) {
      text += std::string(own.path.begin(), own.path.end()) + "\n";
    }
  }
  for (const auto& [program, permitted] : image.applications) {
    if (permitted != setup::kEveryCategory) text += std::to_string(permitted) + "\n";
  }
  return text;
}

// Whether a socket of each kind can be made: what serves it leads to a base provider through
// entries that are there.
inline bool HasNetwork(const setup::CatalogueImage& image) {
  for (const setup::Protocol& protocol : setup::kProtocols) {
    const WSAPROTOCOL_INFOW* serving = setup::Serving(image, protocol);
    if (serving == nullptr) return false;
    for (const DWORD id : setup::ChainOf(*serving)) {
      if (setup::FindEntry(image, id) == nullptr) return false;
    }
  }
  return true;
}

class World {
 public:
  World() {
    port::ClearFaults();
    port::SetAdministrator(true);
    port::SetApplicationCategories({});
    PortCatalogue{port::BaseEntries(), {}}.Put();
    twin.catalogue = PortCatalogue::Taken();
  }
  ~World() {
    port::ClearFaults();
    port::SetAdministrator(true);
    port::SetApplicationCategories({});
    PortCatalogue{port::BaseEntries(), {}}.Put();
  }

  setup::MachineImage Now() {
    setup::MachineImage image;
    EXPECT_EQ(machine_.Read(&image), 0);
    return image;
  }
  std::string Text() { return Comparable(Now()); }

  bool NetworkWorks() {
    const setup::MachineImage image = Now();
    return std::ranges::all_of(image.catalogues,
                               [](const auto& one) { return HasNetwork(one.second); });
  }

  // Another maker's provider in front of both catalogues, over TCP and UDP.
  void AddForeign() {
    AddForeignHere();
    const PortCatalogue own = PortCatalogue::Taken();
    twin.catalogue.Put();
    AddForeignHere();
    twin.catalogue = PortCatalogue::Taken();
    own.Put();
  }

  setup::Request request = {.install = {.libraries = {{Kind::k32, L"C:\\vyr\\vyr_lsp.dll"},
                                                      {Kind::k64, L"C:\\vyr\\vyr_lsp64.dll"}}},
                            .exempt = {}};
  Fuse fuse;
  MemoryFile journal_file{"journal", &fuse};
  MemoryFile undo{"undo", &fuse};
  setup::Journal journal{&journal_file};
  Twin twin;

  setup::Outcome Install() { return setup::Install(&cut_, Records(), request); }
  setup::Outcome Uninstall() { return setup::Uninstall(&cut_, Records(), request); }
  setup::Outcome Repair() {
    return setup::Repair(&cut_, Records(), request, [](const std::wstring&) { return true; });
  }
  setup::Outcome Recover() { return setup::Recover(&cut_, &journal); }
  setup::Machine* machine() { return &cut_; }

 private:
  setup::Records Records() { return {&journal, &undo}; }

  static void AddForeignHere() {
    auto entries = port::BaseEntries();
    auto hidden = port::MakeEntry(kForeignHidden, 1010, SOCK_STREAM, IPPROTO_TCP, {});
    hidden.ProtocolChain.ChainLen = LAYERED_PROTOCOL;
    hidden.dwProviderFlags = PFL_HIDDEN;
    auto tcp = port::MakeEntry(kForeignLayer, 1011, SOCK_STREAM, IPPROTO_TCP, {1010, 1001});
    auto udp = port::MakeEntry(kForeignLayer, 1012, SOCK_DGRAM, IPPROTO_UDP, {1010, 1002});
    entries.insert(entries.begin(), {tcp, udp});
    entries.push_back(hidden);
    port::SetCatalogue(entries);
    port::SetProviderPath(kForeignHidden, kForeignPath);
    port::SetProviderPath(kForeignLayer, kForeignPath);
  }

  setup::WinsockMachine machine_{Kind::k32, &twin, {L"C:\\bank\\bank.exe"}};
  CutMachine cut_{&machine_, &fuse};
};

}  // namespace setup_test
