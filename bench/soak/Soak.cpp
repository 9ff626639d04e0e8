// A soak test: the destination sockets under load and faults for as long as wanted.
//
//   soak PORT [SECONDS [SEED [FACTOR]]]   (default: 600, a random seed, 24)
//
// PORT is what `soak_peers` prints, the process of the receivers.
//
// TCP, TLS and UDP, each queued with eight producers and blocking with one, send to their own peers, which at random
// moments reset, close, stop reading, read slowly, answer, restart, refuse or swallow connections (over UDP: close the
// port). The clock that paces the sockets' reconnects and pauses runs FACTOR times as fast as the real one, so that as
// many reconnects happen as otherwise in FACTOR times the time; load, faults, the queue's patience and the stop run in
// real time. Exits 0 if
//
// - no peer got more than its socket reports as sent;
// - every socket was shut down within two seconds, whatever the fault at that moment, or as fast as a slow receiver
//   took its queue;
// - afterwards submitted = sent + dropped + refused at once, and nothing was left in the queue;
// - in the last tenth of the time the process held at most 4 MiB more resident memory than in the second tenth, and at
//   most one more open file for each socket (which may have had no connection in the second tenth), and after the end
//   as many open files as before the first socket.
#include "Load.h"
#include "PeerControl.h"
#include "ProcessUsage.h"

#include <support/AcceleratedTime.h>
#include <support/MakeDestination.h>
#include <support/TlsIdentity.h>

#include <host/LoggerFactory.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <mutex>
#include <random>
#include <stop_token>

namespace sorvex::soak {
namespace {

using namespace std::chrono_literals;
using namespace VaroCommunicationAPI;
using SteadyClock = std::chrono::steady_clock;

constexpr int queuedProducers = 8;
constexpr auto watchInterval = 20ms;
constexpr auto reportInterval = 5s;
constexpr std::size_t memoryMargin = 4 * 1024 * 1024;

struct Options {
  std::string peersPort;
  std::chrono::seconds duration{600};
  std::uint32_t seed = std::random_device()();
  int factor = 24;
};

/// Counts log records by level instead of showing them: faults cause thousands.
class CountingLog : public WindowsAgentCommon::ILogSink {
 public:
  bool IsEnabled(WindowsAgentCommon::LogLevel) const override { return true; }
  void Write(WindowsAgentCommon::LogLevel level, const std::string&, const std::string&) override {
    ++m_counts[static_cast<std::size_t>(level)];
  }
  void Print() const {
    using WindowsAgentCommon::LogLevel;
    for (const auto& [level, name] : {std::pair{LogLevel::Debug, "debug"}, std::pair{LogLevel::Info, "info"},
                                      std::pair{LogLevel::Warn, "warnings"}, std::pair{LogLevel::Error, "errors"}}) {
      std::printf("%s %llu ", name, static_cast<unsigned long long>(m_counts[static_cast<std::size_t>(level)].load()));
    }
    std::puts("log records");
  }

 private:
  std::array<std::atomic<std::uint64_t>, 4> m_counts{};
};

/// The most that the process held in a part of the time.
struct Peak {
  std::size_t residentBytes = 0;
  std::size_t openFiles = 0;

  void Add(const ProcessUsage& usage) {
    residentBytes = std::max(residentBytes, usage.residentBytes);
    openFiles = std::max(openFiles, usage.openFiles);
  }
};

class Soak {
 public:
  explicit Soak(const Options& options)
      : m_options(options),
        m_peers(options.peersPort),
        m_time(std::make_shared<test::AcceleratedTime>(options.factor)) {}

  bool Run() {
    WindowsAgentCommon::LoggerFactory::SetSink(m_log);
    const std::size_t filesBefore = MeasureProcess().openFiles;
    Start();
    Watch();
    Stop();
    // All of them run, so that each prints what it found.
    const std::array verdicts{IsFlat(), IsEqual(MeasureProcess().openFiles, filesBefore), IsArrivalGood(),
                              HaveLoadsKeptTheLaw()};
    return std::ranges::all_of(verdicts, std::identity());
  }

 private:
  void Start() {
    const std::string certificate = test::ToBase64(test::TlsIdentity("client").CertificatePem());
    for (const char* const strategy : {"queued", "blocking"}) {
      for (const test::Transport transport : test::allTransports) Add(transport, strategy, certificate);
    }
  }

  void Add(test::Transport transport, const std::string& strategy, const std::string& certificate) {
    const bool isQueued = strategy == "queued";
    const std::string name = std::string(test::Name(transport)) + '-' + strategy;
    WindowsAgentCommon::ParameterBlock parameters{{"Certificate", certificate}};
    parameters.emplace("TargetPort", std::to_string(m_peers.PortOf(name)));
    parameters.emplace("Socket.BlockingSendStrategy", isQueued ? "false" : "true");
    const std::shared_ptr<WindowsAgentCommon::ISocket> socket = test::MakeDestination(transport, {.m_pTime = m_time});
    socket->Initialize(parameters);
    const auto seed = m_options.seed + static_cast<std::uint32_t>(100 * m_loads.size());
    m_loads.push_back(std::make_unique<Load>(name, socket, isQueued ? queuedProducers : 1, seed));
  }

