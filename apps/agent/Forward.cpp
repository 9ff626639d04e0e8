#include <Forward.h>

#include <LineReader.h>
#include <Output.h>
#include <platform/Platform.h>

#include <host/IPayloadFactory.h>
#include <host/ITCPSocket.h>
#include <host/ServiceLookup.h>
#include <host/Text.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <stop_token>
#include <system_error>
#include <thread>

namespace sorvex::agent {
namespace {

using namespace WindowsAgentCommon;
using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

/// Pause before a refused event is tried again. The queue makes the caller wait itself; a socket that is not connected
/// answers at once.
constexpr std::chrono::milliseconds retryPause = 50ms;

struct Progress {
  std::atomic<std::uint64_t> eventsRead{0};
  std::atomic<std::uint64_t> refused{0};  ///< attempts to send that failed
  std::atomic<std::uint64_t> unsent{0};   ///< events that no attempt sent
};

/// Shows the progress on one line of standard error, twice a second, until it is destroyed. Without a terminal it does
/// nothing.
class ProgressLine {
 public:
  ProgressLine(const ISocket& socket, const Progress& progress) {
    if (!IsErrorTerminal()) return;
    m_thread = std::jthread([this, &socket, &progress](std::stop_token stop) {
      std::unique_lock lock(m_mutex);
      while (!m_wakeUp.wait_for(lock, stop, 500ms, [&stop] { return stop.stop_requested(); })) Show(socket, progress);
      Show(socket, progress);
      std::fputc('\n', stderr);
    });
  }

 private:
  static void Show(const ISocket& socket, const Progress& progress) {
    std::fprintf(stderr, "\r%llu events read, %lu sent, %llu bytes queued, %llu refusals   ",
                 static_cast<unsigned long long>(progress.eventsRead.load()),
                 static_cast<unsigned long>(socket.GetMessagesSent()),
                 static_cast<unsigned long long>(socket.GetQueueSize()),
                 static_cast<unsigned long long>(progress.refused.load()));
    std::fflush(stderr);
  }

  std::mutex m_mutex;
  std::condition_variable_any m_wakeUp;
  std::jthread m_thread;  ///< last: it uses the others until it is joined
};

class Forwarder {
 public:
  Forwarder(ITCPSocket& socket, const ForwardCommand& command) : m_socket(socket), m_command(command) {
    m_event.m_strHost = GetHostName();
  }

  /// Sends the lines of one input; returns false when it could not be read to its end.
  bool Forward(const std::string& name) {
    try {
      if (name == "-") {
        InputFile input;
        ForwardLines(input, "stdin");
      } else {
        InputFile input(WideToPath(Utf8ToWide(name)));
        ForwardLines(input, name);
      }
      return true;
    } catch (const std::system_error& error) {
      PrintError(error.what());
      return false;
    }
  }

  /// Whether no more events are to be sent.
  bool HasEnded() const { return m_bGivenUp || IsInterrupted(); }
  const Progress& GetProgress() const { return m_progress; }

 private:
  void ForwardLines(InputFile& input, const std::string& source) {
    LineReader reader(input);
    m_event.m_strSource = source;
    std::string_view line;
    // What has been read from a pipe is nowhere else any more: after an interrupt it is still sent.
    while (reader.GetLine(line)) {
      m_event.m_time = reader.GetReadTime();
      m_event.m_strText.assign(line);
      Count(m_progress.eventsRead);
      if (!m_bGivenUp && Send()) continue;
      Count(m_progress.unsent);
      if (IsInterrupted()) continue;
      PrintError("gave up sending; what follows in " + source + " was not read");
      return;
    }
  }

  /// Sends the event once; returns whether the socket has taken it.
  bool TrySend() {
    const std::uint32_t sentBefore = m_socket.GetMessagesSent();
    if (m_socket.SendEvent(m_event) >= 0) return true;
    // A payload of no bytes at all is sent, although the blocking strategy reports the bytes that it did not write.
    return !m_command.queued && m_socket.GetMessagesSent() != sentBefore;
  }

  /// Sends the event, again and again if need be; returns false when it has given up.
  bool Send() {
    if (TrySend()) return true;
    const SteadyClock::time_point begin = SteadyClock::now();
    for (;;) {
      Count(m_progress.refused);
      const std::chrono::duration<double> elapsed = SteadyClock::now() - begin;
      if (IsInterrupted() || (m_command.giveUpAfter && elapsed.count() >= *m_command.giveUpAfter)) {
        m_bGivenUp = true;
        return false;
      }
      WaitForInterrupt(retryPause);
      if (TrySend()) return true;
    }
  }

