// Waits until files have changed, without checking each of them.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>
#include <vector>

namespace sorvex::collect {

/// One thread, except `Wake`.
class ChangeWatch {
 public:
  enum class Answer {
    Watched,
    Unsupported,   ///< nobody reports changes there; so everywhere on Windows
    LimitReached,  ///< the system allows no more watches for this user
    Failed,        ///< it does not exist, or cannot be read
  };

  struct Change {
    int number = 0;                           ///< of the watch
    std::filesystem::path::string_type name;  ///< of the file in that folder; empty for the watched path itself
    bool isListing = false;                   ///< a name came, went or became readable; otherwise a file was written
  };

  /// Throws `std::system_error`.
  ChangeWatch();
  ~ChangeWatch();
  ChangeWatch(const ChangeWatch&) = delete;
  ChangeWatch& operator=(const ChangeWatch&) = delete;

  /// Watches a folder or a single file. A watch that exists keeps its number, even under another path.
  Answer Add(const std::filesystem::path& path, int& number);
  void Remove(int number);

  /// Adds what has changed to `changes`, without waiting. Returns false when some changes were lost.
  bool Take(std::vector<Change>& changes);

  /// Waits for a change when `forChanges`, for standard input when `forInput`, and for `Wake`. Returns whether there
  /// was a `Wake`.
  bool Wait(std::chrono::milliseconds limit, bool forChanges, bool forInput);

  /// Ends the current `Wait`, or else the next one. Any thread, also from inside a signal handler.
  void Wake() noexcept;

 private:
  friend class StandardInput;
  struct State;
  std::unique_ptr<State> m_pState;
};

/// Standard input, read without waiting. A program has one. `watch` outlives it.
class StandardInput {
 public:
  explicit StandardInput(ChangeWatch& watch);
  ~StandardInput();
  StandardInput(const StandardInput&) = delete;
  StandardInput& operator=(const StandardInput&) = delete;

  /// Stores up to `size` available bytes and returns their number; nothing at the end. An error, stored in `error`,
  /// ends the input too.
  std::optional<std::size_t> Read(char* buffer, std::size_t size, std::error_code& error);

 private:
  struct State;
  std::shared_ptr<State> m_pState;
};

}  // namespace sorvex::collect
