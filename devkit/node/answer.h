// The bytes of a node's answer, right or wrong as its behaviour says.
#pragma once
#include <string>

#include "node/behaviour.h"
#include "node/socket.h"

namespace node {

// `own` is the data address in the answer and, unless configured otherwise, the last node; `client`
// is the sender of the request. `result` is a separate parameter, because the game server may cause
// it.
std::string MakeAnswer(const Behaviour& behaviour, u8 result, u32 token, const Address& own,
                       const Address& client);

// The same bytes each time; they are never the valid beginning of an answer.
std::string MakeGarbage(std::size_t size);

}  // namespace node
