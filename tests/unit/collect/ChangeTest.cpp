// Inputs that change while the collector runs, and lines under random events.
#include "CollectorFixture.h"

#include <map>
#include <random>
#include <set>

namespace sorvex::collect {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class CollectChanged : public CollectorFixture {};
INSTANTIATE_TEST_SUITE_P(Modes, CollectChanged, testing::ValuesIn(GetModes()), ModeName);

TEST_P(CollectChanged, InputsThatStayKeepTheirPlaces) {
  Append("a.log", "one\n");
  Append("b.log", "one\n");
  Start({Files("a.log"), Files("b.log")});
  Deliver();
  Append("a.log", "two\n");
  Append("b.log", "two\n");
  collector->Change({Files("a.log")});
  EXPECT_THAT(Deliver(), ElementsAre("two"));
  Append("a.log", "three\n");
  collector->Change({Files("a.log"), Files("b.log")});
  EXPECT_THAT(Deliver(), testing::UnorderedElementsAre("three", "two"));
}

TEST_P(CollectChanged, NewInputBeginsAsItIsTold) {
  Append("a.log", "one\n");
  Append("b.log", "one\n");
  Append("c.log", "three\n");
  Start({Files("a.log")});
  Deliver();
  collector->Change({Files("a.log"), Files("b.log", false), Files("c.log")});
  EXPECT_THAT(Deliver(), ElementsAre("three"));
  Append("b.log", "two\n");
  EXPECT_THAT(Deliver(), ElementsAre("two"));
}

TEST_P(CollectChanged, InputThatIsGoneIsForgotten) {
  Start({Files("*.log", false)});
  Deliver();
  collector->Change({});
  Deliver();
  collector.reset();
  Append("a.log", "one\n");
  Start({Files("*.log", false)});
  EXPECT_THAT(Gather(), IsEmpty());
}

TEST_P(CollectChanged, LengthOfALineCountsForFilesThatStay) {
  InputSettings settings = Files("a.log");
  Append("a.log", "one\n");
  Start({settings});
  EXPECT_THAT(Gather(), ElementsAre("one"));
  settings.maxLineBytes = 256;
  collector->Change({settings});
  Append("a.log", std::string(300, 'x') + "\n");
  EXPECT_THAT(Gather(), ElementsAre(std::string(256, 'x'), std::string(44, 'x')));
}

TEST_P(CollectChanged, RefusedLineOfAFileThatStaysComesAsItIs) {
  InputSettings settings = Files("a.log");
  settings.maxLineBytes = 256;
  const std::string line(250, 'x');
  Append("a.log", "one\n" + line + "\n" + line + "\n");
  Start({settings});
  sink.room = 1;
  EXPECT_EQ(collector->Collect(sink), Collector::Progress::Refused);
  collector->Change({settings, Files("b.log")});
  sink.room = 10;
  EXPECT_THAT(Gather(), ElementsAre(line, line));
}

/// An input that goes while a line of it has been handed out and is not delivered everywhere.
class CollectDeparted : public CollectorFixture {
 protected:
  void LoseInputWithLineOnItsWay() {
    Append("a.log", "one\ntwo\n");
    Start({Files("a.log")});
    EXPECT_THAT(Gather(), ElementsAre("one", "two"));
    collector->Taken(sink.marks[0]);
    onItsWay = sink.marks[1];
    collector->Change({});
    EXPECT_THAT(Gather(), IsEmpty());
    collector->Save();
  }

  void Return() { collector->Change({Files("a.log")}); }

  /// After a restart.
  Lines GatherAnew() {
    collector->Save();
    Start({Files("a.log")});
    return Gather();
  }

