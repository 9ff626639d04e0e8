#include <delivery/Delivery.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace sorvex::delivery {

Delivery::Delivery(DeliveryPorts ports) : m_ports(std::move(ports)) { m_event.m_strHost = m_ports.host; }

bool Delivery::Target::HasGot(collect::Mark mark) const {
  if (got.empty()) return false;
  const auto found = got.find(mark.source);
  return found != got.end() && mark.position <= found->second;
}

void Delivery::Target::NoteGot(collect::Mark mark) {
  std::uint64_t& position = got[mark.source];
  position = std::max(position, mark.position);
}

bool Delivery::Take(std::string_view line, collect::Mark mark) {
  if (m_targets.empty()) return false;
  if (!std::ranges::all_of(m_targets, [](Target& target) { return target.channel->HasRoom(); })) return false;
  if (m_eventSource != mark.source) {
    m_event.m_strSource = m_ports.nameSource(mark.source);
    m_eventSource = mark.source;
  }
  m_event.m_time = std::chrono::system_clock::now();
  m_event.m_strText.assign(line);
  bool isComplete = true;
  for (Target& target : m_targets) {
    target.hasTakenNow = !target.HasGot(mark) && target.channel->Submit(m_event);
    if (target.hasTakenNow) target.inFlight.push_back(NextNumber());
    isComplete = isComplete && (target.hasTakenNow || target.HasGot(mark));
  }
  if (!isComplete) {
    for (Target& target : m_targets) {
      if (target.hasTakenNow) target.NoteGot(mark);
    }
    return false;
  }
  m_inFlight.push_back(mark);
  return true;
}

/// The number of the first line that some target is not done with.
std::uint64_t Delivery::FirstUndone(std::vector<Target>& targets) const {
  std::uint64_t first = NextNumber();
  for (Target& target : targets) {
    const std::uint64_t done = target.channel->Done();
    while (target.settled < done && !target.inFlight.empty()) {
      target.inFlight.pop_front();
      target.settled += 1;
    }
    if (!target.inFlight.empty()) first = std::min(first, target.inFlight.front());
  }
  return first;
}

bool Delivery::Settle() {
  const std::uint64_t firstUndone = FirstUndone(m_targets);
  const bool isAny = m_firstNumber < firstUndone && !m_inFlight.empty();
  while (m_firstNumber < firstUndone && !m_inFlight.empty()) {
    const collect::Mark mark = m_inFlight.front();
    m_inFlight.pop_front();
    m_firstNumber += 1;
    // One call for all consecutive lines of a source.
    const bool isLast = m_firstNumber == firstUndone || m_inFlight.empty();
    if (isLast || m_inFlight.front().source != mark.source) m_ports.taken(mark);
  }
  return isAny;
}

Delivery::Target Delivery::MakeTarget(const settings::DestinationSettings& destination) const {
  Target target;
  target.channel = std::make_unique<Channel>(destination, m_ports.makeSocket(destination), m_ports.roomAgain);
  return target;
}

bool Delivery::Change(const std::vector<settings::DestinationSettings>& destinations,
                      std::chrono::milliseconds patience) {
  const auto goesOn = [&destinations](const Target& target) {
    return std::ranges::find(destinations, target.channel->Settings()) != destinations.end();
  };
  const auto isThere = [this](const settings::DestinationSettings& destination) {
    return std::ranges::any_of(
        m_targets, [&destination](const Target& target) { return target.channel->Settings() == destination; });
  };
  // Before anything is closed: a socket that cannot be made leaves everything unchanged.
  std::vector<Target> added;
  for (const settings::DestinationSettings& destination : destinations) {
    if (!isThere(destination)) added.push_back(MakeTarget(destination));
  }

  std::vector<Channel*> closing;
  for (const Target& target : m_targets) {
    if (!goesOn(target)) closing.push_back(target.channel.get());
  }
  CloseChannels(closing, patience);
  Settle();
  const auto firstClosed = std::stable_partition(m_targets.begin(), m_targets.end(), goesOn);
  std::vector<Target> closed(std::make_move_iterator(firstClosed), std::make_move_iterator(m_targets.end()));
  m_targets.erase(firstClosed, m_targets.end());
  const std::size_t keptTargets = m_targets.size();
  std::ranges::move(added, std::back_inserter(m_targets));

  std::uint64_t undone = 0;
  for (const Target& target : closed) undone += target.inFlight.size();
  const bool isRepeated = undone > 0 && (!added.empty() || keptTargets == 0);
  m_lost = isRepeated ? 0 : undone;
  if (isRepeated) PrepareRepetition(closed, keptTargets);
  return isRepeated;
}

/// Notes for each target which repeated lines it is not to get, and forgets them as lines in flight.
void Delivery::PrepareRepetition(std::vector<Target>& closed, std::size_t keptTargets) {
  const std::uint64_t firstUndone = FirstUndone(closed);
  std::uint64_t number = m_firstNumber;
  for (const collect::Mark mark : m_inFlight) {
    // A new target gets what one of the closed ones had not got.
    const std::size_t end = number < firstUndone ? m_targets.size() : keptTargets;
    for (std::size_t index = 0; index < end; ++index) m_targets[index].NoteGot(mark);
    number += 1;
  }
  // Lines in flight at the kept targets keep their numbers, so no repeated line counts as taken too early.
  m_firstNumber = NextNumber();
  m_inFlight.clear();
}

void Delivery::Close(std::chrono::milliseconds patience) {
  std::vector<Channel*> closing;
  for (const Target& target : m_targets) closing.push_back(target.channel.get());
  CloseChannels(closing, patience);
  Settle();
}

std::vector<ChannelStatistics> Delivery::GetStatistics() {
  std::vector<ChannelStatistics> statistics;
  for (const Target& target : m_targets) statistics.push_back(target.channel->GetStatistics());
  return statistics;
}

}  // namespace sorvex::delivery
