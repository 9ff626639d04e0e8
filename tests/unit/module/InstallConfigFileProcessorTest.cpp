// The install configuration file.
#include "InstallationDirectory.h"

#include "install/InstallConfigFileProcessor.h"

#include <host/EnvironmentBlockHelper.h>
#include <host/SystemError.h>
#include <host/Text.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using sorvex::test::InstallationDirectory;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using VaroCommunicationAPI::InstallConfigFileProcessor;
using WindowsAgentCommon::ParameterBlock;

class InstallFile : public testing::Test {
 protected:
  int Process() { return m_processor.Process(InstallationDirectory::InstallFile(), m_parameters); }

  InstallationDirectory m_installation;
  InstallConfigFileProcessor m_processor;
  ParameterBlock m_parameters;
};

TEST_F(InstallFile, OfFourLinesGivesFourEntriesWithoutCarriageReturns) {
  m_installation.WriteInstallFile(
      "ConfigurationServer=server.example\r\nApplicationToken=01234567-89ab-cdef-0123-456789abcdef\r\n"
      "ApplicationIdentifier=agent 1\r\nConfigurationServerPort=8413\r\n");
  EXPECT_EQ(Process(), 0);
  EXPECT_THAT(m_parameters,
              ElementsAre(Pair("ApplicationIdentifier", "agent 1"),
                          Pair("ApplicationToken", "01234567-89ab-cdef-0123-456789abcdef"),
                          Pair("ConfigurationServer", "server.example"), Pair("ConfigurationServerPort", "8413")));
}

TEST_F(InstallFile, ReadLeavesNoMessage) {
  m_installation.WriteInstallFile("A=1");
  Process();
  EXPECT_EQ(m_processor.GetMessageText(), "");
}

TEST_F(InstallFile, EmptyIsReadAndGivesNothing) {
  m_installation.WriteInstallFile("");
  EXPECT_EQ(Process(), 0);
  EXPECT_THAT(m_parameters, IsEmpty());
}

TEST_F(InstallFile, IsReadUpToByte4096) {
  const std::string last = "\nLast=1";
  m_installation.WriteInstallFile(std::string(4096 - last.size(), 'x') + last);
  Process();
  EXPECT_THAT(m_parameters, ElementsAre(Pair("Last", "1")));
}

TEST_F(InstallFile, BeyondByte4096HasNoEffect) {
  const std::string last = "\nLast=1";
  m_installation.WriteInstallFile(std::string(4096 - last.size(), 'x') + last + "23\nBeyond=1\n");
  Process();
  EXPECT_THAT(m_parameters, ElementsAre(Pair("Last", "1")));
}

TEST_F(InstallFile, MissingIsToldWithPathAndReason) {
  const int error = Process();
  EXPECT_NE(error, 0);
  EXPECT_EQ(m_processor.GetMessageText(),
            "Couldn't find the application install parameters (in file " +
                WindowsAgentCommon::WideToUtf8(InstallationDirectory::InstallFile()) +
                ") - we need these parameters. Reason: " + WindowsAgentCommon::GetLastErrorText(error));
}

TEST_F(InstallFile, MissingLeavesParametersAsTheyAre) {
  m_parameters.emplace("A", "1");
  Process();
  EXPECT_THAT(m_parameters, ElementsAre(Pair("A", "1")));
}

TEST_F(InstallFile, ThatIsDirectoryIsRefused) {
  std::filesystem::create_directory(m_installation.ConfigDirectory() / "install_config.txt");
  EXPECT_NE(Process(), 0);
  EXPECT_THAT(m_parameters, IsEmpty());
}

TEST_F(InstallFile, MessageOfEarlierFailureIsForgotten) {
  Process();
  m_installation.WriteInstallFile("A=1");
  Process();
  EXPECT_EQ(m_processor.GetMessageText(), "");
}

TEST_F(InstallFile, KeyGivenTwiceIsReadAsFirst) {
  m_installation.WriteInstallFile("ConfigurationServer=first\nConfigurationServer=second\n");
  Process();
  std::string server;
  WindowsAgentCommon::EnvironmentBlockHelper(m_parameters).GetStringValue("ConfigurationServer", server, "");
  EXPECT_EQ(server, "first");
  EXPECT_EQ(m_parameters.size(), 2U);
}

const std::string utf8Mark = "\xEF\xBB\xBF";

TEST_F(InstallFile, WithUtf8MarkIsReadBehindIt) {
  m_installation.WriteInstallFile(utf8Mark + "ConfigurationServer=server.example\r\n" + utf8Mark + "A=1");
  EXPECT_EQ(Process(), 0);
  EXPECT_THAT(m_parameters, ElementsAre(Pair("ConfigurationServer", "server.example"), Pair(utf8Mark + "A", "1")));
}

TEST_F(InstallFile, WithUtf8MarkIsStillReadUpToByte4096) {
  const std::string last = "\nLast=1";
  m_installation.WriteInstallFile(utf8Mark + std::string(4096 - utf8Mark.size() - last.size(), 'x') + last + "2");
  Process();
  EXPECT_THAT(m_parameters, ElementsAre(Pair("Last", "1")));
}

TEST_F(InstallFile, WithPartOfAUtf8MarkIsTakenAsItStands) {
  m_installation.WriteInstallFile("\xEF\xBB=1");
  EXPECT_EQ(Process(), 0);
  EXPECT_THAT(m_parameters, ElementsAre(Pair("\xEF\xBB", "1")));
}

TEST_F(InstallFile, WithUtf16MarkIsRefusedWithItsCause) {
  for (const char* mark : {"\xFF\xFE", "\xFE\xFF"}) {
    m_installation.WriteInstallFile(std::string(mark) + "A=1\n");
    EXPECT_NE(Process(), 0);
    EXPECT_EQ(m_processor.GetMessageText(), "The file begins with a UTF-16 byte-order mark; it has to be UTF-8");
    EXPECT_THAT(m_parameters, IsEmpty());
  }
}

TEST_F(InstallFile, WithZeroByteKeepsItInValue) {
  m_installation.WriteInstallFile(std::string("A=1\0002\nB=3\n", 10));
  Process();
  EXPECT_THAT(m_parameters, ElementsAre(Pair("A", std::string("1\0002", 3)), Pair("B", "3")));
}

}  // namespace
