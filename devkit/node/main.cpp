// vyr_node: the reference acceleration node as a program.
#include <algorithm>
#include <cstdio>

#include "command_line.h"
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

void AddBehaviour(devkit::CommandLine* line, node::Behaviour* behaviour) {
  for (const node::BehaviourField& field : node::BehaviourFields()) {
    const std::string word = field.WordFor(behaviour->*field.member);
    const auto take = [&field, behaviour](const std::string& text) -> std::string {
      if (field.Parse(text, &(behaviour->*field.member))) return "";
      return "'" + text + "' is not " + field.Range();
    };
    line->AddTaken(OptionName(field), take, field.help)
        .Called(field.Range())
        .ShowDefault(word.empty() ? std::to_string(behaviour->*field.member) : word)
        .Group("Behaviour");
  }
}

void AddLimits(devkit::CommandLine* line, node::Limits* limits) {
  const auto add = [&](const char* name, node::u32* value, node::u32 most, const char* help) {
    line->Add(name, value, help).In(node::u32{1}, most).ShowDefault().Group("Limits");
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

void AddMetrics(devkit::CommandLine* line, Options* options) {
  line->Add("--metrics", &options->metrics,
            "serve /metrics for Prometheus and /health there; port 0 takes any")
      .Called("ADDRESS:PORT")
      .Group("Metrics");
  line->Add("--allow-remote", &options->allow_remote,
            "the metrics' address may be one that other machines reach")
      .Group("Metrics");
  line->Add("--allow-host", &options->allowed_hosts,
            "requests may ask by this name too, not only by address or localhost")
      .Called("NAME")
      .Group("Metrics");
}

int Run(int argc, char** argv) {
  devkit::CommandLine line(
      {.program = "vyr_node",
       .text =
           "The reference acceleration node: reads a request, answers, and carries the bytes of a\n"
           "connection or the datagrams of a flow to the game server that it names, and back.\n"
           "Events go to standard output.\n\n"
           "  vyr_node --listen 198.51.100.20:7001 --control 127.0.0.1:7101\n",
       .footer =
           "With --control, every behaviour can be changed while the node runs, one JSON object a\n"
           "line: {\"command\":\"set\",\"on_request\":\"silent\"}. Others: get, restore, "
           "connections,\n"
           "close, reset, flows, forget, stop.\n"
           "Exit codes: 0 ended as asked, 1 cannot listen, 2 wrong usage.",
       .version = "vyr_node " VYR_VERSION,
       .slash_begins_path = true});
  Options options;
  line.Add("--listen", &options.listen, "where clients come in; port 0 takes any")
      .Required()
      .Called("ADDRESS:PORT");
  line.Add("--data-port", &options.node.data_port,
           "where the datagrams of flows go; by default any, as the first event says")
      .Called("PORT");
  line.Add("--control", &options.control, "the control port; none if not given")
      .Called("ADDRESS:PORT");
  AddMetrics(&line, &options);
  line.Add("--source", &options.source,
           "where connections to game servers come from: 0.0.0.0 leaves it to the system; "
           "by default the listening address, unless it is a loopback")
      .Called("ADDRESS");
  bool json = false;
  const devkit::Option text = line.Add("--text", &options.text, "events as NAME KEY=VALUE ...");
  line.Add("--json", &json, "events as JSON lines; the default").Excludes(text);
  line.Add("--until-eof", &options.until_eof, "end with the end of standard input");
  AddBehaviour(&line, &options.node.behaviour);
  AddLimits(&line, &options.node.limits);
  if (const auto code = line.Parse(argc, argv)) return *code == 0 ? kDone : kUsage;
  const std::string problem = Understand(&options);
  if (!problem.empty()) {
    Fail(problem);
    return kUsage;
  }
  return Serve(std::move(options));
}

}  // namespace

int main(int argc, char** argv) { devkit::RunToTheEnd("vyr_node", Run, argc, argv); }
