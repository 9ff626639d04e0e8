#include <host/VersionText.h>

#include <gtest/gtest.h>
#include <boost/regex.hpp>

#include <string>

namespace WindowsAgentCommon {
namespace {

TEST(VersionText, JoinsItsNumbers) {
  EXPECT_EQ(FormatVersion(7, 2, 5), "7.2.5");
  EXPECT_EQ(FormatVersion(0, 10, -1), "0.10.-1");
}

TEST(VersionText, HostHasItsVersion) { EXPECT_EQ(GetHostVersion(), "7.2.5"); }

TEST(VersionText, OperatingSystemNamesItselfAndItsVersion) {
  const std::string version = GetOperatingSystemVersion();
  EXPECT_TRUE(boost::regex_match(version, boost::regex(R"([A-Za-z]+ \d+\.\d+.*)"))) << version;
}

}  // namespace
}  // namespace WindowsAgentCommon
