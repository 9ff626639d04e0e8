// What happened to a day's lines at one destination.
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

/// What script/day noted about one destination. Each line is a word and its values, in order of time:
///
///     began SECONDS                        the agent was started, seconds since 1970
///     killed                               it was killed
///     stopped LINES                        it ended in order, with that many lines undelivered
///     crashed DESTINATION RECEIVER BYTES   a receiver was killed while the system held that many bytes for it
///     written FILE NUMBER                  how many lines were written to a file
///     sent DESTINATION LINES               how many lines the last agent reports as sent
struct Diary {
  struct Life {
    double began = 0;
    bool isKilled = false;
    std::uint64_t undelivered = 0;
  };
  struct Crash {
    std::uint64_t bytes = 0;
    std::size_t life = 0;  ///< the agent's life at that moment
  };

  std::vector<Life> lives;
  std::map<int, Crash> crashes;  ///< by receiver number
  std::map<std::string, std::uint64_t, std::less<>> written;
  std::optional<std::uint64_t> sent;

  /// Throws `std::runtime_error` for a line that is none of the above.
  static Diary Read(std::istream& text, const std::string& destination);
};

struct Report {
  std::uint64_t written = 0;
  std::uint64_t arrived = 0;
  std::uint64_t lost = 0;       ///< lines that the system held for receivers that were killed
  std::uint64_t lostBytes = 0;  ///< the minimum size of these
  std::uint64_t heldBytes = 0;  ///< what the system held for those receivers
  std::uint64_t twiceAfterKill = 0;
  std::uint64_t twiceAfterStop = 0;  ///< because that agent had not delivered everything
  std::uint64_t late = 0;            ///< lines that came after later ones
  std::vector<std::string> faults;   ///< violations
};

/// Takes what receivers wrote down, one receiver after another in the order of their starts. Each line is a word and
/// its values:
///
///     connected CONNECTION SECONDS
///     line CONNECTION BYTES FILE NUMBER
///     damaged CONNECTION TEXT              a message that holds none of the lines
///     frozen CONNECTION BYTES              nothing more is read; that many bytes of a line had been
///     ended CONNECTION
class Ledger {
 public:
  explicit Ledger(Diary diary);

  /// Throws `std::runtime_error` for a line that is none of the above.
  void Add(int receiver, std::istream& entries);

  Report Judge() const;

 private:
  /// What is known of a line; the index is its number.
  struct Fate {
    std::uint16_t life = 0;      ///< in which it last came, counted from 1; 0 means never
    std::uint16_t receiver = 0;  ///< which got it first
  };
  struct File {
    std::vector<Fate> fates;
    std::uint64_t greatest = 0;     ///< highest number that came
    std::uint64_t headerBytes = 0;  ///< the smallest header that came with a line
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
  Report m_report;  ///< what is known so far
};

}  // namespace sorvex::day
