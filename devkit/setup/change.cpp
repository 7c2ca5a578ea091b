#include "setup/change.h"

#include "setup/image_machine.h"
#include "setup/steps.h"

namespace setup {
namespace {

constexpr int kMostSteps = 200;

// Steps until the catalogues are the wanted ones. Each is reported before it is made, so that it
// can be written down. Reads the catalogues anew for each: a call may say that it has succeeded
// without having done anything, and other programs may change them too.
class Walk {
 public:
  using Report = std::function<bool(const std::string& step)>;
  Walk(Machine* machine, const MachineImage& goal, Report report)
      : machine_(machine), goal_(goal), report_(std::move(report)) {}

  // Kept where it is certain that no step was made.
  Result ToTheEnd(std::string* problem) {
    std::string last;
    for (int steps = 0; steps < kMostSteps; ++steps) {
      MachineImage now;
      if (const int error = machine_->Read(&now)) {
        *problem = "the catalogue cannot be read: " + ErrorText(error);
        return Result::kFailed;
      }
      const std::optional<Step> step = NextStep(now, goal_);
      if (!step) return steps == 0 ? Result::kNothingToDo : Result::kDone;
      const Result result = Make(now, *step, &last, problem);
      if (result != Result::kDone) return result;
    }
    *problem = "the catalogue changes as fast as it is written";
    return Result::kFailed;
  }

 private:
  Result Make(const MachineImage& now, const Step& step, std::string* last, std::string* problem) {
    const std::string text = Describe(step);
    if (const std::string other = BuiltOn(now, step); !other.empty()) {
      *problem = "'" + other + "' is layered over the library: remove that first (" + text + ")";
      return Result::kRefused;
    }
    if (text == *last) {
      *problem = text + ": Windows says that it was done, and the catalogue is the same";
      return Result::kFailed;
    }
    *last = text;
    if (!report_(text)) {
      *problem = "the journal cannot be written";
      return Result::kFailed;
    }
    if (const int error = Perform(machine_, step)) {
      *problem = text + ": " + ErrorText(error);
      return Result::kFailed;
    }
    return Result::kDone;
  }

  Machine* machine_;
  const MachineImage& goal_;
  Report report_;
};

Result Restore(Machine* machine, Journal* journal, const MachineImage& before, Outcome* outcome) {
  const auto report = [&](const std::string& step) {
    outcome->steps.push_back("back: " + step);
    // Only for people who read it: what is needed to go on is in the journal already.
    journal->Note("back: " + step);
    return true;
  };
  std::string problem;
  const Result result = Walk(machine, before, report).ToTheEnd(&problem);
  const bool restored = result == Result::kDone || result == Result::kNothingToDo;
  if (restored && !journal->End()) problem = "the journal cannot be removed";
  if (problem.empty()) return Result::kFailed;
  outcome->problem += (outcome->problem.empty() ? "" : "; and undoing it: ") + problem;
  return Result::kUnfinished;
}

// What is put back has to say what no catalogue does: that a program may load every category.
MachineImage WithApplications(MachineImage before, const MachineImage& goal) {
  for (const auto& [program, permitted] : goal.applications) {
    before.applications.try_emplace(program, kEveryCategory);
  }
  return before;
}

}  // namespace

Outcome Plan(const MachineImage& now, const MachineImage& goal) {
  Outcome outcome;
  ImageMachine simulated(now);
  const auto report = [&](const std::string& step) {
    outcome.steps.push_back(step);
    return true;
  };
  outcome.result = Walk(&simulated, goal, report).ToTheEnd(&outcome.problem);
  return outcome;
}

Outcome Change(Machine* machine, Journal* journal, const MachineImage& goal) {
  MachineImage before;
  if (const int error = machine->Read(&before)) {
    return {Result::kFailed, "the catalogue cannot be read: " + ErrorText(error), {}};
  }
  before = WithApplications(std::move(before), goal);
  Outcome plan = Plan(before, goal);
  if (plan.result != Result::kDone) return {plan.result, plan.problem, {}};
  if (!journal->Begin(before)) {
    journal->End();
    return {Result::kFailed, "the journal cannot be written", {}};
  }
  Outcome outcome;
  const auto report = [&](const std::string& step) {
    outcome.steps.push_back(step);
    return journal->Note(step);
  };
  outcome.result = Walk(machine, goal, report).ToTheEnd(&outcome.problem);
  if (outcome.problem.empty() && !journal->End()) outcome.problem = "the journal cannot be removed";
  if (!outcome.problem.empty()) outcome.result = Restore(machine, journal, before, &outcome);
  return outcome;
}

Outcome Recover(Machine* machine, Journal* journal) {
  Outcome outcome;
  const std::optional<MachineImage> before = journal->Left(&outcome.problem);
  if (!outcome.problem.empty()) outcome.result = Result::kUnfinished;
  if (!before) return outcome;
  const Result result = Restore(machine, journal, *before, &outcome);
  outcome.result = result == Result::kFailed ? Result::kDone : result;
  return outcome;
}

}  // namespace setup
