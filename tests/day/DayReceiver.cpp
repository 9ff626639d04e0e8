// A receiver for script/day: writes down which lines arrived.
//
//   day_receiver tcp|tls PORT FOLDER
//
// Listens on that loopback port, or a free one for 0, and writes into the folder, which must be empty:
//
//   entries   what arrived, in the format described in Ledger.h; written as soon as it is read, so that it outlives
//             the process
//   progress  the highest number that has arrived of each file
//   port      the port; written last
//
// SIGUSR1 makes it stop reading: what the system holds from then on was never read. SIGTERM ends it.
#include "DayLine.h"

#include <support/LoopbackTcpServer.h>
#include <support/LoopbackTlsServer.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

namespace sorvex::day {
namespace {

constexpr std::size_t readBytes = 65536;

/// Ends the header of each message.
constexpr std::string_view headerEnd = " - - - ";

/// A file that is written unbuffered.
class PlainFile {
 public:
  PlainFile(const std::filesystem::path& path, int flags) : m_handle(open(path.c_str(), flags | O_CREAT, 0600)) {
    if (m_handle < 0) throw std::system_error(errno, std::generic_category(), path.string());
  }
  ~PlainFile() { close(m_handle); }
  PlainFile(const PlainFile&) = delete;
  PlainFile& operator=(const PlainFile&) = delete;

  void Append(std::string_view text) { Check(write(m_handle, text.data(), text.size()), text.size()); }
  void Replace(std::string_view text) { Check(pwrite(m_handle, text.data(), text.size(), 0), text.size()); }

 private:
  static void Check(ssize_t count, std::size_t size) {
    if (count < 0 || static_cast<std::size_t>(count) != size) {
      throw std::system_error(errno, std::generic_category(), "cannot write");
    }
  }

  int m_handle;
};

/// Shared by the threads of all connections.
class Notes {
 public:
  explicit Notes(const std::filesystem::path& folder)
      : m_entries(folder / "entries", O_WRONLY | O_APPEND), m_progress(folder / "progress", O_WRONLY) {}

  void Add(const std::string& entries) {
    const std::lock_guard lock(m_mutex);
    m_entries.Append(entries);
  }

  void AddProgress(const std::map<std::string, std::uint64_t, std::less<>>& greatest) {
    const std::lock_guard lock(m_mutex);
    for (const auto& [name, number] : greatest) {
      std::uint64_t& known = m_greatest[name];
      known = std::max(known, number);
    }
    std::string text;
    // With a fixed width, because the previous text is overwritten.
    for (const auto& [name, number] : m_greatest) {
      const std::string digits = std::to_string(number);
      text += name + ' ' + std::string(12 - std::min<std::size_t>(digits.size(), 12), '0') + digits + '\n';
    }
    m_progress.Replace(text);
  }

 private:
  std::mutex m_mutex;
  PlainFile m_entries;
  PlainFile m_progress;
  std::map<std::string, std::uint64_t, std::less<>> m_greatest;
};

/// One connection.
class Conversation {
 public:
  Conversation(Notes& notes, int index) : m_notes(notes), m_number(' ' + std::to_string(index)) {
    const std::chrono::duration<double> time = std::chrono::system_clock::now().time_since_epoch();
    m_notes.Add("connected" + m_number + ' ' + std::to_string(time.count()) + '\n');
  }

  /// Writes down the complete lines of `text` and removes them from it.
  void Take(std::string& text) {
    std::string entries;
    std::map<std::string, std::uint64_t, std::less<>> greatest;
    std::size_t start = 0;
    for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
      const std::string_view message = std::string_view(text).substr(start, end - start);
      const std::size_t header = message.find(headerEnd);
      const auto line =
          header == std::string_view::npos ? std::nullopt : ParseLine(message.substr(header + headerEnd.size()));
      if (line) {
        entries += "line" + m_number + ' ' + std::to_string(message.size() + 1) + ' ';
        entries += line->name;
        entries += ' ' + std::to_string(line->number) + '\n';
        std::uint64_t& number = greatest[std::string(line->name)];
        number = std::max(number, line->number);
      } else {
        entries += "damaged" + m_number + ' ';
        entries += message;
        entries += '\n';
      }
      start = end + 1;
    }
    text.erase(0, start);
    if (entries.empty()) return;
    m_notes.Add(entries);
    m_notes.AddProgress(greatest);
  }

  void Freeze(std::size_t bytes) { m_notes.Add("frozen" + m_number + ' ' + std::to_string(bytes) + '\n'); }
  void End() { m_notes.Add("ended" + m_number + '\n'); }

 private:
  Notes& m_notes;
  const std::string m_number;
};

class Receiver {
 public:
  explicit Receiver(const std::filesystem::path& folder) : m_notes(folder) {}

  void StopReading() { m_bFrozen = true; }

  /// Reads a connection of either kind to its end.
  template <class Server, class Connection>
  void Receive(Server& server, Connection& connection, int index) {
    try {
      Conversation conversation(m_notes, index);
      std::string text;
      bool isMore = true;
      while (isMore && !m_bFrozen) {
        isMore = connection.ReadSome(text, readBytes);
        conversation.Take(text);
      }
      if (isMore) {
        conversation.Freeze(text.size());
        server.HoldUntilStopped();
      } else {
        conversation.End();
      }
    } catch (const std::exception& error) {
      std::fprintf(stderr, "day_receiver: %s\n", error.what());
      std::_Exit(1);
    }
  }

 private:
  Notes m_notes;
  std::atomic<bool> m_bFrozen{false};
};

std::uint16_t ReadPort(std::string_view text) {
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (error != std::errc() || end != text.data() + text.size())
    throw std::runtime_error("no port: " + std::string(text));
  return port;
}

void Run(std::string_view kind, std::uint16_t port, const std::filesystem::path& folder) {
  // Waited for below; all threads inherit the mask.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGUSR1);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  Receiver receiver(folder);
  std::unique_ptr<test::LoopbackTcpServer> tcp;
  std::unique_ptr<test::LoopbackTlsServer> tls;
  if (kind == "tcp") {
    tcp = std::make_unique<test::LoopbackTcpServer>(
        [&receiver](auto& server, auto& connection, int index) { receiver.Receive(server, connection, index); }, port);
  } else if (kind == "tls") {
    test::TlsServerOptions options;
    options.port = port;
    tls = std::make_unique<test::LoopbackTlsServer>(
        [&receiver](auto& server, auto& session, int index) { receiver.Receive(server, session, index); }, options);
  } else {
    throw std::runtime_error("neither tcp nor tls: " + std::string(kind));
  }
  std::ofstream(folder / "port.new") << (tcp ? tcp->Port() : tls->Port()) << '\n';
  std::filesystem::rename(folder / "port.new", folder / "port");
  for (int signal = 0; sigwait(&signals, &signal) == 0 && signal != SIGTERM;) receiver.StopReading();
}

}  // namespace
}  // namespace sorvex::day

int main(int argc, char** argv) {
  try {
    if (argc != 4) throw std::runtime_error("usage: day_receiver tcp|tls PORT FOLDER");
    sorvex::day::Run(argv[1], sorvex::day::ReadPort(argv[2]), argv[3]);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "day_receiver: %s\n", error.what());
    return 1;
  }
}
