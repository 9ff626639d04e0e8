#include "DayLine.h"
#include "Ledger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace sorvex::day {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

Diary ReadDiary(const std::string& text) {
  std::istringstream stream(text);
  return Diary::Read(stream, "tcp");
}

/// Consecutive lines of the file "a" on connection 0, each with a header of 10 bytes.
std::string Lines(int first, int last) {
  std::string text;
  for (int number = first; number <= last; ++number) {
    const DayLine line{"a", static_cast<std::uint64_t>(number)};
    text += "line 0 " + std::to_string(MakeLine(line).size() + 10) + " a " + std::to_string(number) + "\n";
  }
  return text;
}

std::uint64_t BytesOf(int first, int last) {
  std::uint64_t bytes = 0;
  for (int number = first; number <= last; ++number) {
    bytes += MakeLine({"a", static_cast<std::uint64_t>(number)}).size() + 10;
  }
  return bytes;
}

class ADay {
 public:
  explicit ADay(const std::string& diary) : m_ledger(ReadDiary(diary)) {}

  ADay& Receives(int receiver, const std::string& entries) {
    std::istringstream stream(entries);
    m_ledger.Add(receiver, stream);
    return *this;
  }
  Report Judge() const { return m_ledger.Judge(); }

 private:
  Ledger m_ledger;
};

TEST(DayLine, IsReadBack) {
  const std::string text = MakeLine({"access.log", 12345});
  const auto line = ParseLine(text);
  ASSERT_TRUE(line);
  EXPECT_EQ(line->name, "access.log");
  EXPECT_EQ(line->number, 12345U);
}

TEST(DayLine, IsNoneWhenAnyByteIsAnother) {
  const std::string text = MakeLine({"a.log", 78});
  for (std::size_t index = 0; index < text.size(); ++index) {
    std::string other = text;
    other[index] = '~';
    const auto line = ParseLine(other);
    EXPECT_TRUE(!line || line->name != "a.log") << other;
  }
  EXPECT_FALSE(ParseLine(text.substr(0, text.size() - 1)));
  EXPECT_FALSE(ParseLine(text + text));
}

TEST(Ledger, HasNoFaultWhenEachLineArrivedOnce) {
  const Report report =
      ADay("began 100\nwritten a 5\nsent tcp 5\n").Receives(0, "connected 0 101\n" + Lines(1, 5) + "ended 0\n").Judge();
  EXPECT_THAT(report.faults, IsEmpty());
  EXPECT_EQ(report.written, 5U);
  EXPECT_EQ(report.arrived, 5U);
  EXPECT_EQ(report.lost, 0U);
}

TEST(Ledger, FindsAMissingLine) {
  const Report report =
      ADay("began 100\nwritten a 5\n").Receives(0, "connected 0 101\n" + Lines(1, 2) + Lines(4, 5)).Judge();
  EXPECT_THAT(report.faults, ElementsAre("1 lines are missing", "missing: a 3"));
}

TEST(Ledger, FindsMissingLinesAtTheEndAndOfAWholeFile) {
  const Report report =
      ADay("began 100\nwritten a 3\nwritten b 1\n").Receives(0, "connected 0 101\n" + Lines(1, 2)).Judge();
  EXPECT_THAT(report.faults, ElementsAre("2 lines are missing", "missing: a 3", "missing: b 1"));
}

TEST(Ledger, DoesNotCountALineThatAReceiverHadNoTimeToWriteWhole) {
  std::string entries = "connected 0 101\n" + Lines(1, 2);
  entries.pop_back();
  EXPECT_THAT(ADay("began 100\nwritten a 2\n").Receives(0, entries).Judge().faults,
              ElementsAre("1 lines are missing", "missing: a 2"));
}

TEST(Ledger, ExcusesWhatTheSystemHadForAKilledReceiver) {
  const std::uint64_t held = BytesOf(3, 4);
  const Report report = ADay("began 100\ncrashed tcp 0 " + std::to_string(held - 7) + "\nwritten a 6\nsent tcp 6\n")
                            .Receives(0, "connected 0 101\n" + Lines(1, 2) + "frozen 0 7\n")
                            .Receives(1, "connected 0 102\n" + Lines(5, 6))
                            .Judge();
  EXPECT_THAT(report.faults, IsEmpty());
  EXPECT_EQ(report.lost, 2U);
  EXPECT_EQ(report.lostBytes, held);
  EXPECT_EQ(report.heldBytes, held);
}

TEST(Ledger, FindsWhatIsMissingBeyondThat) {
  const std::uint64_t held = BytesOf(3, 4) - 1;
  const Report report = ADay("began 100\ncrashed tcp 0 " + std::to_string(held) + "\nwritten a 6\n")
                            .Receives(0, "connected 0 101\n" + Lines(1, 2))
                            .Receives(1, "connected 0 102\n" + Lines(5, 6))
                            .Judge();
  EXPECT_THAT(report.faults, ElementsAre(HasSubstr("receiver 0 was killed: at least")));
}

TEST(Ledger, ExcusesLinesOfACopyThatIsReadLate) {
  const Report report =
      ADay("began 100\ncrashed tcp 0 " + std::to_string(BytesOf(2, 2) + BytesOf(5, 5)) + "\nwritten a 7\n")
          .Receives(0, "connected 0 101\n" + Lines(1, 1) + Lines(3, 4))
          .Receives(1, "connected 0 102\n" + Lines(6, 7))
          .Judge();
  EXPECT_THAT(report.faults, IsEmpty());
  EXPECT_EQ(report.lost, 2U);
}

