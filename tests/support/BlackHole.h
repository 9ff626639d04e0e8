// Loopback ports that swallow everything.
#pragma once

#include <cstdint>
#include <memory>

namespace sorvex::test {

/// Listens without accepting and fills the queue of waiting connections, so that the system drops further ones: a
/// connection neither succeeds nor fails.
class BlackHole {
 public:
  explicit BlackHole(std::uint16_t port = 0);
  ~BlackHole();

  std::uint16_t Port() const;

 private:
  struct State;
  std::unique_ptr<State> m_pState;
};

/// A UDP port whose datagrams nobody reads.
class DatagramBlackHole {
 public:
  explicit DatagramBlackHole(std::uint16_t port);
  ~DatagramBlackHole();

 private:
  struct State;
  std::unique_ptr<State> m_pState;
};

}  // namespace sorvex::test
