#include "setup/steps.h"

#include <algorithm>
#include <ranges>

#include "setup/guid_text.h"
#include "setup/utf8.h"

namespace setup {
namespace {

const Provider* FindProvider(const std::vector<Provider>& providers, const GUID& guid) {
  const auto at =
      std::ranges::find_if(providers, [&](const Provider& known) { return known.guid == guid; });
  return at == providers.end() ? nullptr : &*at;
}

// The catalogue of one kind on its way to the one that is wanted.
class Way {
 public:
  Way(Kind kind, const CatalogueImage& now, const CatalogueImage& goal)
      : kind_(kind), now_(now), goal_(goal), own_(OwnProviders(now)), wanted_(OwnProviders(goal)) {}

  std::optional<Step> Next() const {
    for (const Provider& provider : std::views::reverse(own_)) {
      if (IsStale(provider))
        return Step{.action = Action::kDeinstall, .kind = kind_, .provider = provider};
    }
    for (const Provider& provider : wanted_) {
      if (FindProvider(own_, provider.guid) == nullptr) return Installation(provider);
    }
    std::vector<DWORD> order = Order();
    if (order == CurrentOrder()) return std::nullopt;
    return Step{.action = Action::kWriteOrder, .kind = kind_, .order = std::move(order)};
  }

 private:
  bool IsWanted(const Provider& provider) const {
    const Provider* wanted = FindProvider(wanted_, provider.guid);
    return wanted != nullptr && AreSame(now_, provider, goal_, *wanted);
  }

  // Not wanted as it is, or about to lose the entry that its chain leads to.
  bool IsStale(const Provider& provider) const {
    if (!IsWanted(provider)) return true;
    for (const WSAPROTOCOL_INFOW& entry : provider.entries) {
      for (const DWORD id : ChainOf(entry)) {
        const WSAPROTOCOL_INFOW* below = FindEntry(now_, id);
        const Provider* own = below != nullptr ? FindProvider(own_, below->ProviderId) : nullptr;
        if (own != nullptr && !IsWanted(*own)) return true;
      }
    }
    return false;
  }

  // With the numbers that the entries of its chains have now.
  Step Installation(const Provider& wanted) const {
    Step step{.action = Action::kInstall, .kind = kind_, .provider = wanted};
    for (WSAPROTOCOL_INFOW& entry : step.provider.entries) {
      const size_t length = ChainOf(entry).size();
      entry.dwCatalogEntryId = 0;
      for (size_t i = 0; i < length; ++i) {
        DWORD& id = entry.ProtocolChain.ChainEntries[i];
        id = IdOf(now_, NameOf(goal_, id)).value_or(id);
      }
    }
    return step;
  }

  std::vector<DWORD> CurrentOrder() const {
    std::vector<DWORD> order;
    for (const WSAPROTOCOL_INFOW& entry : now_.entries) order.push_back(entry.dwCatalogEntryId);
    return order;
  }

  // Others as they stand; each of ours before the entry that follows it in the goal.
  std::vector<DWORD> Order() const {
    std::vector<DWORD> order;
    for (const WSAPROTOCOL_INFOW& entry : now_.entries) {
      if (!IsOwn(entry.ProviderId)) order.push_back(entry.dwCatalogEntryId);
    }
    std::optional<DWORD> follower;
    for (const WSAPROTOCOL_INFOW& entry : std::views::reverse(goal_.entries)) {
      const auto id = IdOf(now_, NameOf(goal_, entry.dwCatalogEntryId));
      if (!id) continue;
      if (IsOwn(entry.ProviderId)) {
        order.insert(follower ? std::ranges::find(order, *follower) : order.end(), *id);
      }
      follower = id;
    }
    return order;
  }

  const Kind kind_;
  const CatalogueImage& now_;
  const CatalogueImage& goal_;
  const std::vector<Provider> own_;
  const std::vector<Provider> wanted_;
};

std::optional<Step> NextApplicationStep(const MachineImage& now, const MachineImage& goal) {
  for (const auto& [program, permitted] : goal.applications) {
    const auto known = now.applications.find(program);
    if ((known == now.applications.end() ? kEveryCategory : known->second) == permitted) continue;
    return Step{.action = Action::kPermitCategories, .program = program, .permitted = permitted};
  }
  return std::nullopt;
}

std::string Names(const Provider& provider) {
  std::string names;
  for (const WSAPROTOCOL_INFOW& entry : provider.entries) {
    names += (names.empty() ? "'" : ", '") + ToUtf8(entry.szProtocol) + "'";
  }
  return names;
}

std::string Numbers(const std::vector<DWORD>& ids) {
  std::string text;
  for (const DWORD id : ids) text += " " + std::to_string(id);
  return text;
}

}  // namespace

std::optional<Step> NextStep(const MachineImage& now, const MachineImage& goal) {
  for (const auto& [kind, wanted] : goal.catalogues) {
    const auto present = now.catalogues.find(kind);
    if (present == now.catalogues.end()) continue;
    if (auto step = Way(kind, present->second, wanted).Next()) return step;
  }
  return NextApplicationStep(now, goal);
}

std::string BuiltOn(const MachineImage& now, const Step& step) {
  if (step.action != Action::kDeinstall) return {};
  for (const WSAPROTOCOL_INFOW& entry : now.catalogues.at(step.kind).entries) {
    if (IsOwn(entry.ProviderId)) continue;
    const std::vector<DWORD> chain = ChainOf(entry);
    for (const WSAPROTOCOL_INFOW& removed : step.provider.entries) {
      if (std::ranges::find(chain, removed.dwCatalogEntryId) != chain.end()) {
        return ToUtf8(entry.szProtocol);
      }
    }
  }
  return {};
}

int Perform(Machine* machine, const Step& step) {
  switch (step.action) {
    case Action::kInstall:
      return machine->Install(step.kind, step.provider);
    case Action::kDeinstall:
      return machine->Deinstall(step.kind, step.provider.guid);
    case Action::kWriteOrder:
      return machine->WriteOrder(step.kind, step.order);
    case Action::kPermitCategories:
      return machine->PermitCategories(step.program, step.permitted);
  }
  return WSAEINVAL;
}

std::string Describe(const Step& step) {
  const std::string where = std::string(KindName(step.kind)) + "-bit catalogue: ";
  switch (step.action) {
    case Action::kInstall: {
      std::string chains;
      for (const WSAPROTOCOL_INFOW& entry : step.provider.entries) {
        if (!ChainOf(entry).empty()) chains += ", chain" + Numbers(ChainOf(entry));
      }
      return where + "install " + Names(step.provider) + " " + GuidText(step.provider.guid) +
             chains + ", " + ToUtf8(step.provider.path);
    }
    case Action::kDeinstall:
      return where + "remove " + Names(step.provider) + " " + GuidText(step.provider.guid);
    case Action::kWriteOrder:
      return where + "write the order" + Numbers(step.order);
    case Action::kPermitCategories:
      return "programs: permit " + ToUtf8(step.program) + " categories " +
             std::to_string(step.permitted);
  }
  return {};
}

}  // namespace setup
