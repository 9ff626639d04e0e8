// What each record of the wire protocol costs in memory: time, allocations and socket calls, for filling it from texts
// as a client does, for writing it and for reading it.
#include "AllocationCounter.h"
#include "ConnectedSocket.h"
#include "WireData.h"
#include "support/AllRecords.h"

#include "wire/SSLConfigServerAPIClient_v2.h"

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>

namespace SSLConfigServerProto {
namespace {

using sorvex::bench::CompleteRecord;
using sorvex::bench::EncodeRecord;
using sorvex::bench::MemorySocket;
using sorvex::bench::ThreadAllocations;
using VaroCommunicationAPI::SocketSerializer;

constexpr std::size_t dataBytes = 64 * 1024;

constexpr const char* identifier = "7f9c24e8-3b12-4f6a-9c51-0d2ab7e41c33";
constexpr const char* token = "b5a1c0de-6f0e-4d7b-8a44-91e2f3d4c5b6";
constexpr const char* osVersion = "Debian GNU/Linux 12 (bookworm), kernel 6.1.0-18-amd64, x86_64";
constexpr const char* agentVersion = "7.2.5.1234";
constexpr const char* md5 = "9e107d9d372bb6826bd81d3542a419d6";

const ACE_Message_Block& PublicKey() {
  static const auto key = sorvex::bench::MakeFilledBlock(sorvex::bench::publicKeyBytes);
  return *key;
}

const ACE_Message_Block& Data() {
  static const auto data = sorvex::bench::MakeFilledBlock(dataBytes);
  return *data;
}

// --- Fields of practical length.

void SetFields(IdentityRecord& request) {
  SetWireString(request.wireProtocolVersion, WireVersionText(WireProtocol::Version1));
  SetWireString(request.applicationIdentifier, identifier);
  SetWireString(request.applicationToken, token);
}

void SetFields(ConnectionEstablishmentRequest2& request) {
  SetFields(static_cast<IdentityRecord&>(request));
  SetWireString(request.timeZone, "Central European Summer Time (UTC + 120) Daylight Savings is in effect");
  SetWireBinary(request.public_key, PublicKey());
}

void SetFields(RegisterInstanceRequest& request) {
  static const std::string autoCreationParameters(400, 'x');
  SetWireString(request.osVersion, osVersion);
  SetWireString(request.agentVersion, agentVersion);
  SetWireString(request.autoCreationParameters, autoCreationParameters);
}

void SetFields(UpdateStatusRequest& request) {
  request.status = 1;
  request.statusTime = 1700000000;
}

void SetFields(ConfigurationUpdateRequest& request) { SetWireString(request.currentMD5, md5); }

void SetFields(CodeUpdateRequest& request) { SetWireString(request.currentVersion, md5); }

void SetFields(ResponseRecord& response) { response.resultCode = 0; }

void SetFields(ConnectionEstablishmentResponse2& response) {
  SetWireString(response.wireProtocolVersion, WireVersionText(WireProtocol::Version2));
}

void SetFields(ConfigurationUpdateResponse& response) {
  SetWireBinary(response.serverPublicKey, PublicKey());
  SetWireBinary(response.configurationData, Data());
}

void SetFields(CodeUpdateResponse& response) { SetWireBinary(response.codeData, Data()); }

// --- What is measured.

/// Runs `action` as the benchmark, rewinding `socket` each time.
template <class Action>
void Measure(benchmark::State& state, MemorySocket& socket, Action action) {
  // Lets the socket's own memory grow first.
  action();
  const std::size_t allocations = ThreadAllocations().m_count;
  for (auto _ : state) {
    socket.Rewind();
    action();
  }
  state.counters["allocations"] = benchmark::Counter(static_cast<double>(ThreadAllocations().m_count - allocations),
                                                     benchmark::Counter::kAvgIterations);
  // Of the last iteration; all are alike.
  state.counters["socket_calls"] = static_cast<double>(socket.Calls());
}

/// From the texts to a request ready to be written, and its destruction.
template <class Form>
void Fill(benchmark::State& state) {
  MemorySocket unused;
  Measure(state, unused, [] {
    auto request = Form::Make();
    SetFields(request);
    CompleteRecord(request, Form::protocol);
    benchmark::DoNotOptimize(request);
  });
}

template <class Form>
void Encode(benchmark::State& state) {
  auto record = Form::Make();
  SetFields(record);
  CompleteRecord(record, Form::protocol);
  const auto socket = std::make_shared<MemorySocket>();
  SocketSerializer serializer(socket);
  Measure(state, *socket, [&] { WriteRecord(serializer, record); });
}

/// From an empty record to its destruction.
template <class Form>
void Decode(benchmark::State& state) {
  auto record = Form::Make();
  SetFields(record);
  CompleteRecord(record, Form::protocol);
  const auto socket = std::make_shared<MemorySocket>();
  socket->SetInput(EncodeRecord(record));
  SocketSerializer serializer(socket);
  Measure(state, *socket, [&] {
    auto received = Form::Make();
    ReadRecord(serializer, received);
    benchmark::DoNotOptimize(received);
  });
}

/// The client's whole part of an exchange.
void ExchangeUpdateStatus(benchmark::State& state) {
  UpdateStatusResponse response;
  CompleteRecord(response, WireProtocol::Version2);
  const auto socket = std::make_shared<MemorySocket>();
  socket->SetInput(EncodeRecord(response));
  SocketSerializer serializer(socket);
  const auto key = CopyBlock(PublicKey());
  SSLConfigServerAPIClient_v2 client(identifier, token, *key);
  Measure(state, *socket, [&] { benchmark::DoNotOptimize(client.UpdateStatus(serializer, 1, 1700000000)); });
}

template <class Form>
void RegisterForm() {
  std::string name = Form::Record::name;
  if (Form::bVersionTellsFields) name += std::string("/") + WireVersionText(Form::protocol);
  if constexpr (requires { Form::Record::type; }) {
    benchmark::RegisterBenchmark(("Fill/" + name).c_str(), Fill<Form>);
  }
  benchmark::RegisterBenchmark(("Encode/" + name).c_str(), Encode<Form>);
  benchmark::RegisterBenchmark(("Decode/" + name).c_str(), Decode<Form>);
}

void RegisterAll() {
  sorvex::test::AllRecords::ForEach([]<class Form>(Form) { RegisterForm<Form>(); });
  benchmark::RegisterBenchmark("Exchange/UpdateStatus", ExchangeUpdateStatus);
}

/// Whether memory from operator new and ACE's allocator is counted.
bool AllocationsAreCounted() {
  const std::size_t before = ThreadAllocations().m_count;
  const std::shared_ptr<ACE_Message_Block> block = MakeSharedBlock(1);
  // The block, its data and the reference count.
  return ThreadAllocations().m_count == before + 3;
}

}  // namespace
}  // namespace SSLConfigServerProto

int main(int argc, char** argv) {
  if (!SSLConfigServerProto::AllocationsAreCounted()) {
    std::fputs("wire_benchmark: allocations are not counted\n", stderr);
    return 1;
  }
  SSLConfigServerProto::RegisterAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
