// What the soak and its peers, which are a process of their own, tell each other over a loopback connection.
#pragma once

#include <boost/asio/ip/tcp.hpp>

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>

namespace sorvex::soak {

/// The number of peers. At the beginning and at the end each of them sends a line with its name and a number: its port,
/// and how many payloads it got.
constexpr int peerCount = 6;

/// The soak's end of the connection. One thread.
class PeerControl {
 public:
  explicit PeerControl(const std::string& port) : m_stream("127.0.0.1", port), m_ports(Read<std::uint16_t>()) {}

  std::uint16_t PortOf(const std::string& peer) const { return m_ports.at(peer); }

  /// Ends the faults and waits for the end of every connection. Returns how many payloads each peer got.
  std::map<std::string, std::uint64_t> Finish() {
    m_stream << "finish\n" << std::flush;
    return Read<std::uint64_t>();
  }

 private:
  template <class Number>
  std::map<std::string, Number> Read() {
    std::map<std::string, Number> numbers;
    for (int i = 0; i < peerCount; ++i) {
      std::string name;
      Number number = 0;
      if (!(m_stream >> name >> number)) throw std::runtime_error("the peers have failed");
      numbers[name] = number;
    }
    return numbers;
  }

  boost::asio::ip::tcp::iostream m_stream;
  const std::map<std::string, std::uint16_t> m_ports;
};

}  // namespace sorvex::soak
