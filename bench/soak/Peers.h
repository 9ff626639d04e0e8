// The receivers of the soak: they read and check what arrives, and treat their connections as the worst receivers do.
#pragma once

#include "Payload.h"

#include <boost/asio.hpp>
#include <boost/asio/ssl.hpp>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace sorvex::soak {

/// What all peers share. All run in one thread.
class Peer {
 public:
  Peer(boost::asio::io_context& context, std::string name, std::uint32_t seed);
  virtual ~Peer() = default;

  virtual std::uint16_t Port() const = 0;
  /// Injects no more faults and ends when the sender has ended its connections.
  virtual void Finish() = 0;

  const std::string& Name() const { return m_name; }
  std::uint64_t Payloads() const { return m_journal.Payloads(); }
  std::uint64_t Problems() const { return m_problems; }
  /// How often each fault was injected.
  std::string Faults() const;

 protected:
  void TakePayload(std::string_view payload);
  void CountFault(const std::string& fault) { ++m_faults[fault]; }
  std::chrono::milliseconds Random(std::chrono::milliseconds least, std::chrono::milliseconds most);
  /// Calls `next` after `delay`, unless the peer is finishing. Replaces what the timer waited for.
  template <class Next>
  void After(boost::asio::steady_timer& timer, std::chrono::milliseconds delay, Next next) {
    timer.expires_after(delay);
    timer.async_wait([this, next](const boost::system::error_code& error) {
      if (!error && !m_bFinishing) next();
    });
  }
  void StopTimers();

  boost::asio::io_context& m_context;
  std::mt19937 m_random;
  boost::asio::steady_timer m_faultTimer;
  boost::asio::steady_timer m_bindTimer;
  bool m_bFinishing = false;

 private:
  const std::string m_name;
  Journal m_journal;
  std::uint64_t m_problems = 0;
  std::map<std::string, int> m_faults;
};

/// Over TCP, or over TLS with a context.
class StreamPeer : public Peer {
 public:
  StreamPeer(boost::asio::io_context& context, std::string name, std::uint32_t seed, boost::asio::ssl::context* tls);

  std::uint16_t Port() const override { return m_port; }
  void Finish() override;

 private:
  class Session;
  using tcp = boost::asio::ip::tcp;

  void Listen();
  void Accept();
  void Injected();
  void CloseAll(bool withReset);
  void DigBlackHole();
  void FillUp();
  void SetReading(bool isReading);

  std::unique_ptr<boost::asio::ssl::context> m_plain;
  boost::asio::ssl::context* m_pTls;
  std::uint16_t m_port = 0;
  tcp::acceptor m_acceptor;
  std::set<std::shared_ptr<Session>> m_sessions;
  std::vector<std::unique_ptr<tcp::socket>> m_fillers;
  bool m_bReading = true;
  bool m_bTalking = false;
  bool m_bSlow = false;
};

class DatagramPeer : public Peer {
 public:
  DatagramPeer(boost::asio::io_context& context, std::string name, std::uint32_t seed);

  std::uint16_t Port() const override { return m_port; }
  void Finish() override;

 private:
  void Bind();
  void Receive();
  void Injected();

  std::uint16_t m_port = 0;
  boost::asio::ip::udp::socket m_socket;
  std::string m_buffer = std::string(65536, '\0');
};

}  // namespace sorvex::soak
