// A collector over its own directory, with a clock that stands still unless a test moves it.
#pragma once

#include "support/TemporaryDirectory.h"

#include <collect/Collector.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sorvex::collect {

using namespace std::chrono_literals;

/// Keeps what it takes while it has room.
class RecordingSink : public LineSink {
 public:
  bool Take(std::string_view line, Mark mark) override {
    if (room == 0) return false;
    --room;
    lines.emplace_back(line);
    marks.push_back(mark);
    return true;
  }

  std::size_t room = static_cast<std::size_t>(-1);
  std::vector<std::string> lines;
  std::vector<Mark> marks;
};

enum class Mode { Watched, Polled };

/// The parts that differ on this system.
inline std::vector<Mode> GetModes() {
  if (std::filesystem::path::preferred_separator != '/') return {Mode::Polled};
  return {Mode::Watched, Mode::Polled};
}

/// Under `Watched` the clock stands still, so only the system's reports cause anything. Under `Polled`, each `Gather`
/// advances the clock to the next listing.
class CollectorFixture : public testing::TestWithParam<Mode> {
 protected:
  using Lines = std::vector<std::string>;

  CollectorFixture() {
    limits.now = [this] { return now; };
    limits.wallClock = [this] { return wallClock; };
    limits.watchFolders = GetMode() == Mode::Watched;
  }

  static Mode GetMode() {
    const auto* const info = testing::UnitTest::GetInstance()->current_test_info();
    return info->value_param() == nullptr ? GetModes()[0] : GetParam();
  }

  std::string PatternText(const std::filesystem::path& relative) const {
    const std::u8string text = (folder.Path() / relative).u8string();
    return {text.begin(), text.end()};
  }

  InputSettings Files(const std::filesystem::path& relative, bool fromBeginning = true) const {
    InputSettings settings;
    settings.pattern = PatternText(relative);
    settings.fromBeginning = fromBeginning;
    return settings;
  }

  /// Like a process that starts. An existing one ends as if it were killed.
  void Start(std::vector<InputSettings> inputs) {
    collector.reset();
    collector = std::make_unique<Collector>(
        std::move(inputs), positionsFile,
        [this](Severity severity, const std::string& text) {
          if (severity == Severity::Warning) warnings.push_back(text);
        },
        limits);
  }

  void Append(const std::filesystem::path& relative, std::string_view bytes) const {
    std::ofstream file(folder.Path() / relative, std::ios::binary | std::ios::app);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file.close();
    ASSERT_TRUE(file);
  }

  void Rename(const std::filesystem::path& from, const std::filesystem::path& to) const {
    std::filesystem::rename(folder.Path() / from, folder.Path() / to);
  }

  /// The lines available now. Their marks are in `sink`.
  Lines Gather() {
    sink.lines.clear();
    sink.marks.clear();
    for (int round = 0; round < 3; ++round) {
      while (collector->Collect(sink) == Collector::Progress::More) continue;
      if (round == 0 && !isWatching) now += limits.pollListInterval;
    }
    return sink.lines;
  }

  /// The same, after which all of them are delivered and saved.
  Lines Deliver() {
    const Lines lines = Gather();
    for (const Mark mark : sink.marks) collector->Taken(mark);
    collector->Save();
    return lines;
  }

  std::string ReadPositionsFile() const { return test::TemporaryDirectory::Read(positionsFile); }

  const test::TemporaryDirectory folder{"collect"};
  const test::TemporaryDirectory ownFolder{"positions"};
  const std::filesystem::path positionsFile = ownFolder.Path() / "positions";
  std::chrono::steady_clock::time_point now{1000h};
  std::chrono::system_clock::time_point wallClock{500'000h};
  Limits limits;
  std::vector<std::string> warnings;
  RecordingSink sink;
  std::unique_ptr<Collector> collector;
  const bool isWatching = GetMode() == Mode::Watched;
};

inline std::string ModeName(const testing::TestParamInfo<Mode>& info) {
  return info.param == Mode::Watched ? "Watched" : "Polled";
}

}  // namespace sorvex::collect
