// What became of the lines of a day at one destination.
#pragma once

#include "DayLine.h"

#include <cstddef>
#include <cstdint>
#include <istream>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sorvex::day {

/// What script/day noted, as far as it concerns one destination. A word and its values on each line, in order of time:
///
///     began SECONDS                        the agent was started, seconds since 1970
///     killed                               it was killed
///     stopped LINES                        it ended in order, with so many lines that it had not delivered
///     crashed DESTINATION RECEIVER BYTES   a receiver was killed when the system had so many bytes for it
///     written FILE NUMBER                  how many lines were written to a file
///     sent DESTINATION LINES               how many lines the last agent says it has sent
struct Diary {
  struct Life {
    double began = 0;
    bool isKilled = false;
    std::uint64_t undelivered = 0;
  };
  struct Crash {
    std::uint64_t bytes = 0;
    std::size_t life = 0;  ///< when the agent was in this life
  };

  std::vector<Life> lives;
  std::map<int, Crash> crashes;  ///< by the number of the receiver
  std::map<std::string, std::uint64_t, std::less<>> written;
  std::optional<std::uint64_t> sent;

  /// Throws `std::runtime_error` for a line that is none of the above.
  static Diary Read(std::istream& text, const std::string& destination);
};

struct Report {
  std::uint64_t written = 0;
  std::uint64_t arrived = 0;
  std::uint64_t lost = 0;       ///< lines that the system had for receivers that were killed
  std::uint64_t lostBytes = 0;  ///< of these, at least
  std::uint64_t heldBytes = 0;  ///< that the system had for them
  std::uint64_t twiceAfterKill = 0;
  std::uint64_t twiceAfterStop = 0;  ///< because that agent had not delivered all
  std::uint64_t late = 0;            ///< lines that came after their successors
  std::vector<std::string> faults;   ///< what must not be
};

/// Takes what receivers wrote down, one receiver after the other in the order of their starts. A word and its values on
/// each line:
///
///     connected CONNECTION SECONDS
///     line CONNECTION BYTES FILE NUMBER
///     damaged CONNECTION TEXT              a message that holds none of the lines
///     frozen CONNECTION BYTES              nothing more is read; so many bytes of a line had been
///     ended CONNECTION
class Ledger {
 public:
  explicit Ledger(Diary diary);

  /// Throws `std::runtime_error` for a line that is none of the above.
  void Add(int receiver, std::istream& entries);

  Report Judge() const;

 private:
  /// What is known of a line; they are kept by their numbers.
  struct Fate {
    std::uint16_t life = 0;      ///< in which it came last, counted from 1; 0 means never
    std::uint16_t receiver = 0;  ///< to which it came first
  };
  struct File {
    std::vector<Fate> fates;
    std::uint64_t greatest = 0;     ///< number that came
    std::uint64_t headerBytes = 0;  ///< the fewest that came with a line
  };

  std::size_t LifeAt(double seconds) const;
  void AddLine(int receiver, std::size_t life, std::uint64_t bytes, const DayLine& line);
  void AddRepetition(const Fate& fate, std::size_t life, const DayLine& line);
  const std::pair<const int, Diary::Crash>* FindCrash(const File& file, std::uint64_t number) const;
  void AddFault(const std::string& text);

  const Diary m_diary;
  std::map<std::string, File, std::less<>> m_files;
  std::map<int, std::uint64_t> m_frozenBytes;  ///< by receiver
  std::uint64_t m_inLastLife = 0;
  Report m_report;  ///< what is known already
};

}  // namespace sorvex::day
