#include "Load.h"

#include "Payload.h"

#include <chrono>
#include <cstdio>
#include <random>
#include <utility>

namespace sorvex::soak {

namespace {

using namespace std::chrono_literals;

constexpr auto shutdownLimit = 2s;

/// Less than a slow receiver reads.
constexpr double slowBytesPerSecond = 300'000;

/// The shortest payloads, and the longest, which still fit whole into a datagram.
constexpr std::size_t minFiller = 16;
constexpr std::size_t maxFiller = 960;

constexpr int maxBurst = 32;
constexpr int minPauseMs = 5;
constexpr int maxPauseMs = 30;

/// The default high water mark, what each producer may add above it, and what the send thread puts back.
constexpr std::size_t queueBound = 1'000'000 + 8 * 1024 + 64 * 1024;

}  // namespace

Load::Load(std::string name, std::shared_ptr<WindowsAgentCommon::ISocket> socket, int producers, std::uint32_t seed)
    : m_name(std::move(name)), m_pSocket(std::move(socket)), m_lastCounters(4) {
  for (int i = 0; i < producers; ++i) {
    m_producers.emplace_back([this, i, seed] { Produce(i, seed + static_cast<std::uint32_t>(i)); });
  }
}

Load::~Load() { JoinProducers(); }

void Load::Produce(int producer, std::uint32_t seed) {
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> burst(1, maxBurst);
  std::uniform_int_distribution<int> pause(minPauseMs, maxPauseMs);
  std::uniform_int_distribution<std::size_t> filler(minFiller, maxFiller);
  std::uint64_t number = 0;
  while (!m_bStop) {
    for (int left = burst(random); left > 0 && !m_bStop; --left) {
      const std::string payload = MakePayload(producer, number++, filler(random));
      if (m_pSocket->Send(payload.data(), static_cast<std::uint32_t>(payload.size())) >= 0) {
        ++m_accepted;
      } else {
        ++(m_bClosing ? m_refusedAtEnd : m_refused);
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(pause(random)));
  }
}

void Load::Watch() {
  const std::vector<std::uint32_t> counters{m_pSocket->GetMessagesSubmitted(), m_pSocket->GetMessagesSent(),
                                            m_pSocket->GetMessagesDropped(), m_pSocket->GetMessagesTruncated()};
  for (std::size_t i = 0; i < counters.size(); ++i) {
    // They wrap at 32 bits: a counter that has grown is ahead by less than half the range.
    if (counters[i] - m_lastCounters[i] > 0x7FFFFFFF) Complain("counter " + std::to_string(i) + " went back");
  }
  m_lastCounters = counters;
  if (const std::size_t size = m_pSocket->GetQueueSize(); size > queueBound) {
    Complain("the queue holds " + std::to_string(size) + " bytes");
  }
}

void Load::JoinProducers() {
  m_bStop = true;
  for (std::thread& producer : m_producers) {
    if (producer.joinable()) producer.join();
  }
}

void Load::ShutDown() {
  m_bClosing = true;
  const auto begin = std::chrono::steady_clock::now();
  const std::size_t queued = m_pSocket->GetQueueSize();
  const std::uint32_t sentBefore = Sent();
  const int result = m_pSocket->Shutdown();
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;
  // Delivery to a slow receiver may take time.
  const bool isDelivering = Sent() != sentBefore;
  const std::chrono::duration<double> limit =
      shutdownLimit +
      std::chrono::duration<double>(isDelivering ? static_cast<double>(queued) / slowBytesPerSecond : 0);
  if (result != 0) Complain("Shutdown returned " + std::to_string(result));
  if (elapsed > limit) Complain("Shutdown took " + std::to_string(elapsed.count()) + " seconds");
  JoinProducers();
  CheckLaw();
}

void Load::CheckLaw() {
  const std::uint32_t done = m_pSocket->GetMessagesSent() + m_pSocket->GetMessagesDropped();
  if (m_accepted != done) {
    Complain("accepted " + std::to_string(m_accepted) + ", but sent or dropped " + std::to_string(done));
  }
  if (m_pSocket->GetQueueSize() != 0) Complain("bytes are left in the queue");
  // A refused payload counts as submitted if the socket was open at that moment. A stream is open until it is shut
  // down; a datagram socket is closed while it cannot be connected.
  const std::uint32_t refused = m_pSocket->GetMessagesSubmitted() - m_accepted;
  const bool isStream = m_name.find("UDP") == std::string::npos;
  if (refused > m_refused + m_refusedAtEnd || (isStream && refused < m_refused)) {
    Complain("refused at once " + std::to_string(refused) + ", but the producers saw " + std::to_string(m_refused) +
             " and at the end " + std::to_string(m_refusedAtEnd));
  }
}

void Load::Complain(const std::string& text) {
  ++m_complaints;
  std::fprintf(stderr, "soak: %s: %s\n", m_name.c_str(), text.c_str());
}

void Load::Print() const {
  std::printf("  %-12s submitted %u sent %u dropped %u refused %u queued %zu bytes\n", m_name.c_str(),
              m_pSocket->GetMessagesSubmitted(), m_pSocket->GetMessagesSent(), m_pSocket->GetMessagesDropped(),
              m_refused.load() + m_refusedAtEnd.load(), m_pSocket->GetQueueSize());
}

}  // namespace sorvex::soak