  void Watch() {
    std::jthread reader([this](const std::stop_token& stop) {
      while (!stop.stop_requested()) {
        for (const auto& load : m_loads) load->Watch();
        std::this_thread::sleep_for(watchInterval);
      }
    });
    const auto begin = SteadyClock::now();
    auto nextReport = begin;
    for (auto now = begin; now < begin + m_options.duration; now = SteadyClock::now()) {
      const ProcessUsage usage = MeasureProcess();
      const auto tenth = (now - begin) * 10 / m_options.duration;
      if (tenth == 1) m_early.Add(usage);
      if (tenth == 9) m_late.Add(usage);
      if (now >= nextReport) {
        Report(std::chrono::duration_cast<std::chrono::seconds>(now - begin), usage);
        nextReport += reportInterval;
      }
      std::this_thread::sleep_for(100ms);
    }
  }

  void Report(std::chrono::seconds elapsed, const ProcessUsage& usage) const {
    std::printf("%lld s: resident %.1f MiB, %zu open files\n", static_cast<long long>(elapsed.count()),
                static_cast<double>(usage.residentBytes) / (1024 * 1024), usage.openFiles);
    for (const auto& load : m_loads) load->Print();
    std::fflush(stdout);
  }

  void Stop() {
    // A stop's patience is in real time.
    m_time->SlowDown();
    // A blocking socket belongs to one thread at a time; a queued one is shut down while its producers send.
    for (const auto& load : m_loads) {
      if (load->Name().ends_with("blocking")) load->JoinProducers();
      load->ShutDown();
    }
    Report(m_options.duration, MeasureProcess());
    m_log->Print();
  }

  bool HaveLoadsKeptTheLaw() const {
    return std::ranges::all_of(m_loads, [](const auto& load) { return load->Complaints() == 0; });
  }

  bool IsArrivalGood() {
    const std::map<std::string, std::uint64_t> received = m_peers.Finish();
    bool isGood = true;
    for (const auto& load : m_loads) {
      if (received.at(load->Name()) <= load->Sent()) continue;
      std::fprintf(stderr, "soak: %s: more arrived than was sent\n", load->Name().c_str());
      isGood = false;
    }
    return isGood;
  }

  bool IsFlat() const {
    std::printf("second tenth: resident at most %.1f MiB, %zu open files; last tenth: %.1f MiB, %zu open files\n",
                static_cast<double>(m_early.residentBytes) / (1024 * 1024), m_early.openFiles,
                static_cast<double>(m_late.residentBytes) / (1024 * 1024), m_late.openFiles);
    if (m_late.residentBytes <= m_early.residentBytes + memoryMargin &&
        m_late.openFiles <= m_early.openFiles + m_loads.size()) {
      return true;
    }
    std::fputs("soak: the process has grown\n", stderr);
    return false;
  }

  static bool IsEqual(std::size_t openFiles, std::size_t before) {
    if (openFiles == before) return true;
    std::fprintf(stderr, "soak: %zu open files after the end, %zu before the beginning\n", openFiles, before);
    return false;
  }

  const Options m_options;
  PeerControl m_peers;
  const std::shared_ptr<test::AcceleratedTime> m_time;
  const std::shared_ptr<CountingLog> m_log = std::make_shared<CountingLog>();
  std::vector<std::unique_ptr<Load>> m_loads;
  Peak m_early;
  Peak m_late;
};

}  // namespace
}  // namespace sorvex::soak

int main(int argc, char** argv) {
  sorvex::soak::Options options;
  if (argc > 1) options.peersPort = argv[1];
  if (argc > 2) options.duration = std::chrono::seconds(std::atoi(argv[2]));
  if (argc > 3) options.seed = static_cast<std::uint32_t>(std::strtoul(argv[3], nullptr, 10));
  if (argc > 4) options.factor = std::atoi(argv[4]);
  if (argc < 2 || argc > 5 || options.duration < std::chrono::seconds(10) || options.factor < 1) {
    std::fputs("usage: soak PORT [SECONDS (at least 10) [SEED [FACTOR]]]\n", stderr);
    return 2;
  }
  std::printf("soak: %lld seconds, seed %u, the sockets' clock %d times as fast\n",
              static_cast<long long>(options.duration.count()), options.seed, options.factor);
  std::fflush(stdout);
  try {
    const bool isGood = sorvex::soak::Soak(options).Run();
    return isGood ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "soak: %s\n", error.what());
    return 1;
  }
}