TEST(Ledger, DoesNotExcuseWhatBelongsToReceiversBeforeOrAfterTheCrash) {
  const Report report = ADay("began 100\ncrashed tcp 1 1000\nwritten a 11\n")
                            .Receives(0, "connected 0 101\n" + Lines(1, 1) + Lines(3, 4))
                            .Receives(1, "connected 0 102\n" + Lines(5, 6))
                            .Receives(2, "connected 0 103\n" + Lines(8, 8) + Lines(10, 10))
                            .Judge();
  EXPECT_THAT(report.faults, ElementsAre("3 lines are missing", "missing: a 2", "missing: a 9", "missing: a 11"));
  EXPECT_EQ(report.lost, 1U);
}

TEST(Ledger, DoesNotExcuseByTheCrashOfAnotherDestination) {
  const Report report = ADay("began 100\ncrashed tls 0 1000\nwritten a 3\n")
                            .Receives(0, "connected 0 101\n" + Lines(1, 1))
                            .Receives(1, "connected 0 102\n" + Lines(3, 3))
                            .Judge();
  EXPECT_THAT(report.faults, ElementsAre("1 lines are missing", "missing: a 2"));
}

TEST(Ledger, AllowsLinesTwiceOnceTheAgentWasKilled) {
  const Report report = ADay("began 100\nkilled\nbegan 200\nwritten a 4\n")
                            .Receives(0, "connected 0 101\n" + Lines(1, 3) + "ended 0\nconnected 0 201\n" + Lines(2, 4))
                            .Judge();
  EXPECT_THAT(report.faults, IsEmpty());
  EXPECT_EQ(report.arrived, 4U);
  EXPECT_EQ(report.twiceAfterKill, 2U);
  EXPECT_EQ(report.late, 0U);
}

TEST(Ledger, AllowsLinesTwiceAfterAnOrderlyEndOnlyWhenSomeWereUndelivered) {
  const std::string entries = "connected 0 101\n" + Lines(1, 3) + "ended 0\nconnected 0 201\n" + Lines(3, 4);
  const Report allowed = ADay("began 100\nstopped 1\nbegan 200\nwritten a 4\n").Receives(0, entries).Judge();
  EXPECT_THAT(allowed.faults, IsEmpty());
  EXPECT_EQ(allowed.twiceAfterStop, 1U);
  EXPECT_THAT(ADay("began 100\nstopped 0\nbegan 200\nwritten a 4\n").Receives(0, entries).Judge().faults,
              ElementsAre("arrived twice, in lives 1 and 2 of the agent: a 3"));
}

TEST(Ledger, FindsALineThatCameTwiceInOneLife) {
  const Report report =
      ADay("began 100\nkilled\nbegan 200\nwritten a 3\n")
          .Receives(0, "connected 0 101\n" + Lines(1, 2) + "connected 1 201\nline 1 50 a 3\nline 1 50 a 3\n")
          .Judge();
  EXPECT_THAT(report.faults, ElementsAre("arrived twice, in lives 2 and 2 of the agent: a 3"));
}

TEST(Ledger, FindsWhatWasNeverWritten) {
  EXPECT_THAT(ADay("began 100\nwritten a 1\n").Receives(0, "connected 0 101\n" + Lines(1, 2)).Judge().faults,
              ElementsAre("arrived and was not written: a 2"));
}

TEST(Ledger, FindsADamagedMessage) {
  EXPECT_THAT(ADay("began 100\nwritten a 1\n")
                  .Receives(0, "connected 0 101\n" + Lines(1, 1) + "damaged 0 <14>\n")
                  .Judge()
                  .faults,
              ElementsAre("receiver 0: damaged 0 <14>"));
}

TEST(Ledger, CountsLinesThatCameAfterTheirSuccessors) {
  const Report report = ADay("began 100\nwritten a 3\n")
                            .Receives(0, "connected 0 101\n" + Lines(1, 1) + Lines(3, 3) + Lines(2, 2))
                            .Judge();
  EXPECT_THAT(report.faults, IsEmpty());
  EXPECT_EQ(report.late, 1U);
}

TEST(Ledger, CountsEachOfThem) {
  EXPECT_EQ(ADay("began 100\nwritten a 6\n").Receives(0, "connected 0 101\n" + Lines(4, 6) + Lines(1, 3)).Judge().late,
            3U);
}

TEST(Ledger, ComparesWhatTheLastAgentSaysItSent) {
  const std::string diary = "began 100\nkilled\nbegan 200\ncrashed tcp 0 1000\nwritten a 6\nsent tcp ";
  const auto judge = [&diary](const std::string& sent) {
    return ADay(diary + sent + "\n")
        .Receives(0, "connected 0 101\n" + Lines(1, 2) + "connected 0 201\n" + Lines(2, 3))
        .Receives(1, "connected 0 202\n" + Lines(5, 6))
        .Judge()
        .faults;
  };
  EXPECT_THAT(judge("5"), IsEmpty());
  EXPECT_THAT(judge("6"),
              ElementsAre("the last agent says it has sent 6 lines; 4 arrived and 1 were lost with receivers"));
  EXPECT_THAT(judge("4"), testing::SizeIs(1));
}

TEST(Ledger, RefusesWhatItDoesNotUnderstand) {
  EXPECT_THROW(ReadDiary("began\n"), std::runtime_error);
  EXPECT_THROW(ReadDiary("began 100 200\n"), std::runtime_error);
  EXPECT_THROW(ReadDiary("written a 5\n"), std::runtime_error);
  EXPECT_THROW(ReadDiary("began 100\nslept 5\n"), std::runtime_error);
  EXPECT_THROW(ADay("began 100\nwritten a 1\n").Receives(0, "line 0 50\n"), std::runtime_error);
  EXPECT_THROW(ADay("began 100\nwritten a 1\n").Receives(0, "slept 0\n"), std::runtime_error);
}

}  // namespace
}  // namespace sorvex::day
