// The log-source auto-creation file.
#include "InstallationDirectory.h"

#include "install/AutoCreationFile.h"
#include "support/RecordingLogger.h"

#include <host/Text.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using sorvex::test::InstallationDirectory;
using sorvex::test::RecordingLogger;
using sorvex::test::Utf16Bytes;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using WindowsAgentCommon::ParameterBlock;

class AutoCreationFile : public testing::Test {
 protected:
  const ParameterBlock& Process() {
    m_result = VaroCommunicationAPI::ProcessAutoCreationFile(
        InstallationDirectory::AutoCreationFile(), m_parameters,
        WindowsAgentCommon::LoggerFactory::GetLogger("Code.ConnectionFactory"));
    return m_parameters;
  }
  const ParameterBlock& ProcessText(std::u16string_view text) {
    m_installation.WriteAutoCreationFile(text);
    return Process();
  }
  const ParameterBlock& ProcessBytes(std::string_view bytes) {
    m_installation.Write("config/install_config_autocreate.txt", bytes);
    return Process();
  }

  InstallationDirectory m_installation;
  RecordingLogger m_log;
  ParameterBlock m_parameters;
  bool m_result = false;
};

TEST_F(AutoCreationFile, MissingIsToldAtInfoAndNoFailure) {
  EXPECT_THAT(Process(), IsEmpty());
  EXPECT_TRUE(m_result);
  EXPECT_THAT(
      m_log->Lines(),
      ElementsAre("Info Couldn't find the log source auto-creation parameters (in file " +
                  sorvex::test::Logged(WindowsAgentCommon::WideToUtf8(InstallationDirectory::AutoCreationFile())) +
                  ") - now assuming there are none."));
}

TEST_F(AutoCreationFile, GivesLinesThatBeginWithAutoCreation) {
  EXPECT_THAT(ProcessText(u"AutoCreation.Name=Syslog\r\nAutoCreation.Port=514\r\n"),
              ElementsAre(Pair("AutoCreation.Name", "Syslog"), Pair("AutoCreation.Port", "514")));
  EXPECT_TRUE(m_result);
}

TEST_F(AutoCreationFile, ReadIsNotLogged) {
  ProcessText(u"AutoCreation.Name=Syslog");
  EXPECT_THAT(m_log->Lines(), IsEmpty());
}

TEST_F(AutoCreationFile, IgnoresOtherLines) {
  EXPECT_THAT(ProcessText(u"Name=1\r\n\r\nX=AutoCreation.Name=2\r\n AutoCreation.Name=3\r\nautoCreation.Name=4\r\n"),
              IsEmpty());
}

TEST_F(AutoCreationFile, TrimsKeyAndKeepsBlanksOfValue) {
  EXPECT_THAT(ProcessText(u"AutoCreation.Name \t=  a=b  \r\n"), ElementsAre(Pair("AutoCreation.Name", "  a=b  ")));
}

TEST_F(AutoCreationFile, SkipsFirstTwoBytesWhateverTheyAre) {
  EXPECT_THAT(ProcessBytes("??" + Utf16Bytes(u"AutoCreation.A=1").substr(2)), ElementsAre(Pair("AutoCreation.A", "1")));
}

TEST_F(AutoCreationFile, WithoutByteOrderMarkLosesFirstCharacter) {
  EXPECT_THAT(ProcessBytes(Utf16Bytes(u"AutoCreation.A=1\nAutoCreation.B=2").substr(2)),
              ElementsAre(Pair("AutoCreation.B", "2")));
}

TEST_F(AutoCreationFile, OfNoBytesGivesNothing) {
  EXPECT_THAT(ProcessBytes(""), IsEmpty());
  EXPECT_TRUE(m_result);
}

TEST_F(AutoCreationFile, OfOneByteGivesNothing) { EXPECT_THAT(ProcessBytes("\xFF"), IsEmpty()); }

TEST_F(AutoCreationFile, OfByteOrderMarkAloneGivesNothing) { EXPECT_THAT(ProcessBytes("\xFF\xFE"), IsEmpty()); }

TEST_F(AutoCreationFile, ConvertsCharactersOfEveryLengthToUtf8) {
  EXPECT_THAT(ProcessText(u"AutoCreation.A=x\u00FC\u9375\U0001F511"),
              ElementsAre(Pair("AutoCreation.A", "x\xC3\xBC\xE9\x8D\xB5\xF0\x9F\x94\x91")));
}

