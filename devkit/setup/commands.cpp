#include "setup/commands.h"

#include "setup/image_json.h"

namespace setup {
namespace {

using Applications = std::map<std::wstring, DWORD>;

// A record that cannot be read is treated as if it were not there: it keeps nothing from being
// removed.
Applications ReadUndo(Storage* undo) {
  bool failed = false;
  const std::optional<std::string> text = undo->Read(&failed);
  MachineImage record;
  std::string problem;
  if (!text || !ParseImage(*text, &record, &problem)) return {};
  return record.applications;
}

bool WriteUndo(Storage* undo, const Applications& applications) {
  if (applications.empty()) return undo->Remove();
  MachineImage record;
  record.applications = applications;
  return undo->Write(ImageText(record));
}

// The present catalogues, after the recovery from a cut. Nothing if it cannot go on; then
// *outcome says why.
std::optional<MachineImage> Begin(Machine* machine, const Records& records, bool dry_run,
                                  Outcome* outcome) {
  std::string problem;
  if (dry_run) {
    const bool left = records.journal->Left(&problem).has_value() || !problem.empty();
    if (left) *outcome = {Result::kUnfinished, "an earlier run was cut short", {}};
  } else {
    *outcome = Recover(machine, records.journal);
  }
  if (outcome->result == Result::kUnfinished) return std::nullopt;
  MachineImage now;
  if (const int error = machine->Read(&now)) {
    outcome->result = Result::kFailed;
    outcome->problem = "the catalogue cannot be read: " + ErrorText(error);
    return std::nullopt;
  }
  return now;
}

// Adds to what the recovery has done already.
Outcome Go(Machine* machine, const Records& records, bool dry_run, const MachineImage& now,
           const MachineImage& goal, const Outcome& begun) {
  Outcome outcome = dry_run ? Plan(now, goal) : Change(machine, records.journal, goal);
  outcome.steps.insert(outcome.steps.begin(), begun.steps.begin(), begun.steps.end());
  return outcome;
}

bool Succeeded(const Outcome& outcome) {
  return outcome.result == Result::kDone || outcome.result == Result::kNothingToDo;
}

// What is remembered are the categories of before the first installation.
Applications Remember(Applications undo, const MachineImage& now, const Request& request) {
  for (const std::wstring& program : request.exempt) {
    const auto known = now.applications.find(program);
    undo.try_emplace(program, known == now.applications.end() ? kEveryCategory : known->second);
  }
  return undo;
}

Outcome InstallOver(const MachineImage& now, Machine* machine, const Records& records,
                    const Request& request, const Outcome& begun) {
  std::string problem;
  std::optional<MachineImage> goal = InstallGoal(now, request.install, &problem);
  if (!goal) return {Result::kRefused, problem, begun.steps};
  for (const std::wstring& program : request.exempt) goal->applications[program] = kSystemCategory;
  const Applications before = ReadUndo(records.undo);
  const Applications undo = Remember(before, now, request);
  const bool remembers = !request.dry_run && undo != before;
  if (remembers && !WriteUndo(records.undo, undo)) {
    return {Result::kFailed, "what is to be undone later cannot be written down", begun.steps};
  }
  const Outcome outcome = Go(machine, records, request.dry_run, now, *goal, begun);
  if (remembers && !Succeeded(outcome)) WriteUndo(records.undo, before);
  return outcome;
}

}  // namespace

std::vector<std::wstring> ExemptedPrograms(Storage* undo) {
  std::vector<std::wstring> programs;
  for (const auto& [program, permitted] : ReadUndo(undo)) programs.push_back(program);
  return programs;
}

Outcome Install(Machine* machine, const Records& records, const Request& request) {
  Outcome begun;
  const auto now = Begin(machine, records, request.dry_run, &begun);
  return now ? InstallOver(*now, machine, records, request, begun) : begun;
}

Outcome Uninstall(Machine* machine, const Records& records, const Request& request) {
  Outcome begun;
  const auto now = Begin(machine, records, request.dry_run, &begun);
  if (!now) return begun;
  MachineImage goal = UninstallGoal(*now);
  goal.applications = ReadUndo(records.undo);
  Outcome outcome = Go(machine, records, request.dry_run, *now, goal, begun);
  if (!request.dry_run && Succeeded(outcome)) records.undo->Remove();
  return outcome;
}

Outcome Repair(Machine* machine, const Records& records, const Request& request,
               const FileExists& exists) {
  Outcome begun;
  const auto now = Begin(machine, records, request.dry_run, &begun);
  if (!now) return begun;
  Request repair = request;
  MachineImage goal = *now;
  for (const auto& [kind, catalogue] : now->catalogues) {
    const std::vector<Provider> own = OwnProviders(catalogue);
    if (own.empty()) {
      repair.install.libraries.erase(kind);
      continue;
    }
    repair.install.over_others = repair.install.over_others || IsOverOthers(catalogue);
    if (exists(own.front().path)) repair.install.libraries[kind] = own.front().path;
    if (!repair.install.libraries.contains(kind)) goal.catalogues[kind] = WithoutOwn(catalogue);
  }
  std::string problem;
  const auto whole = InstallGoal(goal, repair.install, &problem);
  if (!whole) return {Result::kRefused, problem, begun.steps};
  return Go(machine, records, request.dry_run, *now, *whole, begun);
}

}  // namespace setup
