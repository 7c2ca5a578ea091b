// vyr_game: a sample game, and its server.
#include <cstdio>

#include "command_line.h"
#include "game/play.h"
#include "game/serve.h"
#include "program_end.h"

namespace {

enum ExitCode { kDone = 0, kFailed = 1, kUsage = 2 };

struct Options {
  game::PlayOptions play;
  game::ServerOptions server;
  std::vector<std::string> servers;
  std::string lobby, listen;
  bool until_eof = false;
};

std::optional<sockaddr_in> Understand(const std::string& text) {
  const auto address = game::ParseEndpoint(text);
  if (!address) std::fprintf(stderr, "vyr_game: '%s' is not ADDRESS:PORT\n", text.c_str());
  return address;
}

int Play(Options* options) {
  for (const std::string& text : options->servers) {
    const auto server = Understand(text);
    if (!server) return kUsage;
    options->play.servers.push_back(*server);
  }
  if (!options->lobby.empty()) {
    options->play.lobby = Understand(options->lobby);
    if (!options->play.lobby) return kUsage;
  }
  return game::Play(options->play, devkit::NoticeTheEnd(options->until_eof)) ? kDone : kFailed;
}

int Serve(Options* options) {
  const auto listen = Understand(options->listen);
  if (!listen) return kUsage;
  options->server.listen = *listen;
  const auto* const ended = devkit::NoticeTheEnd(options->until_eof);
  return game::Serve(options->server, options->listen, ended) ? kDone : kFailed;
}

using Action = int (*)(Options*);

void AddUntilEof(devkit::Command* command, Options* options) {
  command->Add("--until-eof", &options->until_eof, "end with the end of standard input");
}

void AddPlay(devkit::CommandLine* line, Options* options, Action* action) {
  devkit::Command play = line->AddCommand(
      "play", "play: beat to each server, and show ping and loss", [action] { *action = Play; });
  play.Add("SERVER", &options->servers, "ADDRESS:PORT, one or several").Required().Times(1, 32);
  play.Add("--rate", &options->play.rate, "beats a second to each server")
      .In(0.1, 2000.0)
      .ShowDefault();
  play.Add("--seconds", &options->play.seconds, "how long; 0: until ended")
      .In(0.0, 86400.0)
      .ShowDefault();
  play.Add("--size", &options->play.size, "bytes of each beat").In(28u, 1400u).ShowDefault();
  play.Add("--linger-ms", &options->play.linger_ms, "how long the last answers may take")
      .In(0u, 60000u)
      .ShowDefault();
  play.Add("--connected", &options->play.connected,
           "a connected socket for each server instead of one for all");
  play.Add("--lobby", &options->lobby, "ADDRESS:PORT of a TCP lobby to be in meanwhile");
  play.Add("--ping", &options->play.ping, "an ICMP ping a second beside, on a raw socket");
  play.Add("--json", &options->play.json, "one JSON object at the end instead of sentences");
  AddUntilEof(&play, options);
}

void AddServe(devkit::CommandLine* line, Options* options, Action* action) {
  devkit::Command serve = line->AddCommand(
      "serve", "be the server: answer beats and keep the lobby", [action] { *action = Serve; });
  serve.Add("ADDRESS", &options->listen, "ADDRESS:PORT to listen at, UDP and TCP").Required();
  serve.Add("--delay-ms", &options->server.delay_ms, "before each answer").In(0u, 60000u);
  serve.Add("--jitter-ms", &options->server.jitter_ms, "on top, at random up to this")
      .In(0u, 60000u);
  serve.Add("--loss-percent", &options->server.loss_percent, "answers that are not sent")
      .In(0u, 100u);
  serve.Add("--seed", &options->server.seed, "of what is at random").ShowDefault();
  AddUntilEof(&serve, options);
}

int Run(int argc, char** argv) {
  devkit::CommandLine line(
      {.program = "vyr_game",
       .text = "A sample game: a UDP heartbeat and a TCP lobby.\n\n"
               "  vyr_game serve 127.0.0.1:7000\n"
               "  vyr_game play 127.0.0.1:7000 --rate 60 --lobby 127.0.0.1:7000",
       .footer = "Loss is a figure and no failure. Exit codes: 0 done, 1 could not play or listen, "
                 "2 wrong usage.",
       .version = "vyr_game " VYR_VERSION});
  Options options;
  Action action = nullptr;
  AddPlay(&line, &options, &action);
  AddServe(&line, &options, &action);
  if (const auto code = line.Parse(argc, argv)) return *code == 0 ? kDone : kUsage;
  WSADATA data;
  if (WSAStartup(MAKEWORD(2, 2), &data) != 0) {
    std::fprintf(stderr, "vyr_game: no sockets here\n");
    return kFailed;
  }
  const int code = action(&options);
  WSACleanup();
  return code;
}

}  // namespace

int main(int argc, char** argv) { devkit::RunToTheEnd("vyr_game", Run, argc, argv); }
