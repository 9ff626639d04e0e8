// All programs of script/day that write logs, in one.
//
//   day_writer FOLDER LINES
//
// Writes that many lines a second to each file. Reads one command a line from standard input and answers each with one
// line; ends when there are no more.
//
//   open NAME                      starts writing a file
//   open NAME HOW SECONDS          the same; rotates it every that many seconds
//   rotate NAME HOW                rotates it now. HOW is `rename`: the file gets another name, still receives a few
//                                  lines, and a new one is made; or `copytruncate`: no line is written between the
//                                  copy and the truncation. Rotated files have a number after their names.
//   pause, resume                  stops writing, and continues
//   count                          answers with each file's name and its number of lines
//   tidy [FOLDER]                  deletes all rotated files, or moves them into that folder
#include "DayLine.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <list>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace sorvex::day {
namespace {

using Clock = std::chrono::steady_clock;

/// Time between two checks of what is due.
constexpr int turnMs = 10;

/// A longer backlog is not caught up.
constexpr double maxBacklogSeconds = 0.5;

/// How many lines still go to a renamed file, as from a program that has not noticed yet.
constexpr int linesAfterRename = 5;

[[noreturn]] void Throw(const std::filesystem::path& path) {
  throw std::system_error(errno, std::generic_category(), path.string());
}

class LogFile {
 public:
  LogFile(std::filesystem::path path, double linesPerSecond)
      : m_path(std::move(path)), m_strName(m_path.filename().string()), m_linesPerSecond(linesPerSecond) {
    Open();
  }
  ~LogFile() { close(m_handle); }
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  const std::string& Name() const { return m_strName; }
  std::uint64_t Count() const { return m_count; }

  void RotateEvery(std::string how, std::chrono::seconds interval) {
    m_strHow = std::move(how);
    m_interval = interval;
    m_nextRotation = Clock::now() + interval;
  }

  /// Writes what is due after that many more seconds.
  void Turn(double seconds) {
    m_due = std::min(m_due + seconds * m_linesPerSecond, maxBacklogSeconds * m_linesPerSecond);
    const auto lines = static_cast<int>(m_due);
    m_due -= lines;
    WriteLines(lines);
    if (m_interval.count() == 0 || Clock::now() < m_nextRotation) return;
    m_nextRotation += m_interval;
    Rotate(m_strHow);
  }

  void Rotate(const std::string& how) {
    const std::filesystem::path rotated = m_path.string() + "." + std::to_string(++m_generation);
    if (how == "rename") {
      std::filesystem::rename(m_path, rotated);
      WriteLines(linesAfterRename);
      close(m_handle);
      Open();
    } else if (how == "copytruncate") {
      std::filesystem::copy_file(m_path, rotated);
      if (ftruncate(m_handle, 0) != 0) Throw(m_path);
    } else {
      throw std::runtime_error("neither rename nor copytruncate: " + how);
    }
    m_rotated.push_back(rotated);
  }

  void Tidy(const std::filesystem::path& folder) {
    for (const std::filesystem::path& path : m_rotated) {
      if (folder.empty()) {
        std::filesystem::remove(path);
      } else {
        std::filesystem::rename(path, folder / path.filename());
      }
    }
    m_rotated.clear();
  }

 private:
  void Open() {
    m_handle = open(m_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0600);
    if (m_handle < 0) Throw(m_path);
  }

  void WriteLines(int number) {
    std::string text;
    for (int line = 0; line < number; ++line) text += MakeLine({m_strName, ++m_count}) + '\n';
    // In two parts, so that a reader can meet half a line.
    const std::size_t first = text.size() - std::min<std::size_t>(text.size(), 10);
    Write(std::string_view(text).substr(0, first));
    Write(std::string_view(text).substr(first));
  }

  void Write(std::string_view text) {
    while (!text.empty()) {
      const ssize_t count = write(m_handle, text.data(), text.size());
      if (count < 0) Throw(m_path);
      text.remove_prefix(static_cast<std::size_t>(count));
    }
  }

  const std::filesystem::path m_path;
  const std::string m_strName;
  const double m_linesPerSecond;
  int m_handle = -1;
  double m_due = 0;
  std::uint64_t m_count = 0;
  std::string m_strHow;
  std::chrono::seconds m_interval{0};
  Clock::time_point m_nextRotation;
  int m_generation = 0;
  std::vector<std::filesystem::path> m_rotated;
};

class Writer {
 public:
  Writer(std::filesystem::path folder, double linesPerSecond)
      : m_folder(std::move(folder)), m_linesPerSecond(linesPerSecond) {}

  void Run() {
    Clock::time_point last = Clock::now();
    while (TakeCommands()) {
      const Clock::time_point now = Clock::now();
      const std::chrono::duration<double> passed = now - std::exchange(last, now);
      if (m_isPaused) continue;
      for (LogFile& file : m_files) file.Turn(passed.count());
    }
  }

 private:
  /// Waits at most one turn. Returns false at the end of the commands.
  bool TakeCommands() {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (poll(&input, 1, turnMs) <= 0) return true;
    char buffer[4096];
    const ssize_t count = read(STDIN_FILENO, buffer, sizeof buffer);
    if (count <= 0) return false;
    m_strCommands.append(buffer, static_cast<std::size_t>(count));
    for (std::size_t end = m_strCommands.find('\n'); end != std::string::npos; end = m_strCommands.find('\n')) {
      const std::string answer = Obey(m_strCommands.substr(0, end));
      m_strCommands.erase(0, end + 1);
      std::printf("%s\n", answer.c_str());
      std::fflush(stdout);
    }
    return true;
  }

  std::string Obey(const std::string& command) {
    std::istringstream words(command);
    std::string word;
    std::string name;
    std::string how;
    words >> word >> name >> how;
    if (word == "open") {
      LogFile& file = m_files.emplace_back(m_folder / name, m_linesPerSecond);
      int seconds = 0;
      if (!how.empty() && words >> seconds) file.RotateEvery(how, std::chrono::seconds(seconds));
    } else if (word == "rotate") {
      Find(name).Rotate(how);
    } else if (word == "pause" || word == "resume") {
      m_isPaused = word == "pause";
    } else if (word == "count") {
      std::string counts;
      for (const LogFile& file : m_files) counts += file.Name() + ' ' + std::to_string(file.Count()) + ' ';
      return counts;
    } else if (word == "tidy") {
      for (LogFile& file : m_files) file.Tidy(name);
    } else {
      throw std::runtime_error("no command: " + command);
    }
    return "done";
  }

  LogFile& Find(const std::string& name) {
    const auto found = std::ranges::find(m_files, name, &LogFile::Name);
    if (found == m_files.end()) throw std::runtime_error("no file of that name: " + name);
    return *found;
  }

  const std::filesystem::path m_folder;
  const double m_linesPerSecond;
  std::list<LogFile> m_files;
  std::string m_strCommands;
  bool m_isPaused = false;
};

}  // namespace
}  // namespace sorvex::day

int main(int argc, char** argv) {
  try {
    if (argc != 3) throw std::runtime_error("usage: day_writer FOLDER LINES");
    sorvex::day::Writer(argv[1], std::strtod(argv[2], nullptr)).Run();
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "day_writer: %s\n", error.what());
    return 1;
  }
}
