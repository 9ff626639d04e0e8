#include "Ledger.h"

#include <algorithm>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace sorvex::day {
namespace {

/// More would say nothing new.
constexpr std::size_t maxFaults = 20;

/// Reads the values of one line; throws if the line has fewer, others or more.
template <class... Values>
void ReadValues(std::istringstream& line, Values&... values) {
  std::string rest;
  if (!(line >> ... >> values) || line >> rest) throw std::runtime_error("cannot be understood: " + line.str());
}

std::string Name(const DayLine& line) { return std::string(line.name) + " " + std::to_string(line.number); }

}  // namespace

Diary Diary::Read(std::istream& text, const std::string& destination) {
  Diary diary;
  for (std::string line; std::getline(text, line);) {
    std::istringstream words(line);
    std::string word;
    std::string subject;
    std::uint64_t number = 0;
    words >> word;
    if (word == "began") {
      Life life;
      ReadValues(words, life.began);
      diary.lives.push_back(life);
    } else if (word == "killed" && !diary.lives.empty()) {
      ReadValues(words);
      diary.lives.back().isKilled = true;
    } else if (word == "stopped" && !diary.lives.empty()) {
      ReadValues(words, diary.lives.back().undelivered);
    } else if (word == "crashed" && !diary.lives.empty()) {
      int receiver = 0;
      ReadValues(words, subject, receiver, number);
      if (subject == destination) diary.crashes[receiver] = {number, diary.lives.size() - 1};
    } else if (word == "written") {
      ReadValues(words, subject, number);
      diary.written[subject] = number;
    } else if (word == "sent") {
      ReadValues(words, subject, number);
      if (subject == destination) diary.sent = number;
    } else {
      throw std::runtime_error("cannot be understood: " + line);
    }
  }
  if (diary.lives.empty()) throw std::runtime_error("the agent was never started");
  return diary;
}

Ledger::Ledger(Diary diary) : m_diary(std::move(diary)) {
  for (const auto& [name, number] : m_diary.written) {
    File& file = m_files[name];
    file.fates.resize(number + 1);
    file.headerBytes = std::numeric_limits<std::uint64_t>::max();
    m_report.written += number;
  }
}

std::size_t Ledger::LifeAt(double seconds) const {
  const auto next = std::ranges::find_if(m_diary.lives, [seconds](const auto& life) { return life.began > seconds; });
  return next == m_diary.lives.begin() ? 0 : static_cast<std::size_t>(next - m_diary.lives.begin()) - 1;
}

void Ledger::AddFault(const std::string& text) {
  if (m_report.faults.size() < maxFaults) m_report.faults.push_back(text);
}

void Ledger::Add(int receiver, std::istream& entries) {
  std::map<int, std::size_t> lives;
  for (std::string text; std::getline(entries, text);) {
    // The last entry of a killed receiver may be incomplete.
    if (entries.eof()) break;
    std::istringstream words(text);
    std::string word;
    int connection = 0;
    words >> word >> connection;
    if (word == "line") {
      std::uint64_t bytes = 0;
      std::string name;
      std::uint64_t number = 0;
      ReadValues(words, bytes, name, number);
      AddLine(receiver, lives.at(connection), bytes, {name, number});
    } else if (word == "connected") {
      double seconds = 0;
      ReadValues(words, seconds);
      lives[connection] = LifeAt(seconds);
    } else if (word == "frozen") {
      std::uint64_t bytes = 0;
      ReadValues(words, bytes);
      m_frozenBytes[receiver] += bytes;
    } else if (word == "damaged") {
      AddFault("receiver " + std::to_string(receiver) + ": " + text);
    } else if (word != "ended") {
      throw std::runtime_error("cannot be understood: " + text);
    }
  }
}

