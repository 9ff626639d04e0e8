// Manifests where a file name is any bytes.
#include "InstallationDirectory.h"

#include "install/VersionManifests.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

namespace {

using sorvex::test::InstallationDirectory;
using testing::ElementsAre;
using testing::Pair;
using WindowsAgentCommon::ParameterBlock;

ParameterBlock Read() {
  ParameterBlock parameters;
  VaroCommunicationAPI::ReadVersionManifests(InstallationDirectory::InstallFile(), parameters);
  return parameters;
}

TEST(VersionManifestsOfAnyName, AreReadAndTheNameStaysByteForByte) {
  const InstallationDirectory installation;
  installation.WriteManifest(
      "Gr\xF6\xDF"
      "e.manifest",
      "Build Number: 1");
  installation.WriteManifest("\xFF.manifest", "Build Number: 2");
  installation.WriteManifest("\xEF\xBF\xBD.manifest", "Build Number: 3");
  EXPECT_THAT(Read(), ElementsAre(Pair("BuildNumber_Gr\xF6\xDF"
                                       "e",
                                       "1"),
                                  Pair("BuildNumber_\xEF\xBF\xBD", "3"), Pair("BuildNumber_\xFF", "2")));
}

TEST(VersionManifestsOfAnyName, AreReadInADirectoryOfAnyName) {
  const InstallationDirectory installation;
  installation.Write("config/\xFC\xFE/A.manifest", "Build Number: 1");
  ParameterBlock parameters;
  VaroCommunicationAPI::ReadVersionManifests(
      WindowsAgentCommon::PathToWide(installation.ConfigDirectory() / "\xFC\xFE/install_config.txt"), parameters);
  EXPECT_THAT(parameters, ElementsAre(Pair("BuildNumber_A", "1")));
}

TEST(VersionManifestsOfAnyName, ThatArePipesAreSkipped) {
  const InstallationDirectory installation;
  ASSERT_EQ(mkfifo((installation.ConfigDirectory() / "A.manifest").c_str(), 0600), 0);
  installation.WriteManifest("B.manifest", "Build Number: 2");
  EXPECT_THAT(Read(), ElementsAre(Pair("BuildNumber_B", "2")));
}

}  // namespace
