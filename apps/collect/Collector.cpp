#include <collect/Collector.h>

#include <collect/Follower.h>
#include <collect/PositionsFile.h>
#include <collect/StandardInputSource.h>
#include <collect/Turn.h>
#include <collect/platform/ChangeWatch.h>

#include <algorithm>
#include <optional>
#include <utility>

namespace sorvex::collect {

class Collector::State {
 public:
  State(std::vector<InputSettings> inputs, std::filesystem::path positionsFile, Log log, Limits limits)
      : m_log(log ? std::move(log) : [](Severity, const std::string&) {}),
        m_limits(std::move(limits)),
        m_positionsFile(std::move(positionsFile), m_log),
        m_follower(m_watch, m_log, m_limits, m_nextSource, m_positionsFile.Load()) {
    // A change to no inputs at all would forget those that were used before the restart.
    if (!inputs.empty()) Change(std::move(inputs));
  }

  Progress Collect(LineSink& sink);
  void Wait(std::chrono::milliseconds limit);
  void Wake() { m_watch.Wake(); }
  void Taken(Mark mark);
  void Rewind();
  void Save();
  void Change(std::vector<InputSettings> inputs);
  std::string GetName(std::uint64_t source) const;

 private:
  Turn TakeTurn(LineSink& sink);
  bool HasInput() const { return m_hasInput && m_standardInput; }

  const Log m_log;
  const Limits m_limits;
  std::uint64_t m_nextSource = 1;
  ChangeWatch m_watch;
  PositionsFile m_positionsFile;
  Follower m_follower;
  /// Once it was an input it stays, with data that cannot be read again.
  std::optional<StandardInputSource> m_standardInput;
  bool m_hasInput = false;     ///< standard input is one of the inputs
  bool m_isInputTurn = false;  ///< it is standard input's turn, not the files'
  Progress m_progress = Progress::More;
  std::chrono::steady_clock::time_point m_changeTime;  ///< the last wake-up for a change
};

Collector::Progress Collector::State::Collect(LineSink& sink) {
  if (m_follower.Update()) Save();
  std::size_t bytes = 0;
  while (bytes < m_limits.bytesPerCall) {
    // A source that was refused goes first next time.
    Turn turn = TakeTurn(sink);
    if (turn.end == Turn::End::Nothing) {
      m_isInputTurn = !m_isInputTurn;
      turn = TakeTurn(sink);
    }
    if (turn.end == Turn::End::Refused) return m_progress = Progress::Refused;
    if (turn.end == Turn::End::Nothing) return m_progress = Progress::Idle;
    m_isInputTurn = !m_isInputTurn;
    // Bytes that were only looked at count too, so that a call ends.
    bytes += std::max<std::size_t>(turn.bytes, 1);
  }
  return m_progress = Progress::More;
}

Turn Collector::State::TakeTurn(LineSink& sink) {
  if (!m_isInputTurn) return m_follower.HandOut(sink);
  return HasInput() ? m_standardInput->HandOut(sink) : Turn{};
}

void Collector::State::Wait(std::chrono::milliseconds limit) {
  if (m_progress == Progress::Refused) {
    m_watch.Wait(limit, false, false);
    return;
  }
  const auto isReady = [this] { return m_follower.IsReady() || (HasInput() && m_standardInput->IsReady()); };
  if (m_progress == Progress::More || isReady()) return;

  const auto round = [](auto time) { return std::chrono::ceil<std::chrono::milliseconds>(time); };
  const auto start = m_limits.now();
  const auto due = round(m_follower.NextDue() - start);
  limit = std::clamp(due, std::chrono::milliseconds(0), std::max(limit, std::chrono::milliseconds(0)));
  // A file that is written line by line would wake us for each line.
  const auto settled = round(m_changeTime + m_limits.settleTime - start);
  if (settled > std::chrono::milliseconds(0) && settled <= m_limits.settleTime) {
    const auto pause = std::min(settled, limit);
    if (m_watch.Wait(pause, false, false)) return;
    limit -= pause;
  }
  const auto begin = m_limits.now();
  m_watch.Wait(limit, true, HasInput() && m_standardInput->WantsMore());
  // A wait that timed out has seen no change, and nothing has to settle.
  const auto end = m_limits.now();
  if (end - begin < limit) m_changeTime = end;
}

void Collector::State::Taken(Mark mark) {
  if (!m_standardInput || !m_standardInput->Taken(mark)) m_follower.Taken(mark);
}

void Collector::State::Rewind() {
  if (m_standardInput) m_standardInput->Rewind();
  m_follower.Rewind();
}

void Collector::State::Save() {
  if (m_follower.HasChangedPositions() && m_positionsFile.Save(m_follower.WritePositions())) m_follower.MarkSaved();
}

void Collector::State::Change(std::vector<InputSettings> inputs) {
  m_hasInput = false;
  for (InputSettings& input : inputs) {
    input.maxLineBytes = std::clamp(input.maxLineBytes, InputSettings::minMaxLineBytes, InputSettings::maxMaxLineBytes);
    if (input.kind != InputSettings::Kind::StandardInput) continue;
    m_hasInput = true;
    if (!m_standardInput) m_standardInput.emplace(m_nextSource++, m_watch, m_log);
    m_standardInput->SetMaxLineBytes(input.maxLineBytes);
  }
  m_follower.SetInputs(inputs);
  m_progress = Progress::More;
}

std::string Collector::State::GetName(std::uint64_t source) const {
  return m_standardInput && m_standardInput->Source() == source ? "stdin" : m_follower.GetName(source);
}

Collector::Collector(std::vector<InputSettings> inputs, std::filesystem::path positionsFile, Log log, Limits limits)
    : m_pState(
          std::make_unique<State>(std::move(inputs), std::move(positionsFile), std::move(log), std::move(limits))) {}

Collector::~Collector() = default;

Collector::Progress Collector::Collect(LineSink& sink) { return m_pState->Collect(sink); }

void Collector::Wait(std::chrono::milliseconds limit) { m_pState->Wait(limit); }

void Collector::Wake() { m_pState->Wake(); }

void Collector::Taken(Mark mark) { m_pState->Taken(mark); }

void Collector::Rewind() { m_pState->Rewind(); }

void Collector::Save() { m_pState->Save(); }

void Collector::Change(std::vector<InputSettings> inputs) { m_pState->Change(std::move(inputs)); }

std::string Collector::GetName(std::uint64_t source) const { return m_pState->GetName(source); }

}  // namespace sorvex::collect
