#include "client/live/serve_watch.h"

#include "client/live/live_site.h"
#include "client/reporter.h"
#include "http/server.h"

namespace client {

std::string ProblemOf(const ServeOptions& options) {
  http::Endpoint endpoint;
  if (options.at.empty()) return "";
  return http::ParseEndpoint(options.at, options.allow_remote, &endpoint);
}

bool WatchServed(WatchOptions watch, const ServeOptions& options, const std::string& version,
                 const volatile std::sig_atomic_t* ended) {
  const Reporter reporter(watch.json);
  http::Endpoint endpoint;
  std::string problem = http::ParseEndpoint(options.at, options.allow_remote, &endpoint);
  LiveSite site(version, !watch.from.empty());
  http::Server server(&site, options.allowed_hosts);
  if (problem.empty()) problem = server.Start(&endpoint);
  if (!problem.empty()) {
    reporter.Failure("--serve: " + problem);
    return false;
  }
  reporter.Serving(http::UrlOf(endpoint));
  watch.follow = true;
  return Watch(watch, ended, &site);
}

}  // namespace client
