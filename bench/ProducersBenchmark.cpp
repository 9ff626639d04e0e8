// How many payloads several threads put through one socket's queue, and whether each gets its share.
//
//   producers_benchmark [SECONDS [REPETITIONS]]
//
// One, two and eight threads send payloads of 256 bytes over TCP, queued, as fast as they can; a thread at the other
// end of the connection reads and discards them. In turns; prints the medians as a Markdown table: payloads a second,
// processor time a payload (of all the program's threads, including the receiver), allocations a payload (the
// producers'), and the share of the slowest producer, 1 being an equal share.
#include "AllocationCounter.h"
#include "LoopbackServer.h"
#include "Quantile.h"

#include "sockets/TCPSocket.h"

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <numeric>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace sorvex::bench {
namespace {

constexpr int producerCounts[] = {1, 2, 8};
constexpr std::size_t payloadBytes = 256;

/// Accepts one connection and reads it to its end.
class Reader {
 public:
  Reader() : m_listener(BindLoopback(SOCK_STREAM, m_port)) {
    if (listen(m_listener, 1) == -1) ThrowSystemError("listen");
    m_thread = std::jthread([this] {
      const int connection = accept(m_listener, nullptr, nullptr);
      std::vector<char> buffer(256 * 1024);
      while (read(connection, buffer.data(), buffer.size()) > 0) {
      }
      close(connection);
    });
  }
  ~Reader() {
    m_thread.join();
    close(m_listener);
  }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  std::uint16_t Port() const { return m_port; }

 private:
  std::uint16_t m_port = 0;
  int m_listener;
  std::jthread m_thread;
};

double ProcessorSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

struct Result {
  double rate = 0;
  double processorNanoseconds = 0;
  double allocations = 0;
  double slowestShare = 0;
};

Result Measure(int producers, std::chrono::duration<double> time) {
  const Reader reader;
  VaroCommunicationAPI::TCPSocket socket;
  socket.Initialize({{"TargetPort", std::to_string(reader.Port())}, {"Socket.BlockingSendStrategy", "false"}});
  if (!socket.IsConnected()) throw std::runtime_error("the socket does not connect");

  const std::string payload(payloadBytes, 'x');
  std::atomic<bool> isEnding{false};
  std::vector<std::uint64_t> counts(static_cast<std::size_t>(producers));
  std::vector<std::uint64_t> allocations(counts.size());
  const double processorBefore = ProcessorSeconds();
  const auto begin = std::chrono::steady_clock::now();
  {
    std::vector<std::jthread> threads;
    for (std::size_t producer = 0; producer < counts.size(); ++producer) {
      threads.emplace_back([&, producer] {
        std::uint64_t sent = 0;
        const std::size_t allocatedBefore = ThreadAllocations().m_count;
        while (!isEnding.load(std::memory_order_relaxed)) {
          if (socket.Send(payload.data(), static_cast<std::uint32_t>(payload.size())) > 0) ++sent;
        }
        counts[producer] = sent;
        allocations[producer] = ThreadAllocations().m_count - allocatedBefore;
      });
    }
    std::this_thread::sleep_for(time);
    isEnding = true;
  }
  socket.Shutdown();
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;

  const auto sum = [](const std::vector<std::uint64_t>& values) {
    return static_cast<double>(std::accumulate(values.begin(), values.end(), std::uint64_t{0}));
  };
  const double total = sum(counts);
  Result result;
  result.rate = total / elapsed.count();
  result.processorNanoseconds = (ProcessorSeconds() - processorBefore) / total * 1e9;
  result.allocations = sum(allocations) / total;
  result.slowestShare = static_cast<double>(std::ranges::min(counts)) / (total / producers);
  return result;
}

double MedianOf(const std::vector<Result>& results, double Result::*member) {
  std::vector<double> values;
  for (const Result& result : results) values.push_back(result.*member);
  return Median(std::move(values));
}

void Run(std::chrono::duration<double> time, int repetitions) {
  std::map<int, std::vector<Result>> results;
  for (int repetition = 0; repetition < repetitions; ++repetition) {
    for (const int producers : producerCounts) results[producers].push_back(Measure(producers, time));
  }
  std::puts("| Producers | Payloads/s | CPU per payload (ns) | Allocations per payload | Share of the slowest |");
  std::puts("| ---: | ---: | ---: | ---: | ---: |");
  for (const auto& [producers, measured] : results) {
    std::printf("| %d | %.0f | %.0f | %.4f | %.2f |\n", producers, MedianOf(measured, &Result::rate),
                MedianOf(measured, &Result::processorNanoseconds), MedianOf(measured, &Result::allocations),
                MedianOf(measured, &Result::slowestShare));
  }
}

}  // namespace
}  // namespace sorvex::bench

int main(int argc, char** argv) {
  try {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 1;
    const int repetitions = argc > 2 ? std::atoi(argv[2]) : 5;
    if (seconds <= 0 || repetitions <= 0 || argc > 3) {
      std::fputs("usage: producers_benchmark [SECONDS [REPETITIONS]]\n", stderr);
      return 2;
    }
    sorvex::bench::Run(std::chrono::duration<double>(seconds), repetitions);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "producers_benchmark: %s\n", error.what());
    return 1;
  }
}
