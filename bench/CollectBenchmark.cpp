// How fast lines are collected from a large file, and what it costs to follow many files of which few are written.
#include <collect/Collector.h>
#include <collect/platform/File.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace sorvex::collect;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// Accepts every line.
class CountingSink : public LineSink {
 public:
  bool Take(std::string_view line, Mark mark) override {
    ++lines;
    bytes += line.size() + 1;
    last = mark;
    return true;
  }

  std::uint64_t lines = 0;
  std::uint64_t bytes = 0;
  Mark last;
};

double SecondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

double CpuSeconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

InputSettings Files(const std::filesystem::path& pattern) {
  InputSettings settings;
  settings.pattern = PathToText(pattern);
  settings.fromBeginning = true;
  return settings;
}

void Log(Severity, const std::string& text) { std::fprintf(stderr, "%s\n", text.c_str()); }

void MeasureRate(const std::filesystem::path& folder, std::uint64_t size) {
  const std::filesystem::path path = folder / "large.log";
  const std::string line = std::string(99, 'x') + "\n";
  std::string block;
  while (block.size() < 1'000'000) block += line;
  std::ofstream file(path, std::ios::binary);
  for (std::uint64_t written = 0; written < size; written += block.size()) file << block;
  file.close();

  for (int round = 0; round < 3; ++round) {
    std::error_code error;
    const auto pFile = OpenedFile::Open(path, error);
    std::vector<char> buffer(256 * 1024);
    auto start = Clock::now();
    std::uint64_t offset = 0;
    while (const std::size_t count = pFile->ReadAt(offset, buffer.data(), buffer.size(), error)) offset += count;
    const double readSeconds = SecondsSince(start);

    CountingSink sink;
    start = Clock::now();
    Collector collector({Files(path)}, folder / "positions", Log);
    while (collector.Collect(sink) == Collector::Progress::More) collector.Taken(sink.last);
    const double seconds = SecondsSince(start);
    if (sink.bytes != offset)
      std::fprintf(stderr, "collected %llu bytes\n", static_cast<unsigned long long>(sink.bytes));
    const double gigabytes = static_cast<double>(offset) / 1e9;
    std::printf("%.2f GB in lines of 100 bytes: read alone %.2f GB/s, collected %.2f GB/s, %.1f million lines/s\n",
                gigabytes, gigabytes / readSeconds, gigabytes / seconds,
                static_cast<double>(sink.lines) / 1e6 / seconds);
    std::filesystem::remove(folder / "positions");
  }
  std::filesystem::remove(path);
}

void MeasureFollowing(const std::filesystem::path& folder, int fileCount, int writesPerSecond,
                      std::chrono::seconds duration) {
  for (int number = 0; number < fileCount; ++number) {
    std::ofstream(folder / (std::to_string(number) + ".log")) << "a first line\n";
  }
  CountingSink sink;
  double before = CpuSeconds();
  Collector collector({Files(folder / "*.log")}, folder / "positions", Log);
  // The first listing and the next.
  const auto started = Clock::now();
  while (SecondsSince(started) < 1) {
    collector.Collect(sink);
    collector.Wait(100ms);
  }
  std::printf("%d files, start: %.3f s of CPU\n", fileCount, CpuSeconds() - before);

  double cpu = 0;
  int wakes = 0;
  const auto start = Clock::now();
  const std::uint64_t linesBefore = sink.lines;
  auto nextWrite = writesPerSecond > 0 ? start : start + duration;
  while (Clock::now() < start + duration) {
    if (Clock::now() >= nextWrite) {
      std::ofstream(folder / "0.log", std::ios::app) << "a line\n";
      nextWrite += std::chrono::milliseconds(1000 / writesPerSecond);
    }
    before = CpuSeconds();
    collector.Wait(std::chrono::ceil<std::chrono::milliseconds>(nextWrite - Clock::now()));
    collector.Collect(sink);
    cpu += CpuSeconds() - before;
    ++wakes;
  }
  const double seconds = SecondsSince(start);
  std::printf("%d files, %d writes a second to one: %.3f%% of a CPU, %.1f wake-ups a second, %llu lines\n", fileCount,
              writesPerSecond, 100 * cpu / seconds, wakes / seconds,
              static_cast<unsigned long long>(sink.lines - linesBefore));
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 2 ? argv[1] : "";
  const std::filesystem::path folder = argc > 2 ? argv[2] : "";
  if (mode == "rate" && argc == 4) {
    MeasureRate(folder, std::strtoull(argv[3], nullptr, 10) * 1'000'000);
  } else if (mode == "follow" && argc == 6) {
    MeasureFollowing(folder, std::atoi(argv[3]), std::atoi(argv[4]), std::chrono::seconds(std::atoi(argv[5])));
  } else {
    std::fprintf(stderr,
                 "usage: %s rate FOLDER MEGABYTES\n"
                 "       %s follow FOLDER FILES WRITES-A-SECOND SECONDS\n",
                 argv[0], argv[0]);
    return 2;
  }
  return 0;
}
