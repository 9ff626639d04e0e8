// Delivers lines from inputs to destinations.
#pragma once

#include <collect/Collector.h>
#include <delivery/Channel.h>
#include <settings/Settings.h>

#include <host/Event.h>
#include <host/ISocket.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace sorvex::delivery {

/// Makes a destination's socket, not opened yet. Throws when it cannot.
using SocketMaker =
    std::function<std::shared_ptr<WindowsAgentCommon::ISocket>(const settings::DestinationSettings& destination)>;

/// What a delivery needs, and whom it notifies.
struct DeliveryPorts {
  SocketMaker makeSocket;
  std::function<std::string(std::uint64_t source)> nameSource;  ///< the display name of a line's source
  std::function<void(collect::Mark mark)> taken;                ///< every destination is done with the line
  std::function<void()> roomAgain;                              ///< a destination was opened; any thread
  std::string host;                                             ///< this machine's name
};

/// Passes each line to every destination and reports which lines all of them are done with. While one destination has
/// no room, no line is taken: the lines wait at their source. One thread.
class Delivery : public collect::LineSink {
 public:
  explicit Delivery(DeliveryPorts ports);

  bool Take(std::string_view line, collect::Mark mark) override;

  /// Calls `taken` for the lines that all destinations are now done with. Returns whether there were any.
  bool Settle();

  /// Whether some destination is not done with a line.
  bool HasInFlight() const { return !m_inFlight.empty(); }

  /// Replaces the destinations. Those with the same settings stay unchanged; others are closed, with up to `patience`
  /// for their queues. Returns true when a closed one was not done with all its lines and another destination is to get
  /// them: then every line that was not `taken` must be repeated. Destinations that have a line do not get it twice.
  /// Lines that no other destination is to get are counted in `Lost`.
  bool Change(const std::vector<settings::DestinationSettings>& destinations, std::chrono::milliseconds patience);

  /// Closes all destinations as above, and settles. Nothing is taken any more.
  void Close(std::chrono::milliseconds patience);

  /// Lines that the destinations closed by the last `Change` had not got, and no other is to get instead.
  std::uint64_t Lost() const { return m_lost; }

  std::vector<ChannelStatistics> GetStatistics();

 private:
  /// Lines are numbered in the order in which they were taken.
  struct Target {
    std::unique_ptr<Channel> channel;
    std::deque<std::uint64_t> inFlight;  ///< numbers of the lines that the channel is not done with
    std::uint64_t settled = 0;           ///< how many it is done with
    bool hasTakenNow = false;            ///< the line being passed on
    /// Repeated lines that this one already has: the end of the last one for each source. Later lines are new, since
    /// lines of a source come in order.
    std::unordered_map<std::uint64_t, std::uint64_t> got;

    bool HasGot(collect::Mark mark) const;
    void NoteGot(collect::Mark mark);
  };

  std::uint64_t NextNumber() const { return m_firstNumber + m_inFlight.size(); }
  std::uint64_t FirstUndone(std::vector<Target>& targets) const;
  Target MakeTarget(const settings::DestinationSettings& destination) const;
  void PrepareRepetition(std::vector<Target>& closed, std::size_t keptTargets);

  const DeliveryPorts m_ports;
  std::vector<Target> m_targets;
  std::deque<collect::Mark> m_inFlight;  ///< lines that are not `taken`, by their numbers
  std::uint64_t m_firstNumber = 0;       ///< of those
  std::uint64_t m_lost = 0;
  WindowsAgentCommon::Event m_event;
  std::uint64_t m_eventSource = 0;  ///< whose name the event has; 0 is none
};

}  // namespace sorvex::delivery
