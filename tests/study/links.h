// Healthy links, and what their watchers make of them: thousands of hours, for which a whole world
// with nodes and sockets would be too slow.
#pragma once
#include "tests/study/conditions.h"
#include "tests/study/run.h"

namespace study {

// In a child process of the simulation. So many links at once, with round trips from 20 to 150 ms
// in equal steps; over a third of them the game sends 20 datagrams a second, over a third four, and
// over a third one in two seconds, and it gets all back but the lost ones. Counts the switches that
// are asked for.
Health WatchLinks(sim::Random& random, const Losses& losses, const Settings& settings, int links,
                  int minutes);

}  // namespace study