TEST_F(AutoCreationFile, ConvertsHighestCharacter) {
  EXPECT_THAT(ProcessText(u"AutoCreation.A=\U0010FFFF"), ElementsAre(Pair("AutoCreation.A", "\xF4\x8F\xBF\xBF")));
}

TEST_F(AutoCreationFile, ReplacesLoneLowSurrogate) {
  const char16_t text[] = {'A', 0xDC00, 'B', 0};
  EXPECT_THAT(ProcessText(std::u16string(u"AutoCreation.A=") + text), ElementsAre(Pair("AutoCreation.A",
                                                                                       "A\xEF\xBF\xBD"
                                                                                       "B")));
}

TEST_F(AutoCreationFile, ReplacesHighSurrogateBeforeOtherCharacter) {
  const char16_t text[] = {0xD800, 'B', 0};
  EXPECT_THAT(ProcessText(std::u16string(u"AutoCreation.A=") + text), ElementsAre(Pair("AutoCreation.A",
                                                                                       "\xEF\xBF\xBD"
                                                                                       "B")));
}

TEST_F(AutoCreationFile, ReplacesHighSurrogateAtEnd) {
  const char16_t text[] = {0xDBFF, 0};
  EXPECT_THAT(ProcessText(std::u16string(u"AutoCreation.A=") + text),
              ElementsAre(Pair("AutoCreation.A", "\xEF\xBF\xBD")));
}

TEST_F(AutoCreationFile, ReplacesFirstOfTwoHighSurrogatesAndKeepsThePair) {
  const char16_t text[] = {0xD800, 0xD83D, 0xDD11, 0};
  EXPECT_THAT(ProcessText(std::u16string(u"AutoCreation.A=") + text),
              ElementsAre(Pair("AutoCreation.A", "\xEF\xBF\xBD\xF0\x9F\x94\x91")));
}

TEST_F(AutoCreationFile, IsTakenUpToFirstZeroCharacter) {
  EXPECT_THAT(ProcessText(std::u16string_view(u"AutoCreation.A=1\0002\nAutoCreation.B=3", 34)),
              ElementsAre(Pair("AutoCreation.A", "1")));
}

TEST_F(AutoCreationFile, WithHighSurrogateBeforeZeroCharacterReplacesIt) {
  const char16_t text[] = {0xD83D, 0, 'x'};
  EXPECT_THAT(ProcessText(std::u16string(u"AutoCreation.A=") + std::u16string(text, 3)),
              ElementsAre(Pair("AutoCreation.A", "\xEF\xBF\xBD")));
}

TEST_F(AutoCreationFile, WithOddByteAtEndTakesItForCharacterBelow256) {
  EXPECT_THAT(ProcessBytes(Utf16Bytes(u"AutoCreation.A=1") + "2"), ElementsAre(Pair("AutoCreation.A", "12")));
}

TEST_F(AutoCreationFile, IsReadUpToByte65536) {
  // 32767 characters after the byte-order mark.
  const std::u16string line = u"\nAutoCreation.Last=1";
  EXPECT_THAT(ProcessText(std::u16string(32767 - line.size(), u'x') + line),
              ElementsAre(Pair("AutoCreation.Last", "1")));
}

TEST_F(AutoCreationFile, BeyondByte65536HasNoEffect) {
  const std::u16string line = u"\nAutoCreation.Last=1";
  EXPECT_THAT(ProcessText(std::u16string(32767 - line.size(), u'x') + line + u"23\nAutoCreation.Beyond=1\n"),
              ElementsAre(Pair("AutoCreation.Last", "1")));
}

TEST_F(AutoCreationFile, IsCutWhere65536BytesOfUtf8AreFull) {
  // 15 bytes of key and sign; 21840 characters of three bytes make 65520; one byte of room is left.
  const ParameterBlock& parameters = ProcessText(u"AutoCreation.A=" + std::u16string(30000, u'\u9375'));
  ASSERT_EQ(parameters.size(), 1U);
  const std::string& value = parameters.begin()->second;
  EXPECT_EQ(value.size(), 65520U);
  EXPECT_EQ(value.substr(65517), "\xE9\x8D\xB5");
}

TEST_F(AutoCreationFile, ThatIsDirectoryIsTakenForMissing) {
  std::filesystem::create_directory(m_installation.ConfigDirectory() / "install_config_autocreate.txt");
  EXPECT_THAT(Process(), IsEmpty());
  EXPECT_TRUE(m_result);
  EXPECT_EQ(m_log->Lines().size(), 1U);
}

}  // namespace
