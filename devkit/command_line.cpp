#include "command_line.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <type_traits>

namespace devkit {

Option& Option::Required() {
  option_->required();
  return *this;
}

Option& Option::Called(const std::string& what) {
  option_->type_name(what);
  called_ = true;
  return *this;
}

template <class T>
Option& Option::In(T least, T most) {
  CLI::Validator range = CLI::Range(least, most);
  option_->check(called_ ? range.description("") : range);
  return *this;
}

template Option& Option::In(int, int);
template Option& Option::In(unsigned, unsigned);
template Option& Option::In(double, double);

Option& Option::OneOf(const std::vector<std::string>& words) {
  CLI::Validator member = CLI::IsMember(words, CLI::ignore_case);
  option_->check(called_ ? member.description("") : member);
  return *this;
}

Option& Option::Times(int least, int most) {
  option_->expected(least, most);
  return *this;
}

Option& Option::ShowDefault() {
  option_->capture_default_str();
  return *this;
}

Option& Option::ShowDefault(const std::string& text) {
  option_->default_str(text);
  return *this;
}

Option& Option::Group(const std::string& heading) {
  option_->group(heading);
  return *this;
}

Option& Option::Needs(const Option& other) {
  option_->needs(other.option_);
  return *this;
}

Option& Option::Excludes(const Option& other) {
  option_->excludes(other.option_);
  return *this;
}

template <class T>
Option Command::Add(const std::string& names, T* value, const std::string& help) {
  if constexpr (std::is_same_v<T, bool>) {
    return Option(app_->add_flag(names, *value, help));
  } else {
    return Option(app_->add_option(names, *value, help));
  }
}

template Option Command::Add(const std::string&, bool*, const std::string&);
template Option Command::Add(const std::string&, int*, const std::string&);
template Option Command::Add(const std::string&, unsigned*, const std::string&);
template Option Command::Add(const std::string&, uint16_t*, const std::string&);
template Option Command::Add(const std::string&, double*, const std::string&);
template Option Command::Add(const std::string&, std::string*, const std::string&);
template Option Command::Add(const std::string&, std::optional<unsigned>*, const std::string&);
template Option Command::Add(const std::string&, std::vector<std::string>*, const std::string&);
template Option Command::Add(const std::string&, std::vector<unsigned long>*, const std::string&);

Option Command::AddTaken(const std::string& name, const Take& take, const std::string& help) {
  const auto check = [name, take](const std::string& text) {
    const std::string mistake = take(text);
    if (!mistake.empty()) throw CLI::ValidationError(name, mistake);
  };
  return Option(app_->add_option_function<std::string>(name, check, help));
}

CommandLine::CommandLine(const About& about)
    : Command(nullptr), owned_(std::make_unique<CLI::App>(about.text, about.program)) {
  app_ = owned_.get();
  if (!about.version.empty()) app_->set_version_flag("--version", about.version);
  app_->footer(about.footer);
  if (about.slash_begins_path) app_->allow_windows_style_options(false);
}

CommandLine::~CommandLine() = default;

Command CommandLine::AddCommand(const std::string& name, const std::string& help,
                                const std::function<void()>& chosen) {
  app_->require_subcommand(1);
  CLI::App* const command = app_->add_subcommand(name, help);
  command->callback(chosen);
  return Command(command);
}

std::optional<int> CommandLine::Parse(int argc, char** argv) {
  return Parse(std::vector<std::string>(argv + 1, argv + argc));
}

std::optional<int> CommandLine::Parse(const std::vector<std::string>& words) {
  try {
    app_->parse(
        std::vector<std::string>(words.rbegin(), words.rend()));  // it wants the last one first
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    const auto rest = app_->remaining();
    if (explain_ && error.get_exit_code() != 0 && app_->get_subcommands().empty() &&
        !rest.empty()) {
      std::vector<std::string_view> names;
      for (const CLI::App* each : app_->get_subcommands([](const CLI::App*) { return true; })) {
        names.push_back(each->get_name());
      }
      explain_(rest.front(), names);
      return error.get_exit_code();
    }
    const int code = app_->exit(error);
    std::cout.flush();  // a program may end without that
    return code;
  }
}

int CommandLine::Refuse(const std::string& mistake) const {
  return app_->exit(CLI::ValidationError(mistake));
}

}  // namespace devkit
