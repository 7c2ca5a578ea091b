// The platform's select, for Wine 8.
//
// Wine's select passes its server an entry for each set that a socket is in, and the server looks
// at one entry after the other. If the socket's peer ends the connection between two of its
// entries, the server finds that at the later one, notes it for the earlier one too, which it has
// left behind, and waits. Once the time is over it finds a note where there should be none, and
// ends itself by an assertion: then every Windows program waits for an answer that never comes. A
// loop that polls its sockets for reading and for exceptions meets this once in some thousand
// connections. So here a socket has one entry for all the sets that it is in.
#pragma once

#include <winsock2.h>

namespace winsock_base {

// As select, with its last errors and its order of sockets.
int MergedSelect(int n, fd_set* reads, fd_set* writes, fd_set* excepts, timeval* timeout);

}  // namespace winsock_base
