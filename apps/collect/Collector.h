// The inputs of an agent: files that are followed through rotation and truncation, and standard input. Delivered
// positions survive restarts.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace sorvex::collect {

/// Where a line ends. Marks of one source come in order.
struct Mark {
  std::uint64_t source = 0;    ///< one file from one truncation to the next, or standard input; never used twice
  std::uint64_t position = 0;  ///< bytes from the start of the source to the end of the line, its line feed included
};

class LineSink {
 public:
  virtual ~LineSink() = default;

  /// Takes a line without its line end; `line` is valid during the call. Returns false when there is no room now: the
  /// next `Collect` passes the same line again.
  virtual bool Take(std::string_view line, Mark mark) = 0;
};

struct InputSettings {
  enum class Kind { Files, StandardInput };

  static constexpr std::size_t defaultMaxLineBytes = 65536;
  static constexpr std::size_t minMaxLineBytes = 256;
  static constexpr std::size_t maxMaxLineBytes = 16 * 1024 * 1024;

  Kind kind = Kind::Files;
  /// UTF-8 path; file and folder names may contain `*`, `?` and `[...]`. Files only.
  std::string pattern;
  /// Whether files that exist when this input is first used are read whole, or only what is added.
  bool fromBeginning = false;
  /// A longer line is passed on in pieces. Clamped to the bounds above.
  std::size_t maxLineBytes = defaultMaxLineBytes;
};

enum class Severity { Debug, Info, Warning };
/// Called with one line of text, by the thread that calls the collector.
using Log = std::function<void(Severity severity, const std::string& text)>;

/// Times and amounts; the defaults are an agent's.
struct Limits {
  std::chrono::milliseconds pollInterval{1000};        ///< between checks of files whose changes nobody reports
  std::chrono::milliseconds pollListInterval{5000};    ///< between listings of folders whose changes nobody reports
  std::chrono::milliseconds listInterval{60'000};      ///< between listings of the other folders
  std::chrono::milliseconds settleTime{10};            ///< minimum between two wake-ups for changed files
  std::chrono::milliseconds rotatedQuietTime{30'000};  ///< a rotated file has ended after this time without a change
  std::chrono::milliseconds idleCloseTime{300'000};    ///< a file is closed after this time without a change
  std::chrono::hours forgetTime{7 * 24};               ///< how long the position of a vanished file is kept
  std::chrono::hours saveInterval{24};                 ///< positions that do not change are saved after this time
  std::size_t maxOpenFiles = 256;                      ///< unchanged files above this number are closed
  std::size_t maxVanished = 10'000;                    ///< positions of vanished files that are kept
  std::size_t bytesPerCall = 4 * 1024 * 1024;          ///< the approximate amount passed on by one `Collect`
  bool watchFolders = true;                            ///< false: poll, as on a file system that reports no changes

  std::function<std::chrono::steady_clock::time_point()> now = std::chrono::steady_clock::now;
  std::function<std::chrono::system_clock::time_point()> wallClock = std::chrono::system_clock::now;
};

/// Follows inputs and passes their lines on. One thread, except `Wake`.
class Collector {
 public:
  enum class Progress {
    Idle,     ///< everything there was passed on
    More,     ///< there is more
    Refused,  ///< the sink refused a line
  };

  /// Reads `positionsFile`, if it exists. An unreadable one is logged and renamed by adding `.corrupt`. An empty path
  /// keeps no positions. Without inputs, those used before a restart stay known until the first `Change`. Throws
  /// `std::system_error` when the system has no means to wait.
  Collector(std::vector<InputSettings> inputs, std::filesystem::path positionsFile, Log log, Limits limits = {});
  ~Collector();
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  /// Passes on available lines: a bounded number of bytes, file by file in turn.
  Progress Collect(LineSink& sink);

  /// Returns when there may be something to collect, after `Wake`, and after `limit` at the latest. After a `Refused`
  /// it waits only for `Wake` and `limit`.
  void Wait(std::chrono::milliseconds limit);

  /// Ends the current `Wait`, or else the next one. Any thread, also from inside a signal handler.
  void Wake();

  /// This line and all earlier ones of its source have been delivered everywhere. An unknown source is ignored.
  /// Standard input is read at most 4 MiB beyond the lines taken; files have no such limit.
  void Taken(Mark mark);

  /// Passes on again, from the next `Collect` on, what was not taken, except what a truncation has removed meanwhile.
  void Rewind();

  /// Writes the positions of the lines taken, if they changed, to a new file that is synced and renamed. A failure is
  /// logged, and the next call tries again.
  void Save();

  /// Replaces the inputs. Standard input, and inputs with the same pattern as before, continue where they are.
  void Change(std::vector<InputSettings> inputs);

  /// The display name of a source: the path of its file in UTF-8, or "stdin". Empty for an unknown one.
  std::string GetName(std::uint64_t source) const;

 private:
  class State;
  std::unique_ptr<State> m_pState;
};

}  // namespace sorvex::collect
