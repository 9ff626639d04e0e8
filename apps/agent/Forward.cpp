#include <Forward.h>

#include <Distributor.h>
#include <LineReader.h>
#include <Outlet.h>
#include <Output.h>
#include <ProgressLine.h>
#include <platform/Platform.h>

#include <host/IPayloadFactory.h>
#include <host/ServiceLookup.h>
#include <host/Text.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace sorvex::agent {
namespace {

using namespace WindowsAgentCommon;
using SteadyClock = std::chrono::steady_clock;
using Outlets = std::vector<std::unique_ptr<Outlet>>;

/// Reads the inputs and sees to it that every outlet gets each line. With one outlet, or the blocking strategy, the
/// reading thread itself sends; several queues are fed by a thread each.
class Forwarder {
 public:
  /// Opens the outlets, which outlive the forwarder.
  Forwarder(const Outlets& outlets, const ForwardCommand& command) : m_outlets(outlets) {
    m_event.m_strHost = GetHostName();
    if (command.queued && outlets.size() > 1) {
      m_pDistributor = std::make_unique<Distributor>(outlets);
    } else {
      for (const std::unique_ptr<Outlet>& outlet : outlets) outlet->Open();
    }
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

  /// Sends what is still to be sent and closes the outlets.
  void Close() {
    if (m_pDistributor) {
      m_pDistributor.reset();
    } else {
      for (const std::unique_ptr<Outlet>& outlet : m_outlets) outlet->Close();
    }
  }

  /// Whether no more events are to be sent.
  bool HasEnded() const { return HasGivenUp() || IsInterrupted(); }
  const std::atomic<std::uint64_t>& EventsRead() const { return m_eventsRead; }

 private:
  bool HasGivenUp() const {
    return std::ranges::all_of(m_outlets, [](const std::unique_ptr<Outlet>& outlet) { return outlet->HasGivenUp(); });
  }

  void ForwardLines(InputFile& input, const std::string& source) {
    LineReader reader(input);
    m_event.m_strSource = source;
    // What has been read from a pipe is nowhere else any more: after an interrupt it is still sent.
    while (m_pDistributor ? DistributeLines(reader) : SendLine(reader)) {
      if (!HasGivenUp() || IsInterrupted()) continue;
      PrintError("gave up sending; what follows in " + source + " was not read");
      return;
    }
  }

  /// Returns false at the end of the input.
  bool SendLine(LineReader& reader) {
    std::string_view line;
    if (!reader.GetLine(line)) return false;
    m_event.m_time = reader.GetReadTime();
    m_event.m_strText.assign(line);
    CountRead(1);
    for (const std::unique_ptr<Outlet>& outlet : m_outlets) outlet->Send(m_event);
    return true;
  }

  /// Returns false at the end of the input.
  bool DistributeLines(LineReader& reader) {
    std::string_view lines;
    if (!reader.GetLines(lines)) return false;
    Batch batch{std::string(lines), 0, m_event.m_strSource, reader.GetReadTime()};
    batch.events = static_cast<std::uint64_t>(std::ranges::count(lines, '\n')) + (lines.ends_with('\n') ? 0 : 1);
    CountRead(batch.events);
    m_pDistributor->Distribute(std::make_shared<const Batch>(std::move(batch)));
    return true;
  }

  /// This thread is the only writer.
  void CountRead(std::uint64_t events) {
    m_eventsRead.store(m_eventsRead.load(std::memory_order_relaxed) + events, std::memory_order_relaxed);
  }

  const Outlets& m_outlets;
  Event m_event;
  std::atomic<std::uint64_t> m_eventsRead{0};
  std::unique_ptr<Distributor> m_pDistributor;
};

/// The socket itself takes its default for a name that it does not know, and events would arrive in another format.
void CheckBuilder(const std::string& name) {
  IPayloadFactory* const factory = GetService<IPayloadFactory>();
  std::shared_ptr<IPayloadBuilder> builder;
  if (factory == nullptr || !factory->CreatePayloadBuilder(name, builder)) {
    throw std::runtime_error("there is no payload builder " + name);
  }
}

void PrintRate(const Outlet& outlet, std::uint64_t eventsRead, double seconds) {
  const auto accepted = static_cast<double>(eventsRead - outlet.Unsent());
  PrintDecimal("events-per-second", seconds > 0 ? accepted / seconds : 0);
}

void PrintTotals(std::uint64_t eventsRead, double seconds) {
  PrintNumber("events-read", static_cast<std::int64_t>(eventsRead));
  PrintDecimal("seconds", seconds);
}

void PrintCounters(const Outlets& outlets, std::uint64_t eventsRead, double seconds) {
  if (outlets.size() == 1) {
    outlets.front()->PrintCounters();
    PrintTotals(eventsRead, seconds);
    PrintRate(*outlets.front(), eventsRead, seconds);
    return;
  }
  for (const std::unique_ptr<Outlet>& outlet : outlets) {
    PrintValue("destination", outlet->Url());
    outlet->PrintCounters();
    PrintRate(*outlet, eventsRead, seconds);
  }
  PrintTotals(eventsRead, seconds);
}

}  // namespace

int RunCommand(const ForwardCommand& command, IConnectionFactory& factory) {
  CheckBuilder(command.builder);
  Outlets outlets;
  for (const Destination& destination : command.destinations) {
    outlets.push_back(std::make_unique<Outlet>(destination, command, factory));
  }
  const SteadyClock::time_point begin = SteadyClock::now();
  Forwarder forwarder(outlets, command);
  bool complete = true;
  {
    const ProgressLine progressLine(outlets, forwarder.EventsRead());
    const std::vector<std::string> standardInput{"-"};
    for (const std::string& file : command.files.empty() ? standardInput : command.files) {
      if (forwarder.HasEnded()) break;
      complete = forwarder.Forward(file) && complete;
    }
    forwarder.Close();
  }
  const std::chrono::duration<double> elapsed = SteadyClock::now() - begin;
  const std::uint64_t eventsRead = forwarder.EventsRead();
  PrintCounters(outlets, eventsRead, elapsed.count());
  for (const std::unique_ptr<Outlet>& outlet : outlets) complete = outlet->HasSentAll(eventsRead) && complete;
  return complete ? 0 : 1;
}

}  // namespace sorvex::agent
