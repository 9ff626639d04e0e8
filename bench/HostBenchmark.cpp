// What the host does once per event: payload, message block, log record.
#include <SorvexHost/ComponentFactory.h>
#include <SorvexHost/LogSinks.h>
#include <host/Base64.h>
#include <host/IPayloadFactory.h>
#include <host/Log.h>
#include <host/MessageBlock.h>
#include <host/ServiceLookup.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace WindowsAgentCommon {
namespace {

Event MakeEvent() {
  Event event;
  event.m_time = std::chrono::system_clock::now();
  event.m_strSource = "/var/log/application.log";
  event.m_strHost = "host.example.org";
  event.m_strText.assign(200, 'x');
  return event;
}

void BuildPayload(benchmark::State& state, const char* typeName) {
  ComponentFactory factory;
  factory.RegisterBuiltInServices();
  std::shared_ptr<IPayloadBuilder> builder;
  if (!factory.LoadService("IPayloadFactory") ||
      !GetService<IPayloadFactory>()->CreatePayloadBuilder(typeName, builder)) {
    throw std::runtime_error("no payload builder");
  }
  const Event event = MakeEvent();
  std::string payload;
  for (auto _ : state) {
    builder->BuildPayload(event, payload);
    benchmark::DoNotOptimize(payload.data());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(BuildPayload, Syslog, "SyslogPayloadBuilder");
BENCHMARK_CAPTURE(BuildPayload, SyslogBsd, "SyslogBsdPayloadBuilder");
BENCHMARK_CAPTURE(BuildPayload, Raw, "RawPayloadBuilder");

void MakeAndReleaseMessageBlock(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    ACE_Message_Block* block = CreateDataMessageBlock(size);
    benchmark::DoNotOptimize(block);
    block->release();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(MakeAndReleaseMessageBlock)->Arg(64)->Arg(256)->Arg(1024)->Arg(8192);

/// The cost of the blocks if each took three allocations, for comparison.
void MakeAndReleasePlainMessageBlock(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    auto* block = new ACE_Message_Block(size, ACE_Message_Block::MB_DATA);
    benchmark::DoNotOptimize(block);
    block->release();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(MakeAndReleasePlainMessageBlock)->Arg(64)->Arg(256)->Arg(1024)->Arg(8192);

/// A window of blocks alive at once, as in a send queue: the allocator cannot reuse the previous one's memory.
void MessageBlocksInAQueue(benchmark::State& state) {
  std::vector<ACE_Message_Block*> queue(1000, nullptr);
  std::size_t position = 0;
  for (auto _ : state) {
    if (queue[position]) queue[position]->release();
    queue[position] = CreateDataMessageBlock(256);
    position = (position + 1) % queue.size();
  }
  for (ACE_Message_Block* block : queue) {
    if (block) block->release();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(MessageBlocksInAQueue);

void FormatRecord(benchmark::State& state) {
  const std::string host = "127.0.0.1";
  for (auto _ : state) {
    std::string text = Format("Connection to %s:%u failed: %d, next attempt in %d ms", host, 514U, 10061, 5000);
    benchmark::DoNotOptimize(text.data());
  }
}
BENCHMARK(FormatRecord);

class DeafSink : public ILogSink {
 public:
  bool IsEnabled(LogLevel) const override { return false; }
  void Write(LogLevel, const std::string&, const std::string&) override {}
};

void LogBelowTheLevel(benchmark::State& state) {
  const Log log("Code.TCPSocket", std::make_shared<DeafSink>());
  for (auto _ : state) log.Debug("Sent %u bytes to %s", 100U, "127.0.0.1");
}
BENCHMARK(LogBelowTheLevel);

void LogToAFile(benchmark::State& state) {
  const std::filesystem::path file = std::filesystem::temp_directory_path() / "sorvex-host-benchmark.log";
  {
    const Log log("Code.TCPSocket", CreateFileSink(file, LogLevel::Info));
    for (auto _ : state) log.Info("Sent %u bytes to %s", 100U, "127.0.0.1");
  }
  std::filesystem::remove(file);
}
BENCHMARK(LogToAFile);

void DecodeBase64Text(benchmark::State& state) {
  const std::string text(4 * 16384, 'Q');
  std::vector<std::uint8_t> bytes;
  for (auto _ : state) benchmark::DoNotOptimize(DecodeBase64(text, bytes));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(DecodeBase64Text);

}  // namespace
}  // namespace WindowsAgentCommon

BENCHMARK_MAIN();
