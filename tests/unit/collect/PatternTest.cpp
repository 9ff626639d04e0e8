#include "support/TemporaryDirectory.h"

#include <collect/Pattern.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace sorvex::collect {
namespace {

using testing::IsEmpty;
using testing::UnorderedElementsAre;

bool Matches(const std::u8string& pattern, const std::u8string& name) {
  return MatchesName(std::filesystem::path(pattern).native(), std::filesystem::path(name).native());
}

TEST(MatchesName, TakesANameForItself) {
  EXPECT_TRUE(Matches(u8"a.log", u8"a.log"));
  EXPECT_FALSE(Matches(u8"a.log", u8"a.log1"));
  EXPECT_FALSE(Matches(u8"a.log1", u8"a.log"));
}

TEST(MatchesName, LetsAStarStandForAnyCharacters) {
  EXPECT_TRUE(Matches(u8"*.log", u8"a.log"));
  EXPECT_TRUE(Matches(u8"a*", u8"a"));
  EXPECT_TRUE(Matches(u8"a*b*c", u8"abbxbc"));
  EXPECT_TRUE(Matches(u8"*ab", u8"aab"));
  EXPECT_TRUE(Matches(u8"**", u8"a"));
  EXPECT_FALSE(Matches(u8"*.log", u8"a.logs"));
  EXPECT_FALSE(Matches(u8"a*b*c", u8"acb"));
}

TEST(MatchesName, LetsAQuestionMarkStandForOneCharacter) {
  EXPECT_TRUE(Matches(u8"a?c", u8"abc"));
  EXPECT_TRUE(Matches(u8"a?c", u8"a\u00E4c"));
  EXPECT_TRUE(Matches(u8"a?c", u8"a\U0001F600c"));
  EXPECT_FALSE(Matches(u8"a?c", u8"ac"));
  EXPECT_FALSE(Matches(u8"a?c", u8"abbc"));
}

TEST(MatchesName, LetsABracketStandForItsCharacters) {
  EXPECT_TRUE(Matches(u8"a[0-9x]", u8"a5"));
  EXPECT_TRUE(Matches(u8"a[0-9x]", u8"ax"));
  EXPECT_FALSE(Matches(u8"a[0-9x]", u8"ay"));
  EXPECT_TRUE(Matches(u8"a[!0-9]", u8"ay"));
  EXPECT_FALSE(Matches(u8"a[!0-9]", u8"a5"));
  EXPECT_TRUE(Matches(u8"a[^0-9]", u8"ay"));
  EXPECT_FALSE(Matches(u8"a[^0-9]", u8"a5"));
  EXPECT_TRUE(Matches(u8"a[]]", u8"a]"));
  EXPECT_TRUE(Matches(u8"a[[]", u8"a["));
  EXPECT_TRUE(Matches(u8"a[\u00E0-\u00E9]", u8"a\u00E4"));
  EXPECT_TRUE(Matches(u8"a[0-]", u8"a-"));
}

TEST(MatchesName, TakesABracketWithoutEndForItself) {
  EXPECT_TRUE(Matches(u8"a[b", u8"a[b"));
  EXPECT_FALSE(Matches(u8"a[b", u8"ab"));
}

TEST(MatchesName, LeavesHiddenFilesAlone) {
  EXPECT_FALSE(Matches(u8"*", u8".a"));
  EXPECT_TRUE(Matches(u8".*", u8".a"));
}

TEST(MatchesName, IsQuickWithManyStars) {
  const std::u8string name(200, u8'a');
  std::u8string pattern;
  for (int count = 0; count < 60; ++count) pattern += u8"a*";
  EXPECT_FALSE(Matches(pattern + u8"b", name));
}

class PatternList : public testing::Test {
 protected:
  std::vector<std::string> List(const std::string& pattern) {
    listing = {};
    Pattern(folder.Path() / pattern).List(listing);
    std::vector<std::string> names;
    for (const std::filesystem::path& path : listing.names) {
      names.push_back(path.lexically_relative(folder.Path()).generic_string());
    }
    return names;
  }

  const test::TemporaryDirectory folder{"pattern"};
  Pattern::Listing listing;
};

TEST_F(PatternList, FindsFilesInAFolder) {
  folder.Write("a.log", "");
  folder.Write("b.log", "");
  folder.Write("c.txt", "");
  folder.Write("d/e.log", "");
  EXPECT_THAT(List("*.log"), UnorderedElementsAre("a.log", "b.log"));
  EXPECT_THAT(List("c.txt"), UnorderedElementsAre("c.txt"));
  EXPECT_THAT(List("none"), IsEmpty());
  EXPECT_FALSE(listing.lacksFolder);
}

TEST_F(PatternList, FindsFilesInFoldersThatAPatternNames) {
  folder.Write("x1/logs/a.log", "");
  folder.Write("x2/logs/b.log", "");
  folder.Write("x3/other/c.log", "");
  folder.Write("y1/logs/d.log", "");
  folder.Write("x4", "");
  EXPECT_THAT(List("x*/logs/*.log"), UnorderedElementsAre("x1/logs/a.log", "x2/logs/b.log"));
  EXPECT_TRUE(listing.lacksFolder);
  EXPECT_THAT(listing.folders,
              UnorderedElementsAre(folder.Path(), folder.Path() / "x1" / "logs", folder.Path() / "x2" / "logs"));
}

TEST_F(PatternList, TellsThatAFolderIsMissing) {
  EXPECT_THAT(List("none/*.log"), IsEmpty());
  EXPECT_TRUE(listing.lacksFolder);
}

TEST_F(PatternList, FindsFilesOnAWayThatLeadsBack) {
  folder.Write("a.log", "");
  EXPECT_THAT(List("none/../*.log"), UnorderedElementsAre("a.log"));
  EXPECT_THAT(listing.folders, UnorderedElementsAre(folder.Path()));
}

TEST_F(PatternList, FindsNothingByTheNameOfTheRoot) {
  Pattern(folder.Path().root_path()).List(listing);
  EXPECT_THAT(listing.names, IsEmpty());
  EXPECT_THAT(listing.folders, IsEmpty());
}

TEST(PatternConcerns, FilesAndTheFoldersAboveThem) {
  const std::filesystem::path root = std::filesystem::temp_directory_path();
  const Pattern pattern(root / "x*" / "*.log");
  EXPECT_TRUE(pattern.Concerns(root / "x1"));
  EXPECT_TRUE(pattern.Concerns(root / "x1" / "a.log"));
  EXPECT_FALSE(pattern.Concerns(root / "y1"));
  EXPECT_FALSE(pattern.Concerns(root / "x1" / "a.txt"));
  EXPECT_FALSE(pattern.Concerns(root / "x1" / "a.log" / "b"));
  EXPECT_TRUE(pattern.Matches(root / "x1" / "a.log"));
  EXPECT_FALSE(pattern.Matches(root / "x1"));
}

}  // namespace
}  // namespace sorvex::collect