  /// Adds one; this thread is the only writer.
  static void Count(std::atomic<std::uint64_t>& counter) {
    counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }

  ITCPSocket& m_socket;
  const ForwardCommand& m_command;
  Event m_event;
  Progress m_progress;
  bool m_bGivenUp = false;
};

ParameterBlock GetSocketParameters(const ForwardCommand& command) {
  // Of two entries with one key the first is read: what the user sets comes first.
  ParameterBlock parameters = command.parameters;
  parameters.emplace("TargetAddress", command.destination.host);
  parameters.emplace("TargetPort", std::to_string(command.destination.port));
  parameters.emplace("Socket.BlockingSendStrategy", command.queued ? "false" : "true");
  parameters.emplace("PayloadBuilderType", command.builder);
  return parameters;
}

/// The socket itself takes its default for a name that it does not know, and events would arrive in another format.
void CheckBuilder(const std::string& name) {
  IPayloadFactory* const factory = GetService<IPayloadFactory>();
  std::shared_ptr<IPayloadBuilder> builder;
  if (factory == nullptr || !factory->CreatePayloadBuilder(name, builder)) {
    throw std::runtime_error("there is no payload builder " + name);
  }
}

std::shared_ptr<ITCPSocket> CreateTcpSocket(IConnectionFactory& factory) {
  std::shared_ptr<IRawSocket> socket;
  factory.CreateSocket(SOCKET_FLAG_STREAM | SOCKET_FLAG_INTERNET, socket);
  std::shared_ptr<ITCPSocket> tcpSocket = std::dynamic_pointer_cast<ITCPSocket>(socket);
  if (!tcpSocket) throw std::runtime_error("the module made no TCP socket");
  return tcpSocket;
}

void PrintCounters(const ISocket& socket, const Progress& progress, double seconds) {
  PrintNumber("messages-submitted", socket.GetMessagesSubmitted());
  PrintNumber("bytes-submitted", socket.GetBytesSubmitted());
  PrintNumber("messages-sent", socket.GetMessagesSent());
  PrintNumber("bytes-sent", socket.GetBytesSent());
  PrintNumber("messages-truncated", socket.GetMessagesTruncated());
  PrintNumber("bytes-truncated", socket.GetBytesTruncated());
  PrintNumber("messages-dropped", socket.GetMessagesDropped());
  PrintNumber("bytes-dropped", socket.GetBytesDropped());
  PrintNumber("queue-size", static_cast<std::int64_t>(socket.GetQueueSize()));
  PrintNumber("refused", static_cast<std::int64_t>(progress.refused));
  PrintNumber("unsent", static_cast<std::int64_t>(progress.unsent));
  PrintNumber("events-read", static_cast<std::int64_t>(progress.eventsRead));
  PrintDecimal("seconds", seconds);
  const std::uint64_t accepted = progress.eventsRead - progress.unsent;
  PrintDecimal("events-per-second", seconds > 0 ? static_cast<double>(accepted) / seconds : 0);
}

}  // namespace

int RunCommand(const ForwardCommand& command, IConnectionFactory& factory) {
  CheckBuilder(command.builder);
  const std::shared_ptr<ITCPSocket> socket = CreateTcpSocket(factory);
  const SteadyClock::time_point begin = SteadyClock::now();
  socket->Initialize(GetSocketParameters(command));

  Forwarder forwarder(*socket, command);
  bool complete = true;
  {
    const ProgressLine progressLine(*socket, forwarder.GetProgress());
    const std::vector<std::string> standardInput{"-"};
    for (const std::string& file : command.files.empty() ? standardInput : command.files) {
      if (forwarder.HasEnded()) break;
      complete = forwarder.Forward(file) && complete;
    }
    complete = socket->Shutdown() == 0 && complete;
  }
  const std::chrono::duration<double> elapsed = SteadyClock::now() - begin;
  const Progress& progress = forwarder.GetProgress();
  PrintCounters(*socket, progress, elapsed.count());

  // The socket's counters are 32 bits wide and wrap.
  const bool allSent =
      progress.unsent == 0 && socket->GetMessagesSent() == static_cast<std::uint32_t>(progress.eventsRead);
  return complete && allSent ? 0 : 1;
}

}  // namespace sorvex::agent
