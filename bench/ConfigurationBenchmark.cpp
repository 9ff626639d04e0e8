// What a wire protocol client needs for a configuration of 100 MiB, the largest allowed, compared with the unavoidable
// minimum: one copy into its own memory and, for version 1.0, its MD5.
//
//   configuration_benchmark [REPETITIONS]
//
// The response is in memory. The contestants take turns. Prints the medians of processor time with their ratios, and
// how much memory was held beyond what was held before the first exchange.
#include "AllocationCounter.h"
#include "ConnectedSocket.h"
#include "Quantile.h"
#include "WireData.h"

#include "wire/SSLConfigServerAPIClient_v1.h"
#include "wire/SSLConfigServerAPIClient_v2.h"

#include <host/Digest.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace sorvex::bench {
namespace {

using SSLConfigServerProto::ConfigurationUpdateResponse;
using SSLConfigServerProto::maxWireDataBytes;
using SSLConfigServerProto::SSLConfigServerAPIClient;
using SSLConfigServerProto::SSLConfigServerAPIClient_v1;
using SSLConfigServerProto::SSLConfigServerAPIClient_v2;
using SSLConfigServerProto::WireProtocol;
using VaroCommunicationAPI::SocketSerializer;

constexpr const char* noConfiguration = "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF";

/// A client and the server's end of its connection, which always sends the same configuration.
class Exchange {
 public:
  explicit Exchange(WireProtocol protocol) : m_pClient(MakeClient(protocol)) {
    ConfigurationUpdateResponse response(protocol);
    SetWireBinary(response.serverPublicKey, *MakeFilledBlock(publicKeyBytes));
    SetWireBinary(response.configurationData, *MakeFilledBlock(maxWireDataBytes));
    CompleteRecord(response, protocol);
    m_pSocket->SetInput(EncodeRecord(response));
  }

  void UpdateConfiguration() {
    m_pSocket->Rewind();
    if (m_pClient->ConfigurationUpdate(m_serializer, noConfiguration) != 0) throw std::runtime_error("no success");
  }

  /// Takes the configuration as the agent does, and drops it again.
  void TakeConfiguration() const {
    std::shared_ptr<ACE_Message_Block> block;
    std::string md5;
    if (!m_pClient->GetConfigurationData(block, md5) || block->length() != maxWireDataBytes) {
      throw std::runtime_error("no configuration");
    }
  }

 private:
  static std::unique_ptr<SSLConfigServerAPIClient> MakeClient(WireProtocol protocol) {
    if (protocol == WireProtocol::Version1) return std::make_unique<SSLConfigServerAPIClient_v1>("bench", "token");
    return std::make_unique<SSLConfigServerAPIClient_v2>("bench", "token", *MakeFilledBlock(publicKeyBytes));
  }

  const std::shared_ptr<MemorySocket> m_pSocket = std::make_shared<MemorySocket>();
  SocketSerializer m_serializer{m_pSocket};
  const std::unique_ptr<SSLConfigServerAPIClient> m_pClient;
};

/// Returns a memory value of this process from /proc, in bytes.
std::size_t ProcessBytes(const std::string& key) {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (std::size_t kibibytes = 0; word == key + ':' && status >> kibibytes) return kibibytes * 1024;
  }
  throw std::runtime_error("/proc/self/status has no " + key);
}

/// Resets the peak of resident memory to what is resident now.
void ResetPeakResident() {
  if (!(std::ofstream("/proc/self/clear_refs") << 5 << std::flush)) throw std::runtime_error("cannot reset the peak");
}

double InBlocks(std::size_t bytes, std::size_t before) {
  return (static_cast<double>(bytes) - static_cast<double>(before)) / maxWireDataBytes;
}

/// Prints how many times the configuration is in memory beyond what was there before a client received its first.
class MemoryRows {
 public:
  explicit MemoryRows(const char* version) : m_version(version) {}

