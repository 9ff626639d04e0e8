// The lines "key=value" of the installer's files.
#include "install/InstallLines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using VaroCommunicationAPI::AddInstallLines;
using WindowsAgentCommon::ParameterBlock;

ParameterBlock Parse(std::string_view text, std::string_view prefix = {}) {
  ParameterBlock parameters;
  AddInstallLines(text, prefix, parameters);
  return parameters;
}

TEST(InstallLines, GiveNothingForEmptyText) { EXPECT_THAT(Parse(""), IsEmpty()); }

TEST(InstallLines, GiveOneEntryForEachLineWithEqualsSign) {
  EXPECT_THAT(Parse("A=1\nB=2\n"), ElementsAre(Pair("A", "1"), Pair("B", "2")));
}

TEST(InstallLines, TakeLastLineWithoutLineFeed) {
  EXPECT_THAT(Parse("A=1\nB=2"), ElementsAre(Pair("A", "1"), Pair("B", "2")));
}

TEST(InstallLines, IgnoreLineWithoutEqualsSign) {
  EXPECT_THAT(Parse("# a comment\nA=1\nnothing here\n\n"), ElementsAre(Pair("A", "1")));
}

TEST(InstallLines, TakeCommentedLineWithEqualsSignAsEntry) { EXPECT_THAT(Parse("#A=1"), ElementsAre(Pair("#A", "1"))); }

TEST(InstallLines, KeepSecondEqualsSignInValue) { EXPECT_THAT(Parse("A=b=c"), ElementsAre(Pair("A", "b=c"))); }

TEST(InstallLines, KeepEqualsSignAtStartOfValue) { EXPECT_THAT(Parse("A==b"), ElementsAre(Pair("A", "=b"))); }

TEST(InstallLines, TrimWhiteSpaceAroundKey) { EXPECT_THAT(Parse(" \t\v\fA b\t =1"), ElementsAre(Pair("A b", "1"))); }

TEST(InstallLines, KeepBlanksOfValue) { EXPECT_THAT(Parse("  A  =  b  c \t\n"), ElementsAre(Pair("A", "  b  c \t"))); }

TEST(InstallLines, RemoveCarriageReturnAtEndOfValue) {
  EXPECT_THAT(Parse("A=1\r\nB=2\r\n"), ElementsAre(Pair("A", "1"), Pair("B", "2")));
}

TEST(InstallLines, RemoveCarriageReturnsAtStartOfValue) { EXPECT_THAT(Parse("A=\r\r1"), ElementsAre(Pair("A", "1"))); }

TEST(InstallLines, KeepCarriageReturnInsideValue) { EXPECT_THAT(Parse("A=1\r2\r"), ElementsAre(Pair("A", "1\r2"))); }

TEST(InstallLines, DoNotEndLineAtLoneCarriageReturn) {
  EXPECT_THAT(Parse("A=1\rB=2\n"), ElementsAre(Pair("A", "1\rB=2")));
}

TEST(InstallLines, TakeEmptyValue) { EXPECT_THAT(Parse("A=\r\n"), ElementsAre(Pair("A", ""))); }

TEST(InstallLines, TakeEmptyKey) { EXPECT_THAT(Parse(" =1"), ElementsAre(Pair("", "1"))); }

TEST(InstallLines, KeepCaseOfKeys) { EXPECT_THAT(Parse("a=1\nA=2"), ElementsAre(Pair("A", "2"), Pair("a", "1"))); }

TEST(InstallLines, GiveTwoEntriesForKeyGivenTwiceInOrderOfLines) {
  EXPECT_THAT(Parse("A=first\nA=second"), ElementsAre(Pair("A", "first"), Pair("A", "second")));
}

TEST(InstallLines, AddToEntriesThatAreThere) {
  ParameterBlock parameters{{"A", "0"}};
  AddInstallLines("A=1", {}, parameters);
  EXPECT_THAT(parameters, ElementsAre(Pair("A", "0"), Pair("A", "1")));
}

TEST(InstallLines, KeepBytesBeyondAscii) {
  EXPECT_THAT(Parse("Schl\xC3\xBCssel=\xE9\x8D\xB5"), ElementsAre(Pair("Schl\xC3\xBCssel", "\xE9\x8D\xB5")));
}

TEST(InstallLines, WithPrefixTakeOnlyLinesThatBeginWithIt) {
  EXPECT_THAT(Parse("AutoCreation.A=1\nOther=AutoCreation.B=2\nautocreation.C=3\n\n", "AutoCreation."),
              ElementsAre(Pair("AutoCreation.A", "1")));
}

TEST(InstallLines, WithPrefixIgnoreLineWithBlankBeforeIt) {
  EXPECT_THAT(Parse(" AutoCreation.A=1", "AutoCreation."), IsEmpty());
}

TEST(InstallLines, WithPrefixIgnoreLineWithoutEqualsSign) {
  EXPECT_THAT(Parse("AutoCreation.A", "AutoCreation."), IsEmpty());
}

}  // namespace
