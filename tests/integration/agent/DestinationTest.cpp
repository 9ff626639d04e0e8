#include <Destination.h>

#include <gtest/gtest.h>

#include <stdexcept>

namespace sorvex::agent {
namespace {

TEST(AgentDestination, HasHostAndPort) {
  const Destination destination = ParseDestination("tcp://log.example.org:6514");
  EXPECT_EQ(destination.url, "tcp://log.example.org:6514");
  EXPECT_EQ(destination.scheme, Scheme::Tcp);
  EXPECT_EQ(destination.host, "log.example.org");
  EXPECT_EQ(destination.port, 6514);
}

TEST(AgentDestination, SchemeSaysWhatKindItIs) {
  EXPECT_EQ(ParseDestination("tls://host:6514").scheme, Scheme::Tls);
  EXPECT_EQ(ParseDestination("udp://host:514").scheme, Scheme::Udp);
}

TEST(AgentDestination, SchemeHasLettersOfEitherCase) {
  EXPECT_EQ(ParseDestination("TCP://host:514").scheme, Scheme::Tcp);
  EXPECT_EQ(ParseDestination("Tls://host:514").scheme, Scheme::Tls);
  EXPECT_EQ(ParseDestination("uDP://host:514").url, "uDP://host:514");
}

TEST(AgentDestination, IPv6AddressLosesItsBrackets) {
  const Destination destination = ParseDestination("tcp://[fe80::1%eth0]:514");
  EXPECT_EQ(destination.host, "fe80::1%eth0");
  EXPECT_EQ(destination.port, 514);
}

class WrongDestination : public testing::TestWithParam<const char*> {};

TEST_P(WrongDestination, IsRefused) { EXPECT_THROW(ParseDestination(GetParam()), std::invalid_argument); }

INSTANTIATE_TEST_SUITE_P(Texts, WrongDestination,
                         testing::Values("", "host:514", "tcp:host:514", "tcp://", "tcp://:514", "tcp://host",
                                         "tcp://host:", "tcp://host:0", "tcp://host:65536", "tcp://host:-1",
                                         "tcp://host:51x", "tcp://host: 514", "tcp://[::1]", "tcp://[::1]514",
                                         "tcp://[]:514", "tcp://::1:514", "http://host:514", "://host:514",
                                         "tcpp://host:514", "udp://[::1]:514", "UDP://[fe80::1%eth0]:514"));

}  // namespace
}  // namespace sorvex::agent
