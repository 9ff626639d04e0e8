// The receivers of the counting sink: a class for each transport.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace sorvex::bench {

/// What arrived.
struct Counts {
  std::uint64_t bytes = 0;   ///< of payloads and their line feeds, without TLS overhead
  std::uint64_t events = 0;  ///< lines, or datagrams
  std::chrono::steady_clock::time_point first;
  std::chrono::steady_clock::time_point last;
  std::uint64_t records = 0;  ///< TLS records that carried them
  std::string cipher;         ///< of the last TLS connection

  /// Counts what has just arrived; `count` must not be zero.
  void Add(std::size_t count, std::size_t newEvents) {
    last = std::chrono::steady_clock::now();
    if (bytes == 0) first = last;
    bytes += count;
    events += newEvents;
  }
};

/// Listens on a free loopback port from construction on. Throws `std::runtime_error` when it cannot go on.
class SinkReceiver {
 public:
  virtual ~SinkReceiver() = default;
  virtual std::uint16_t Port() const = 0;

  /// Counts until that many events have arrived or no more will.
  virtual void CountAll(std::uint64_t wanted, Counts& counts) = 0;
};

/// Lines over TCP, over any number of connections (a daemon may have one for each worker).
std::unique_ptr<SinkReceiver> MakeTcpReceiver();

/// The same over TLS 1.2, with its own certificate and one cipher, so that every sender has the same work.
std::unique_ptr<SinkReceiver> MakeTlsReceiver();

/// Datagrams over UDP, until nothing has arrived for three seconds: those still missing are lost.
std::unique_ptr<SinkReceiver> MakeUdpReceiver();

/// How long a receiver waits for the first event and, over a stream, for any other.
constexpr int longestSilenceSeconds = 60;

/// Throws an error saying that nothing arrived for that long.
[[noreturn]] void ThrowSilence(std::uint64_t events, std::uint64_t wanted);

}  // namespace sorvex::bench