  Mark onItsWay;
};
INSTANTIATE_TEST_SUITE_P(Modes, CollectDeparted, testing::ValuesIn(GetModes()), ModeName);

TEST_P(CollectDeparted, LineThatIsDeliveredMeanwhileDoesNotComeAgain) {
  LoseInputWithLineOnItsWay();
  collector->Taken(onItsWay);
  Append("a.log", "three\n");
  Return();
  EXPECT_THAT(Gather(), ElementsAre("three"));
}

TEST_P(CollectDeparted, LineThatIsDeliveredMeanwhileDoesNotComeAgainAfterARestart) {
  LoseInputWithLineOnItsWay();
  collector->Taken(onItsWay);
  EXPECT_THAT(GatherAnew(), IsEmpty());
}

TEST_P(CollectDeparted, MarkThatComesLateMovesNothingBack) {
  LoseInputWithLineOnItsWay();
  collector->Taken(onItsWay);
  collector->Taken({onItsWay.source, onItsWay.position - 4});
  EXPECT_THAT(GatherAnew(), IsEmpty());
}

TEST_P(CollectDeparted, LineThatIsStillOnItsWayDoesNotComeAgain) {
  LoseInputWithLineOnItsWay();
  Append("a.log", "three\n");
  Return();
  EXPECT_THAT(Gather(), ElementsAre("three"));
  collector->Taken(onItsWay);
  EXPECT_THAT(GatherAnew(), ElementsAre("three"));
}

TEST_P(CollectDeparted, LineThatWasNotDeliveredComesAgainAfterARestart) {
  LoseInputWithLineOnItsWay();
  EXPECT_THAT(GatherAnew(), ElementsAre("two"));
}

TEST_P(CollectDeparted, LineThatIsGivenUpComesAgain) {
  LoseInputWithLineOnItsWay();
  collector->Rewind();
  Return();
  EXPECT_THAT(Gather(), ElementsAre("two"));
}

TEST_P(CollectDeparted, RenamedFileGoesOnAsWell) {
  LoseInputWithLineOnItsWay();
  Append("a.log", "three\n");
  Rename("a.log", "other");
  Append("a.log", "four\n");
  Return();
  EXPECT_THAT(Gather(), ElementsAre("three", "four"));
  collector->Taken(onItsWay);
  EXPECT_THAT(GatherAnew(), ElementsAre("three", "four"));
}

TEST_P(CollectChanged, FileMovesFromOneInputToAnother) {
  Append("a.log", "one\n");
  Start({Files("a.log")});
  EXPECT_THAT(Gather(), ElementsAre("one"));
  Append("a.log", "two\n");
  collector->Change({Files("*.log", false)});
  EXPECT_THAT(Gather(), ElementsAre("two"));
}

TEST_P(CollectChanged, RefusedLineOfAnInputThatIsGoneDoesNotCome) {
  Append("a.log", "one\n");
  Append("b.log", "two\n");
  Start({Files("a.log")});
  sink.room = 0;
  EXPECT_EQ(collector->Collect(sink), Collector::Progress::Refused);
  collector->Change({Files("b.log")});
  sink.room = 10;
  EXPECT_THAT(Gather(), ElementsAre("two"));
}

TEST_P(CollectChanged, WithoutInputsNothingComes) {
  Append("a.log", "one\n");
  Start({Files("a.log"), Files("")});
  collector->Change({});
  EXPECT_THAT(Gather(), IsEmpty());
}

/// Random events, from a seed that a failure prints.
class CollectUnderRandomEvents : public CollectorFixture {
 protected:
  /// Lines of one file contain its name and an increasing number.
  void Write(int logIndex) {
    const std::string name = std::to_string(logIndex) + ".log";
    std::string bytes;
    for (int count = Random(5); count >= 0; --count) {
      bytes += name + ":" + std::to_string(written[name]++) + std::string(Random(3) == 0 ? 200 : 0, 'x') + "\n";
    }
    // In two pieces, so that the collector may find half a line.
    const std::size_t half = bytes.size() / 2;
    Append(name, bytes.substr(0, half));
    if (Random(3) == 0) Look();
    Append(name, bytes.substr(half));
  }

  void Rotate(int logIndex) {
    const std::string name = std::to_string(logIndex) + ".log";
    if (!std::filesystem::exists(folder.Path() / name)) return;
    // Replaces the oldest one, of which nothing may be needed any more.
    LookUntilRead();
    now += limits.rotatedQuietTime;
    LookUntilRead();
    TakeFirst(waiting.size());
    Save();
    for (int number = 3; number > 0; --number) {
      const std::string from = number == 1 ? name : name + "." + std::to_string(number - 1);
      if (std::filesystem::exists(folder.Path() / from)) Rename(from, name + "." + std::to_string(number));
    }
  }

  /// Passes on some lines, some of which are delivered.
  void Look() {
    sink.room = static_cast<std::size_t>(Random(10));
    Collect();
  }

  void LookUntilRead() {
    sink.room = static_cast<std::size_t>(-1);
    for (int round = 0; round < 3; ++round) Collect();
  }

