#include "support/WrittenPositions.h"

#include <collect/Fingerprint.h>
#include <collect/Positions.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <sstream>
#include <string>

namespace sorvex::collect {
namespace {

Positions Example() {
  Positions positions;
  positions.patterns = {"/var/log/*.log", "/with blank/50%\n"};
  Place place;
  place.identity = {1, 2, 3};
  place.path = TextToPath("/var/log/\xC3\xA4 b.log");
  place.position = 4000;
  place.head = {1024, 0xFFFFFFFFFFFFFFFF};
  place.isRotated = true;
  place.seenTime = 1'700'000'000;
  positions.places.push_back(place);
  return positions;
}

bool Read(const std::string& text) {
  Positions positions;
  return ReadPositions(text, positions);
}

TEST(Positions, AreReadAsTheyWereWritten) {
  Positions read;
  ASSERT_TRUE(ReadPositions(test::WrittenPositions(Example()), read));
  EXPECT_EQ(read.patterns, Example().patterns);
  ASSERT_EQ(read.places.size(), 1U);
  const Place& place = read.places[0];
  EXPECT_EQ(place.identity, (FileIdentity{1, 2, 3}));
  EXPECT_EQ(place.path, Example().places[0].path);
  EXPECT_EQ(place.position, 4000U);
  EXPECT_EQ(place.head.length, 1024U);
  EXPECT_EQ(place.head.hash, 0xFFFFFFFFFFFFFFFF);
  EXPECT_TRUE(place.isRotated);
  EXPECT_EQ(place.seenTime, 1'700'000'000);
}

TEST(Positions, AreTheTextThatTheyWere) {
  Positions positions;
  positions.patterns = {"a"};
  Place place;
  place.path = TextToPath("b");
  positions.places.push_back(place);
  EXPECT_EQ(test::WrittenPositions(positions),
            "sorvex-positions 1\n"
            "input a 811d212d5972ec20\n"
            "file 0 0 0 0 0 0 0 0 b b0d273d8f0fb3341\n"
            "end\n");
}

TEST(Positions, AreNotWholeWhenCutAnywhere) {
  const std::string text = test::WrittenPositions(Example());
  for (std::size_t size = 0; size < text.size(); ++size) EXPECT_FALSE(Read(text.substr(0, size))) << size;
}

TEST(Positions, AreNotWholeWithAnyByteChanged) {
  const std::string text = test::WrittenPositions(Example());
  for (std::size_t place = 0; place < text.size(); ++place) {
    std::string changed = text;
    changed[place] = static_cast<char>(changed[place] ^ 1);
    EXPECT_FALSE(Read(changed)) << place;
  }
}

TEST(Positions, AreTakenFromTheLinesThatAreWhole) {
  std::string text = test::WrittenPositions(Example());
  text[text.find("with")] = 'W';
  Positions read;
  EXPECT_FALSE(ReadPositions(text, read));
  EXPECT_EQ(read.patterns, (std::vector<std::string>{"/var/log/*.log"}));
  EXPECT_EQ(read.places.size(), 1U);
}

TEST(Positions, OfAnotherVersionAreNotRead) {
  std::string text = test::WrittenPositions(Example());
  text.replace(text.find(" 1\n"), 3, " 2\n");
  Positions read;
  EXPECT_FALSE(ReadPositions(text, read));
  EXPECT_TRUE(read.patterns.empty());
}

/// Positions of one line, with the checksum that belongs to it.
std::string WithLine(const std::string& line) {
  std::ostringstream text;
  text << "sorvex-positions 1\n"
       << line << ' ' << std::hex << Fingerprint::Extend(Fingerprint::ofNothing, line) << "\nend\n";
  return text.str();
}

TEST(Positions, OfLinesThatNobodyWritesAreNotRead) {
  EXPECT_TRUE(Read(WithLine("input a")));
  EXPECT_TRUE(Read(WithLine("file 1 2 3 4 5 6 0 7 /a%20b")));
  EXPECT_TRUE(Read(WithLine("file 1 2 3 4 5 6 1 -7 /a")));
  for (const char* const line : {"input",
                                 "input ",
                                 "input a b",
                                 "input a%2",
                                 "input %g0",
                                 "input %0g",
                                 "input %2F%2G",
                                 "folder a",
                                 "folder 1 2 3 4 5 6 0 7 /a",
                                 "file",
                                 "file 1 2 3 4 5 6 0",
                                 "file 1 2 3 4 5 6 0 7",
                                 "file 1 2 3 4 5 6 0 7 ",
                                 "file 1 2 3 4 5 6 0 7 /a b",
                                 "file 1 2 3 4 5 6 0 7 /a%2",
                                 "file 1 2 3 4 5 6 2 7 /a",
                                 "file 1 2 3 4 5 6 -1 7 /a",
                                 "file 1x 2 3 4 5 6 0 7 /a",
                                 "file 1 2 3 -4 5 6 0 7 /a",
                                 "file 1 2 3 18446744073709551616 5 6 0 7 /a"}) {
    EXPECT_FALSE(Read(WithLine(line))) << line;
  }
}

TEST(Positions, WithMoreThanTheirLinesAreNotRead) {
  const std::string text = WithLine("input a");
  EXPECT_FALSE(Read(text + "x"));
  EXPECT_FALSE(Read(text + text));
  std::string longer = text;
  longer.insert(longer.find("\nend"), "x");
  EXPECT_FALSE(Read(longer));
}

TEST(Positions, AboveTheirBoundsAreNotRead) {
  Positions positions = Example();
  positions.places[0].head.length = Head::maxLength + 1;
  EXPECT_FALSE(Read(test::WrittenPositions(positions)));
  positions = Example();
  positions.places[0].position = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) + 1;
  EXPECT_FALSE(Read(test::WrittenPositions(positions)));
  positions.places[0].position -= 1;
  EXPECT_TRUE(Read(test::WrittenPositions(positions)));
}

}  // namespace
}  // namespace sorvex::collect
