// The bytes of a node's answer, right or wrong as its behaviour says.
#pragma once
#include <string>

#include "node/behaviour.h"
#include "node/socket.h"

namespace node {

// `own` is given as the data address and, unless configured otherwise, as the last node; `client`
// is who asks. `result` is a parameter of its own, because it may be the game server's doing.
std::string MakeAnswer(const Behaviour& behaviour, u8 result, u32 token, const Address& own,
                       const Address& client);

// The same bytes each time, and never a valid start of an answer.
std::string MakeGarbage(std::size_t size);

}  // namespace node
