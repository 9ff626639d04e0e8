// Build numbers from the manifests of the components.
#include "InstallationDirectory.h"

#include "install/VersionManifests.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using sorvex::test::InstallationDirectory;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using WindowsAgentCommon::ParameterBlock;

class VersionManifests : public testing::Test {
 protected:
  ParameterBlock Read() {
    ParameterBlock parameters;
    VaroCommunicationAPI::ReadVersionManifests(InstallationDirectory::InstallFile(), parameters);
    return parameters;
  }

  InstallationDirectory m_installation;
};

TEST_F(VersionManifests, GiveBuildNumberOfComponent) {
  m_installation.WriteManifest("AgentCore.manifest", "Name: AgentCore\r\nBuild Number: 4711\r\n");
  EXPECT_THAT(Read(), ElementsAre(Pair("BuildNumber_AgentCore", "4711")));
}

TEST_F(VersionManifests, GiveOneEntryEach) {
  m_installation.WriteManifest("A.manifest", "Build Number: 1");
  m_installation.WriteManifest("B.manifest", "Build Number: 002");
  EXPECT_THAT(Read(), ElementsAre(Pair("BuildNumber_A", "1"), Pair("BuildNumber_B", "002")));
}

TEST_F(VersionManifests, AreSearchedBesideInstallFileOnly) {
  m_installation.Write("config/sub/A.manifest", "Build Number: 1");
  m_installation.Write("B.manifest", "Build Number: 2");
  EXPECT_THAT(Read(), IsEmpty());
}

TEST_F(VersionManifests, AreSearchedBesideInstallFileWhereverItIs) {
  m_installation.Write("elsewhere/A.manifest", "Build Number: 1");
  ParameterBlock parameters;
  VaroCommunicationAPI::ReadVersionManifests(
      WindowsAgentCommon::PathToWide(m_installation.Root()) + L"/elsewhere/answers.txt", parameters);
  EXPECT_THAT(parameters, ElementsAre(Pair("BuildNumber_A", "1")));
}

TEST_F(VersionManifests, AreSearchedUpToTheLastSeparatorOfEitherKind) {
  m_installation.Write("elsewhere/A.manifest", "Build Number: 1");
  m_installation.Write("B.manifest", "Build Number: 2");
  ParameterBlock parameters;
  VaroCommunicationAPI::ReadVersionManifests(
      WindowsAgentCommon::PathToWide(m_installation.Root()) + L"/elsewhere\\answers.txt", parameters);
  EXPECT_THAT(parameters, ElementsAre(Pair("BuildNumber_A", "1")));
}

TEST_F(VersionManifests, OtherFilesAreNotRead) {
  m_installation.WriteManifest("A.manifest.bak", "Build Number: 1");
  m_installation.WriteManifest("manifest", "Build Number: 2");
  m_installation.WriteManifest("Amanifest", "Build Number: 3");
  EXPECT_THAT(Read(), IsEmpty());
}

TEST_F(VersionManifests, NameEndsAtLastEnding) {
  m_installation.WriteManifest("x.manifest.manifest", "Build Number: 1");
  EXPECT_THAT(Read(), ElementsAre(Pair("BuildNumber_x.manifest", "1")));
}

TEST_F(VersionManifests, NameKeepsItsDots) {
  m_installation.WriteManifest("a.b.manifest", "Build Number: 1");
  EXPECT_THAT(Read(), ElementsAre(Pair("BuildNumber_a.b", "1")));
}

TEST_F(VersionManifests, NameMayBeEmpty) {
  m_installation.WriteManifest(".manifest", "Build Number: 1");
  EXPECT_THAT(Read(), ElementsAre(Pair("BuildNumber_", "1")));
}

TEST_F(VersionManifests, NameWithEndingInOtherCaseIsKeptWhole) {
  m_installation.WriteManifest("A.MANIFEST", "Build Number: 1");
  EXPECT_THAT(Read(), ElementsAre(Pair("BuildNumber_A.MANIFEST", "1")));
}

TEST_F(VersionManifests, NameBeyondAsciiIsUtf8) {
  m_installation.Write(WindowsAgentCommon::WideToPath(L"config/Schl\u00FCssel \u9375.manifest"), "Build Number: 1");
  EXPECT_THAT(Read(), ElementsAre(Pair("BuildNumber_Schl\xC3\xBCssel \xE9\x8D\xB5", "1")));
}