  void Collect() {
    sink.lines.clear();
    sink.marks.clear();
    if (!isWatching) now += limits.pollListInterval;
    while (collector->Collect(sink) == Collector::Progress::More) continue;
    for (std::size_t index = 0; index < sink.lines.size(); ++index) {
      const std::string& line = sink.lines[index];
      const std::size_t colon = line.find(':');
      ASSERT_NE(colon, std::string::npos) << line;
      const std::string name = line.substr(0, colon);
      const int number = std::stoi(line.substr(colon + 1));
      ++received[name][number];
      // Within a file no line overtakes another one, except repeated lines.
      const auto last = lastOfSource.find(sink.marks[index].source);
      if (last != lastOfSource.end()) {
        EXPECT_EQ(number, last->second + 1) << line;
      }
      lastOfSource[sink.marks[index].source] = number;
      waiting.push_back({sink.marks[index], name, number});
    }
  }

  void TakeFirst(std::size_t count) {
    for (std::size_t index = 0; index < count; ++index) {
      collector->Taken(waiting[index].mark);
      taken[waiting[index].name].insert(waiting[index].number);
    }
    waiting.erase(waiting.begin(), waiting.begin() + static_cast<std::ptrdiff_t>(count));
  }

  void Save() {
    collector->Save();
    saved = taken;
  }

  void Restart() {
    // Lines that were passed on and not saved come again.
    for (auto& [name, numbers] : received) {
      for (auto& [number, times] : numbers) {
        if (!saved[name].contains(number)) times = 0;
      }
    }
    taken = saved;
    waiting.clear();
    lastOfSource.clear();
    Start({Files(pattern)});
  }

  void Rewind() {
    for (const Waiting& line : waiting) received[line.name][line.number] = 0;
    waiting.clear();
    lastOfSource.clear();
    collector->Rewind();
  }

  int Random(int bound) { return std::uniform_int_distribution<int>(0, bound - 1)(engine); }

  void Run(unsigned int seed, const char* ownPattern) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    engine.seed(seed);
    pattern = ownPattern;
    Start({Files(pattern)});
    LookUntilRead();
    for (int step = 0; step < 150 && !HasFailure(); ++step) {
      switch (Random(8)) {
        case 0:
        case 1:
        case 2: Write(Random(3)); break;
        case 3: Rotate(Random(3)); break;
        case 4: Look(); break;
        case 5: TakeFirst(static_cast<std::size_t>(Random(static_cast<int>(waiting.size()) + 1))); break;
        case 6: Save(); break;
        default:
          if (Random(4) == 0) Restart();
          if (Random(4) == 0) Rewind();
      }
    }
    LookUntilRead();
    for (const auto& [name, count] : written) {
      for (int number = 0; number < count; ++number) {
        EXPECT_EQ(received[name][number], 1) << name << ":" << number;
      }
    }
  }

  struct Waiting {
    Mark mark;
    std::string name;
    int number;
  };

  std::mt19937 engine;
  std::string pattern;
  std::map<std::string, int> written;
  std::map<std::string, std::map<int, int>> received;
  std::map<std::string, std::set<int>> taken;
  std::map<std::string, std::set<int>> saved;
  std::map<std::uint64_t, int> lastOfSource;
  std::vector<Waiting> waiting;
};

constexpr unsigned int seedCount = 6;

class EachSeed : public CollectUnderRandomEvents {};
INSTANTIATE_TEST_SUITE_P(CollectUnderRandomEvents, EachSeed, testing::ValuesIn(GetModes()), ModeName);

/// A separate fixture for each seed, so that each has its own folder.
class OneRun : public CollectUnderRandomEvents {
 public:
  void TestBody() override {}
  using CollectUnderRandomEvents::limits;
  using CollectUnderRandomEvents::Run;
};

TEST_P(EachSeed, NoLineIsLostOrDoubledOrOvertaken) {
  for (unsigned int seed = 1; seed <= seedCount && !HasFailure(); ++seed) OneRun().Run(seed, "*.log*");
}

TEST_P(EachSeed, TheSameWithRotatedFilesOutsideThePattern) {
  for (unsigned int seed = 1; seed <= seedCount && !HasFailure(); ++seed) OneRun().Run(seed, "*.log");
}

TEST_P(EachSeed, TheSameWithFilesThatAreClosed) {
  for (unsigned int seed = 1; seed <= seedCount && !HasFailure(); ++seed) {
    OneRun run;
    run.limits.maxOpenFiles = 0;
    run.Run(seed, "*.log*");
  }
}

}  // namespace
}  // namespace sorvex::collect
