// The inputs of an agent: files that are followed through rotation and truncation, and standard input. What has been
// delivered is remembered across restarts.
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
  /// same line comes again with the next `Collect`.
  virtual bool Take(std::string_view line, Mark mark) = 0;
};

struct InputSettings {
  enum class Kind { Files, StandardInput };

  static constexpr std::size_t defaultMaxLineBytes = 65536;
  static constexpr std::size_t minMaxLineBytes = 256;
  static constexpr std::size_t maxMaxLineBytes = 16 * 1024 * 1024;

  Kind kind = Kind::Files;
  /// UTF-8 path; `*`, `?` and `[...]` stand for parts of file and folder names. Files only.
  std::string pattern;
  /// Whether files that are there when this input is used for the first time are read whole, or only what is added.
  bool fromBeginning = false;
  /// A longer line is handed out in pieces. Brought into the bounds above.
  std::size_t maxLineBytes = defaultMaxLineBytes;
};

enum class Severity { Debug, Info, Warning };
/// Called by the thread that calls the collector, with one line of text.
using Log = std::function<void(Severity severity, const std::string& text)>;

/// How long and how much; the defaults are those of an agent.
struct Limits {
  std::chrono::milliseconds pollInterval{1000};        ///< between looks at files whose changes nobody reports
  std::chrono::milliseconds pollListInterval{5000};    ///< between listings of folders whose changes nobody reports
  std::chrono::milliseconds listInterval{60'000};      ///< between listings of the other folders
  std::chrono::milliseconds settleTime{10};            ///< at least this lies between two wake-ups for changed files
  std::chrono::milliseconds rotatedQuietTime{30'000};  ///< a rotated file that does not change for so long has ended
  std::chrono::milliseconds idleCloseTime{300'000};    ///< a file that does not change for so long is closed
  std::chrono::hours forgetTime{7 * 24};               ///< how long the position of a vanished file is kept
  std::size_t maxOpenFiles = 256;                      ///< unchanged files above this number are closed
  std::size_t maxVanished = 10'000;                    ///< positions of vanished files that are kept
  std::size_t bytesPerCall = 4 * 1024 * 1024;          ///< about so much is handed out by one `Collect`
  bool watchFolders = true;                            ///< false: poll, as on a file system that reports no changes

  std::function<std::chrono::steady_clock::time_point()> now = std::chrono::steady_clock::now;
  std::function<std::chrono::system_clock::time_point()> wallClock = std::chrono::system_clock::now;
};

/// Follows inputs and hands out their lines. Used by one thread, but for `Wake`.
class Collector {
 public:
  enum class Progress {
    Idle,     ///< all that is there was handed out
    More,     ///< there is more
    Refused,  ///< the sink refused a line
  };

  /// Reads `positionsFile`, if there is one. One that cannot be read is logged and kept beside, with `.corrupt` added
  /// to its name. An empty path keeps no positions. Without inputs, those that were used before a restart are known
  /// until the first `Change`. Throws `std::system_error` when the system has no means to wait.
  Collector(std::vector<InputSettings> inputs, std::filesystem::path positionsFile, Log log, Limits limits = {});
  ~Collector();
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  /// Hands out lines that are there: a bounded number of bytes, file by file in turn.
  Progress Collect(LineSink& sink);

  /// Returns when there may be something to collect, after `Wake`, and after `limit` at the latest. After a `Refused`
  /// it waits for `Wake` and `limit` alone.
  void Wait(std::chrono::milliseconds limit);

  /// Ends the `Wait` that is under way, or else the next one. Any thread, also from inside a signal handler.
  void Wake();

  /// This line and all before it of its source have been delivered everywhere. An unknown source is ignored.
  /// Standard input is read no further than 4 MiB past what was taken, files no less than before.
  void Taken(Mark mark);

  /// Hands out again, from the next `Collect` on, what was not taken. What a truncation removed from a file meanwhile
  /// is not there any more.
  void Rewind();

  /// Writes the positions of what was taken, if they changed: beside the file, synced and renamed. A failure is logged,
  /// and the next call tries again.
  void Save();

  /// Replaces the inputs. One with the same pattern as before, and standard input, go on where they are.
  void Change(std::vector<InputSettings> inputs);

  /// What people call a source: the path of its file in UTF-8, or "stdin". Empty for an unknown one.
  std::string GetName(std::uint64_t source) const;

  /// Whether standard input has ended with everything handed out, and there are no files to follow.
  bool IsAtEnd() const;

 private:
  class State;
  std::unique_ptr<State> m_pState;
};

}  // namespace sorvex::collect