void Ledger::AddLine(int receiver, std::size_t life, std::uint64_t bytes, const DayLine& line) {
  const auto found = m_files.find(line.name);
  if (found == m_files.end() || line.number >= found->second.fates.size()) {
    AddFault("arrived and was not written: " + Name(line));
    return;
  }
  File& file = found->second;
  Fate& fate = file.fates[line.number];
  if (fate.life == 0) {
    m_report.arrived += 1;
    if (line.number < file.greatest) m_report.late += 1;
    fate.receiver = static_cast<std::uint16_t>(receiver);
  } else {
    AddRepetition(fate, life, line);
  }
  fate.life = static_cast<std::uint16_t>(life + 1);
  if (life + 1 == m_diary.lives.size()) m_inLastLife += 1;
  file.greatest = std::max(file.greatest, line.number);
  file.headerBytes = std::min(file.headerBytes, bytes - std::min<std::uint64_t>(bytes, MakeLine(line).size()));
}

void Ledger::AddRepetition(const Fate& fate, std::size_t life, const DayLine& line) {
  const auto first = m_diary.lives.begin() + (fate.life - 1);
  const auto end = m_diary.lives.begin() + static_cast<std::ptrdiff_t>(std::max<std::size_t>(life, fate.life - 1U));
  if (std::any_of(first, end, [](const auto& one) { return one.isKilled; })) {
    m_report.twiceAfterKill += 1;
  } else if (std::any_of(first, end, [](const auto& one) { return one.undelivered > 0; })) {
    m_report.twiceAfterStop += 1;
  } else {
    AddFault("arrived twice, in lives " + std::to_string(fate.life) + " and " + std::to_string(life + 1) +
             " of the agent: " + Name(line));
  }
}

/// The killed receiver for which the system may have held a missing line. If a copy is read after the file that it was
/// made from, both neighbours of the line may have arrived before it was due; then the bytes decide.
const std::pair<const int, Diary::Crash>* Ledger::FindCrash(const File& file, std::uint64_t number) const {
  std::uint64_t before = number - 1;
  while (before > 0 && file.fates[before].life == 0) --before;
  std::uint64_t after = number + 1;
  while (after < file.fates.size() && file.fates[after].life == 0) ++after;
  if (after == file.fates.size()) return nullptr;
  const auto crash = m_diary.crashes.lower_bound(file.fates[before].receiver);
  if (crash == m_diary.crashes.end() || file.fates[after].receiver < crash->first) return nullptr;
  return &*crash;
}

Report Ledger::Judge() const {
  Report report = m_report;
  std::map<int, std::uint64_t> lostBytes;
  std::uint64_t lostInLastLife = 0;
  for (const auto& [name, file] : m_files) {
    for (std::uint64_t number = 1; number < file.fates.size(); ++number) {
      if (file.fates[number].life > 0) continue;
      const DayLine line{name, number};
      const auto* const crash = FindCrash(file, number);
      if (crash == nullptr) {
        if (report.faults.size() < maxFaults) report.faults.push_back("missing: " + Name(line));
        continue;
      }
      lostBytes[crash->first] += MakeLine(line).size() + file.headerBytes;
      report.lost += 1;
      if (crash->second.life + 1 == m_diary.lives.size()) lostInLastLife += 1;
    }
  }
  for (const auto& [receiver, crash] : m_diary.crashes) {
    const auto frozen = m_frozenBytes.find(receiver);
    const std::uint64_t held = crash.bytes + (frozen == m_frozenBytes.end() ? 0 : frozen->second);
    const std::uint64_t lost = lostBytes[receiver];
    report.lostBytes += lost;
    report.heldBytes += held;
    if (lost > held) {
      report.faults.push_back("receiver " + std::to_string(receiver) + " was killed: at least " + std::to_string(lost) +
                              " bytes are missing, of which the system had " + std::to_string(held));
    }
  }
  if (m_diary.sent && *m_diary.sent != m_inLastLife + lostInLastLife) {
    report.faults.push_back("the last agent says it has sent " + std::to_string(*m_diary.sent) + " lines; " +
                            std::to_string(m_inLastLife) + " arrived and " + std::to_string(lostInLastLife) +
                            " were lost with receivers");
  }
  const std::uint64_t missing = report.written - report.arrived - report.lost;
  if (missing > 0) report.faults.insert(report.faults.begin(), std::to_string(missing) + " lines are missing");
  return report;
}

}  // namespace sorvex::day