  void Print(const char* operation, const std::function<void()>& action) const {
    ResetPeak();
    ResetPeakResident();
    action();
    std::printf("| %s, %s | %.3f | %.3f | %.3f |\n", m_version, operation,
                InBlocks(ThreadAllocations().m_peakBytes, m_live), InBlocks(ProcessBytes("VmHWM"), m_resident),
                InBlocks(ThreadAllocations().m_liveBytes, m_live));
  }

 private:
  const char* const m_version;
  const std::size_t m_live = ThreadAllocations().m_liveBytes;
  const std::size_t m_resident = ProcessBytes("VmRSS");
};

void PrintMemory(const char* version, Exchange& exchange) {
  const MemoryRows rows(version);
  rows.Print("first ConfigurationUpdate", [&] { exchange.UpdateConfiguration(); });
  rows.Print("next ConfigurationUpdate", [&] { exchange.UpdateConfiguration(); });
  rows.Print("GetConfigurationData", [&] { exchange.TakeConfiguration(); });
}

/// Processor time, so that the machine's other load does not count.
double Milliseconds(const std::function<void()>& action) {
  const std::clock_t begin = std::clock();
  action();
  return static_cast<double>(std::clock() - begin) * 1e3 / CLOCKS_PER_SEC;
}

struct Contestant {
  const char* m_title;
  std::function<void()> m_action;
  std::vector<double> m_milliseconds = {};
};

void PrintTime(const Contestant& contestant, const Contestant& baseline) {
  const double milliseconds = Median(contestant.m_milliseconds);
  std::printf("| %s | %.1f | %.2f | %.2f |\n", contestant.m_title, milliseconds, maxWireDataBytes / milliseconds / 1e6,
              milliseconds / Median(baseline.m_milliseconds));
}

void Run(int repetitions) {
  Exchange version1(WireProtocol::Version1);
  Exchange version2(WireProtocol::Version2);
  std::puts(
      "| In blocks of 100 MiB | Most allocated | Most resident | Allocated afterwards |\n"
      "| --- | ---: | ---: | ---: |");
  PrintMemory("Version 1.0", version1);
  PrintMemory("Version 2.0", version2);

  const auto source = MakeFilledBlock(maxWireDataBytes);
  std::string digest;
  const auto copy = [&](bool bDigest) {
    const std::unique_ptr<char, void (*)(void*)> fresh(static_cast<char*>(std::malloc(maxWireDataBytes)), &std::free);
    std::memcpy(fresh.get(), source->rd_ptr(), maxWireDataBytes);
    benchmark::DoNotOptimize(fresh.get());
    benchmark::ClobberMemory();
    if (bDigest) digest = WindowsAgentCommon::MD5Sum(fresh.get(), maxWireDataBytes);
  };
  Contestant plainCopy{"One memcpy", [&] { copy(false); }};
  Contestant exchange2{"Version 2.0, ConfigurationUpdate", [&] { version2.UpdateConfiguration(); }};
  Contestant digestedCopy{"One memcpy and MD5Sum", [&] { copy(true); }};
  Contestant exchange1{"Version 1.0, ConfigurationUpdate", [&] { version1.UpdateConfiguration(); }};
  for (int repetition = 0; repetition < repetitions; ++repetition) {
    for (Contestant* contestant : {&plainCopy, &exchange2, &digestedCopy, &exchange1}) {
      contestant->m_milliseconds.push_back(Milliseconds(contestant->m_action));
    }
  }
  std::puts("\n| 100 MiB | CPU milliseconds | GB/s | Times the baseline |\n| --- | ---: | ---: | ---: |");
  PrintTime(plainCopy, plainCopy);
  PrintTime(exchange2, plainCopy);
  PrintTime(digestedCopy, digestedCopy);
  PrintTime(exchange1, digestedCopy);
}

}  // namespace
}  // namespace sorvex::bench

int main(int argc, char** argv) {
  const int repetitions = argc > 1 ? std::atoi(argv[1]) : 10;
  if (repetitions < 1) {
    std::fputs("usage: configuration_benchmark [REPETITIONS]\n", stderr);
    return 2;
  }
  try {
    sorvex::bench::Run(repetitions);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "configuration_benchmark: %s\n", error.what());
    return 1;
  }
}
