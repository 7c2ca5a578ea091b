// vyr_node: the reference acceleration node as a program.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>

#include "http/server.h"
#include "node/node.h"
#include "node/node_site.h"
#include "program_end.h"

namespace {

enum ExitCode { kDone = 0, kFailed = 1, kUsage = 2 };

constexpr node::u32 kPollMs = 100;  // how late an end may be noticed

struct Options {
  node::NodeOptions node;
  std::string listen, control, source, metrics;
  bool allow_remote = false;
  std::vector<std::string> allowed_hosts;
  http::Endpoint metrics_at;
  bool text = false;
  bool until_eof = false;
};

std::string OptionName(const node::BehaviourField& field) {
  std::string name = std::string("--") + field.name;
  std::replace(name.begin(), name.end(), '_', '-');
  return name;
}

void AddBehaviour(CLI::App* app, node::Behaviour* behaviour) {
  for (const node::BehaviourField& field : node::BehaviourFields()) {
    app->add_option_function<std::string>(
           OptionName(field),
           [&field, behaviour](const std::string& text) {
             if (!field.Parse(text, &(behaviour->*field.member)))
               throw CLI::ValidationError(OptionName(field),
                                          "'" + text + "' is not " + field.Range());
           },
           field.help)
        ->type_name(field.Range())
        ->default_str(field.WordFor(behaviour->*field.member).empty()
                          ? std::to_string(behaviour->*field.member)
                          : field.WordFor(behaviour->*field.member))
        ->group("Behaviour");
  }
}

void AddLimits(CLI::App* app, node::Limits* limits) {
  const auto add = [&](const char* name, node::u32* value, node::u32 most, const char* help) {
    app->add_option(name, *value, help)
        ->check(CLI::Range(node::u32{1}, most))
        ->capture_default_str()
        ->group("Limits");
  };
  constexpr node::u32 kDayMs = 86'400'000;
  add("--connections", &limits->connections, 4096, "at once; more wait to be accepted");
  add("--request-ms", &limits->request_ms, kDayMs, "for a client to send its request");
  add("--connect-ms", &limits->connect_ms, kDayMs, "for a game server to accept");
  add("--end-ms", &limits->end_ms, kDayMs, "for a refused client to close");
  add("--half-close-ms", &limits->half_close_ms, kDayMs, "without a byte, when one side has ended");
  add("--flows", &limits->flows, 4096, "of datagrams, at once; more are refused");
  add("--flow-idle-ms", &limits->flow_idle_ms, kDayMs, "without a datagram of the client");
}

// Empty, or what is wrong.
std::string Understand(Options* options) {
  if (!node::ParseAddress(options->listen, &options->node.listen))
    return "--listen: '" + options->listen + "' is not ADDRESS:PORT";
  if (!options->control.empty()) {
    node::Address control;
    if (!node::ParseAddress(options->control, &control))
      return "--control: '" + options->control + "' is not ADDRESS:PORT";
    options->node.control = control;
  }
  if (!options->metrics.empty()) {
    node::Address metrics;
    if (!node::ParseAddress(options->metrics, &metrics))
      return "--metrics: '" + options->metrics + "' is not ADDRESS:PORT";
    const std::string problem =
        http::ParseEndpoint(options->metrics, options->allow_remote, &options->metrics_at);
    if (!problem.empty()) return "--metrics: " + problem;
  }
  if (!options->source.empty()) {
    node::u32 ip = 0;
    if (!node::ParseIp(options->source, &ip))
      return "--source: '" + options->source + "' is not an IPv4 address";
    options->node.source_ip = ip;
  }
  return "";
}

// Listens for those who ask for metrics; the node has to know where. Empty, or what is wrong.
std::string StartMetrics(Options* options, http::Server* server) {
  if (options->metrics.empty()) return "";
  http::Endpoint& at = options->metrics_at;
  const std::string problem = server->Start(&at);
  if (!problem.empty()) return "--metrics: " + problem;
  node::Address address;
  node::ParseAddress(at.address + ":" + std::to_string(at.port), &address);
  options->node.metrics = address;
  return "";
}

void Fail(const std::string& problem) { std::fprintf(stderr, "vyr_node: %s\n", problem.c_str()); }

int Serve(Options options) {
  WSADATA data;
  if (WSAStartup(MAKEWORD(2, 2), &data) != 0) {
    Fail("no sockets here");
    return kFailed;
  }
  node::NodeFigures figures;
  node::NodeSite site(VYR_VERSION);
  http::Server server(&site, options.allowed_hosts);
  std::string problem = StartMetrics(&options, &server);
  if (!problem.empty()) {
    Fail(problem);
    return kFailed;
  }
  node::Behaviour behaviour = options.node.behaviour;
  const auto print = [&](const node::Event& event) {
    figures.Add(event, behaviour);
    const std::string line = options.text ? event.ToText() : event.ToJson();
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  };
  const auto* const ended = devkit::NoticeTheEnd(options.until_eof);
  node::Node node(options.node, print, &behaviour);
  site.Leave(figures, node);
  if (!node.Start(&problem)) {
    Fail(problem);
    return kFailed;
  }
  while (*ended == 0 && !node.stop_asked()) {
    node.Step(kPollMs);
    site.Leave(figures, node);
  }
  node.Step(0);  // the reply to the command that ended it
  return kDone;
}

void AddMetrics(CLI::App* app, Options* options) {
  app->add_option("--metrics", options->metrics,
                  "serve /metrics for Prometheus and /health there; port 0 takes any")
      ->type_name("ADDRESS:PORT")
      ->group("Metrics");
  app->add_flag("--allow-remote", options->allow_remote,
                "the metrics' address may be one that other machines reach")
      ->group("Metrics");
  app->add_option("--allow-host", options->allowed_hosts,
                  "requests may ask by this name too, not only by address or localhost")
      ->type_name("NAME")
      ->group("Metrics");
}

int Run(int argc, char** argv) {
  CLI::App app(
      "The reference acceleration node: reads a request, answers, and carries the bytes of a\n"
      "connection or the datagrams of a flow to the game server that it names, and back.\n"
      "Events go to standard output.\n\n"
      "  vyr_node --listen 198.51.100.20:7001 --control 127.0.0.1:7101\n",
      "vyr_node");
  app.set_version_flag("--version", "vyr_node " VYR_VERSION);
  app.footer(
      "With --control, every behaviour can be changed while the node runs, one JSON object a\n"
      "line: {\"command\":\"set\",\"on_request\":\"silent\"}. Others: get, restore, connections,\n"
      "close, reset, flows, forget, stop.\n"
      "Exit codes: 0 ended as asked, 1 cannot listen, 2 wrong usage.");
  app.allow_windows_style_options(false);

  Options options;
  app.add_option("--listen", options.listen, "where clients come in; port 0 takes any")
      ->required()
      ->type_name("ADDRESS:PORT");
  app.add_option("--data-port", options.node.data_port,
                 "where the datagrams of flows go; by default any, as the first event says")
      ->type_name("PORT");
  app.add_option("--control", options.control, "the control port; none if not given")
      ->type_name("ADDRESS:PORT");
  AddMetrics(&app, &options);
  app.add_option("--source", options.source,
                 "where connections to game servers come from: 0.0.0.0 leaves it to the system; "
                 "by default the listening address, unless it is a loopback")
      ->type_name("ADDRESS");
  bool json = false;
  auto* const text_flag = app.add_flag("--text", options.text, "events as NAME KEY=VALUE ...");
  app.add_flag("--json", json, "events as JSON lines; the default")->excludes(text_flag);
  app.add_flag("--until-eof", options.until_eof, "end with the end of standard input");
  AddBehaviour(&app, &options.node.behaviour);
  AddLimits(&app, &options.node.limits);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kUsage;
  }
  const std::string problem = Understand(&options);
  if (!problem.empty()) {
    Fail(problem);
    return kUsage;
  }
  return Serve(std::move(options));
}

}  // namespace

int main(int argc, char** argv) { devkit::RunToTheEnd("vyr_node", Run, argc, argv); }
