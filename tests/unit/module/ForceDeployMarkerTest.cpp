// The marker that asks for a deployment at the next start.
#include "InstallationDirectory.h"

#include "install/ForceDeployMarker.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using sorvex::test::InstallationDirectory;
using sorvex::test::RecordingLogger;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* archivesWaitLine =
    "Debug There are patch files in the patch directory; leaving the force.deploy file in place so that the next "
    "restart "
    "attempts to deploy them again.";

class ForceDeployMarker : public testing::Test {
 protected:
  void Tidy() {
    VaroCommunicationAPI::TidyForceDeployMarker(WindowsAgentCommon::LoggerFactory::GetLogger("Code.ConnectionFactory"));
  }
  bool IsThere() const { return std::filesystem::exists(m_installation.Marker()); }

  InstallationDirectory m_installation;
  RecordingLogger m_log;
};

TEST_F(ForceDeployMarker, AbsentAsksForNothing) { EXPECT_FALSE(VaroCommunicationAPI::IsForceDeployRequested()); }

TEST_F(ForceDeployMarker, PresentAsksForDeployment) {
  m_installation.WriteMarker();
  EXPECT_TRUE(VaroCommunicationAPI::IsForceDeployRequested());
}

TEST_F(ForceDeployMarker, AsksWhateverItHolds) {
  m_installation.Write("patch/force.deploy", "False");
  EXPECT_TRUE(VaroCommunicationAPI::IsForceDeployRequested());
}

TEST_F(ForceDeployMarker, AsksWhateverItIs) {
  std::filesystem::create_directory(m_installation.Marker());
  EXPECT_TRUE(VaroCommunicationAPI::IsForceDeployRequested());
}

TEST_F(ForceDeployMarker, InMissingPatchDirectoryAsksForNothing) {
  std::filesystem::remove(m_installation.PatchDirectory());
  EXPECT_FALSE(VaroCommunicationAPI::IsForceDeployRequested());
}

TEST_F(ForceDeployMarker, IsDeletedWithoutArchives) {
  m_installation.WriteMarker();
  Tidy();
  EXPECT_FALSE(IsThere());
  EXPECT_THAT(m_log->Lines(), IsEmpty());
}

TEST_F(ForceDeployMarker, StaysWhileArchiveWaitsAndSaysSo) {
  m_installation.WriteMarker();
  m_installation.Write("patch/AgentCore.tar.gz", "");
  Tidy();
  EXPECT_TRUE(IsThere());
  EXPECT_THAT(m_log->Lines(), ElementsAre(archivesWaitLine));
}

TEST_F(ForceDeployMarker, StaysWhileArchiveWithEndingInOtherCaseWaits) {
  m_installation.WriteMarker();
  m_installation.Write("patch/AgentCore.TAR.GZ", "");
  Tidy();
  EXPECT_TRUE(IsThere());
}

TEST_F(ForceDeployMarker, IsDeletedBesideOtherFiles) {
  m_installation.WriteMarker();
  m_installation.Write("patch/AgentCore.tar.gz.part", "");
  m_installation.Write("patch/AgentCore.tgz", "");
  m_installation.Write("patch/AgentCore.gz", "");
  m_installation.Write("patch/AgentCore.tar", "");
  m_installation.Write("patch/AgentCoretar.gz", "");
  m_installation.Write("patch/sub/AgentCore.tar.gz", "");
  Tidy();
  EXPECT_FALSE(IsThere());
}

TEST_F(ForceDeployMarker, AbsentIsTidiedSilentlyWhileArchivesWait) {
  m_installation.Write("patch/AgentCore.tar.gz", "");
  Tidy();
  EXPECT_TRUE(std::filesystem::exists(m_installation.PatchDirectory() / "AgentCore.tar.gz"));
  EXPECT_THAT(m_log->Lines(), IsEmpty());
}

TEST_F(ForceDeployMarker, ThatCannotBeDeletedIsSilent) {
  // A directory that is not empty.
  m_installation.Write("patch/force.deploy/x", "");
  Tidy();
  EXPECT_TRUE(IsThere());
  EXPECT_THAT(m_log->Lines(), IsEmpty());
}

}  // namespace
