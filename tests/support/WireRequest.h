// Reads requests of the wire protocol on a server's side.
#pragma once

#include <cstddef>
#include <string>

namespace sorvex::test {

/// Reads one request by the size in its header and returns all of it, or less when the peer ends the connection first.
template <class Peer>
std::string ReadRequest(Peer& peer) {
  const std::string header = peer.ReadExactly(8);
  std::size_t rest = 0;
  for (std::size_t i = 4; i < header.size(); ++i) rest = rest * 256 + static_cast<unsigned char>(header[i]);
  return header + peer.ReadExactly(rest);
}

}  // namespace sorvex::test