TEST_F(VersionManifests, WithoutDigitGiveNothing) {
  m_installation.WriteManifest("A.manifest", "Build Number: x1");
  EXPECT_THAT(Read(), IsEmpty());
}

TEST_F(VersionManifests, WithoutBlankBeforeDigitsGiveNothing) {
  m_installation.WriteManifest("A.manifest", "Build Number:1");
  EXPECT_THAT(Read(), IsEmpty());
}

TEST_F(VersionManifests, WithTextInOtherCaseGiveNothing) {
  m_installation.WriteManifest("A.manifest", "build number: 1");
  EXPECT_THAT(Read(), IsEmpty());
}

TEST_F(VersionManifests, EmptyGiveNothing) {
  m_installation.WriteManifest("A.manifest", "");
  EXPECT_THAT(Read(), IsEmpty());
}

TEST_F(VersionManifests, GiveFirstMatch) {
  m_installation.WriteManifest("A.manifest", "Build Number: none\nBuild Number: 1\nBuild Number: 2\n");
  EXPECT_THAT(Read(), ElementsAre(Pair("BuildNumber_A", "1")));
}

TEST_F(VersionManifests, GiveDigitsInMidstOfLine) {
  m_installation.WriteManifest("A.manifest", "xBuild Number: 12.3");
  EXPECT_THAT(Read(), ElementsAre(Pair("BuildNumber_A", "12")));
}

TEST_F(VersionManifests, AreReadUpToByte4096) {
  const std::string text = "Build Number: 12";
  m_installation.WriteManifest("A.manifest", std::string(4096 - text.size(), 'x') + text + "34");
  EXPECT_THAT(Read(), ElementsAre(Pair("BuildNumber_A", "12")));
}

TEST_F(VersionManifests, BeyondByte4096HaveNoEffect) {
  m_installation.WriteManifest("A.manifest", std::string(4096, 'x') + "Build Number: 1");
  EXPECT_THAT(Read(), IsEmpty());
}

TEST_F(VersionManifests, ThatCannotBeReadAreSkipped) {
  std::filesystem::create_directory(m_installation.ConfigDirectory() / "A.manifest");
  m_installation.WriteManifest("B.manifest", "Build Number: 2");
  EXPECT_THAT(Read(), ElementsAre(Pair("BuildNumber_B", "2")));
}

TEST_F(VersionManifests, OfMissingDirectoryGiveNothing) {
  ParameterBlock parameters;
  VaroCommunicationAPI::ReadVersionManifests(
      WindowsAgentCommon::PathToWide(m_installation.Root()) + L"/nowhere/install_config.txt", parameters);
  EXPECT_THAT(parameters, IsEmpty());
}

TEST_F(VersionManifests, KeepEntriesThatAreThere) {
  m_installation.WriteManifest("A.manifest", "Build Number: 2");
  ParameterBlock parameters{{"BuildNumber_A", "1"}};
  VaroCommunicationAPI::ReadVersionManifests(InstallationDirectory::InstallFile(), parameters);
  EXPECT_THAT(parameters, ElementsAre(Pair("BuildNumber_A", "1"), Pair("BuildNumber_A", "2")));
}

/// Makes a directory the current one during its lifetime.
class CurrentDirectory {
 public:
  explicit CurrentDirectory(const std::filesystem::path& path) { std::filesystem::current_path(path); }
  ~CurrentDirectory() { std::filesystem::current_path(m_previous); }
  CurrentDirectory(const CurrentDirectory&) = delete;
  CurrentDirectory& operator=(const CurrentDirectory&) = delete;

 private:
  std::filesystem::path m_previous = std::filesystem::current_path();
};

TEST_F(VersionManifests, OfPathWithoutDirectoryAreSearchedInCurrentOne) {
  m_installation.WriteManifest("A.manifest", "Build Number: 1");
  const CurrentDirectory current(m_installation.ConfigDirectory());
  ParameterBlock parameters;
  VaroCommunicationAPI::ReadVersionManifests(L"install_config.txt", parameters);
  EXPECT_THAT(parameters, ElementsAre(Pair("BuildNumber_A", "1")));
}

}  // namespace
