#include <Forward.h>

#include <Distributor.h>
#include <LineReader.h>
#include <Outlet.h>
#include <Output.h>
#include <ProgressLine.h>
#include <Supervisor.h>
#include <platform/Platform.h>

#include <host/IPayloadFactory.h>
#include <host/ServiceLookup.h>
#include <host/Text.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace sorvex::agent {
namespace {

using namespace WindowsAgentCommon;
using SteadyClock = std::chrono::steady_clock;
using Outlets = std::vector<std::unique_ptr<Outlet>>;

/// After an interrupt the supervisor ends the outlets before this time is over.
constexpr LastWords::Bound interruptBound{std::chrono::milliseconds(2700), 1};

/// Reads the inputs and passes each line to every outlet. For one outlet the reading thread sends itself; several have
/// a thread each.
class Forwarder {
 public:
  /// Opens the outlets, which outlive the forwarder.
  Forwarder(const Outlets& outlets, const ForwardCommand& command, Counter& eventsRead)
      : m_outlets(outlets), m_eventsRead(eventsRead) {
    m_event.m_strHost = GetHostName();
    if (outlets.size() > 1) {
      m_pDistributor = std::make_unique<Distributor>(outlets, command.queued ? Pace::Live : Pace::Slowest);
    } else {
      outlets.front()->Open();
    }
  }

  /// Sends the lines of one input; returns whether it was read to its end.
  bool Forward(const std::string& name) {
    try {
      if (HasEnded()) return false;
      if (name == "-") {
        InputFile input;
        return ForwardLines(input, "stdin");
      }
      InputFile input(ArgumentToPath(name));
      return ForwardLines(input, name);
    } catch (const std::system_error& error) {
      PrintError(error.what());
      return false;
    }
  }

  /// Sends what is left and closes the outlets.
  void Close() {
    if (m_pDistributor) {
      m_pDistributor.reset();
    } else {
      m_outlets.front()->Close();
    }
  }

 private:
  /// Whether reading is to stop.
  bool HasEnded() const { return HasGivenUp() || IsInterrupted(); }

  bool HasGivenUp() const {
    return std::ranges::all_of(m_outlets, [](const std::unique_ptr<Outlet>& outlet) { return outlet->HasGivenUp(); });
  }

  bool ForwardLines(InputFile& input, const std::string& source) {
    LineReader reader(input);
    m_event.m_strSource = source;
    // Data read from a pipe exist nowhere else: after an interrupt their whole lines are still sent.
    while (m_pDistributor ? DistributeLines(reader) : SendLines(reader)) {
      if (HasGivenUp() && !IsInterrupted()) break;
    }
    if (reader.HasReachedEnd()) return true;
    PrintError(std::string(IsInterrupted() ? "asked to end" : "gave up sending") + "; what follows in " + source +
               " was not read");
    return false;
  }

  /// Returns false when there are none.
  bool SendLines(LineReader& reader) {
    std::string_view lines;
    if (!reader.GetLines(lines)) return false;
    Outlet& outlet = *m_outlets.front();
    const Outlet::Work work(outlet);
    m_event.m_time = reader.GetReadTime();
    while (!lines.empty()) {
      m_event.m_strText.assign(TakeLine(lines));
      m_eventsRead += 1;
      outlet.Send(m_event);
    }
    return true;
  }

  /// Returns false when there are none.
  bool DistributeLines(LineReader& reader) {
    std::string_view lines;
    if (!reader.GetLines(lines)) return false;
    Batch batch{std::string(lines), 0, m_event.m_strSource, reader.GetReadTime()};
    batch.events = static_cast<std::uint64_t>(std::ranges::count(lines, '\n')) + (lines.ends_with('\n') ? 0 : 1);
    m_eventsRead += batch.events;
    m_pDistributor->Distribute(std::make_shared<const Batch>(std::move(batch)));
    return true;
  }

  const Outlets& m_outlets;
  Counter& m_eventsRead;
  Event m_event;
  std::unique_ptr<Distributor> m_pDistributor;
};

/// For an unknown name the socket itself takes its default, and events would arrive in another format.
void CheckBuilder(const std::string& name) {
  IPayloadFactory* const factory = GetService<IPayloadFactory>();
  std::shared_ptr<IPayloadBuilder> builder;
  if (factory == nullptr || !factory->CreatePayloadBuilder(name, builder)) {
    throw std::runtime_error("there is no payload builder " + name);
  }
}

/// Detects a closed standard input before waiting for a destination.
void CheckInputs(const std::vector<std::string>& names) {
  if (std::ranges::find(names, "-") != names.end()) InputFile();
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

/// Returns whether everything was read.
bool ForwardInputs(const Outlets& outlets, const ForwardCommand& command, Counter& eventsRead) {
  const Supervisor supervisor(outlets, command);
  Forwarder forwarder(outlets, command, eventsRead);
  const ProgressLine progressLine(outlets, eventsRead);
  bool complete = true;
  for (const std::string& file : command.files) complete = forwarder.Forward(file) && complete;
  forwarder.Close();
  return complete;
}

}  // namespace

int RunCommand(const ForwardCommand& command, IConnectionFactory& factory, LastWords& lastWords) {
  CheckBuilder(command.builder);
  CheckInputs(command.files);
  Outlets outlets;
  for (const Destination& destination : command.destinations) {
    outlets.push_back(std::make_unique<Outlet>(destination, command, factory));
  }
  Counter eventsRead;
  const SteadyClock::time_point begin = SteadyClock::now();
  const auto print = [&] {
    for (const std::unique_ptr<Outlet>& outlet : outlets) outlet->ReportLoss();
    const std::chrono::duration<double> elapsed = SteadyClock::now() - begin;
    PrintCounters(outlets, eventsRead, elapsed.count());
  };
  lastWords.Prepare(interruptBound, print);
  const Withdrawal withdrawal(lastWords);
  bool complete = ForwardInputs(outlets, command, eventsRead);
  if (lastWords.Withdraw()) print();
  for (const std::unique_ptr<Outlet>& outlet : outlets) complete = outlet->HasSentAll(eventsRead) && complete;
  return complete ? 0 : 1;
}

}  // namespace sorvex::agent
