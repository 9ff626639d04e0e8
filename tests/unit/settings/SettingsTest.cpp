#include <settings/Settings.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>

namespace sorvex::settings {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

/// Accepts "good" as a certificate.
std::string ReadScriptedCertificate(const std::string& text) {
  if (text != "good") throw std::invalid_argument("it holds no certificate");
  return "encoded";
}

/// An absolute path on this system.
std::string Absolute(const std::string& rest) {
  return std::filesystem::temp_directory_path().root_path().generic_string() + rest;
}

Settings Read(const std::string& text) { return ReadSettings(text, ReadScriptedCertificate); }

std::string ErrorOf(const std::string& text) {
  try {
    Read(text);
  } catch (const SettingsError& error) {
    return error.what();
  }
  return "none";
}

std::string InInputs(const std::string& text) {
  return "<AgentConfig>\n<Inputs>\n" + text + "\n</Inputs></AgentConfig>";
}
std::string InDestinations(const std::string& text) {
  return "<AgentConfig>\n<Destinations>\n" + text + "\n</Destinations></AgentConfig>";
}
std::string InComponents(const std::string& text) {
  return "<AgentConfig>\n<Components>\n" + text + "\n</Components></AgentConfig>";
}

TEST(Settings, EmptyConfigurationIsOne) {
  const Settings settings = Read("<AgentConfig/>");
  EXPECT_TRUE(settings.inputs.empty());
  EXPECT_TRUE(settings.destinations.empty());
  EXPECT_TRUE(settings.components.empty());
}

TEST(Settings, InputsAreReadWithTheirDefaults) {
  const Settings settings = Read(InInputs("<File Path=\"" + Absolute("var/log/*.log") +
                                          "\"/><StandardInput MaxLineBytes=\"300\"/><File Path=\"" + Absolute("a") +
                                          "\" From=\"beginning\" MaxLineBytes=\"1000\"/>"));
  ASSERT_EQ(settings.inputs.size(), 3u);
  EXPECT_EQ(settings.inputs[0].kind, collect::InputSettings::Kind::Files);
  EXPECT_EQ(settings.inputs[0].pattern, Absolute("var/log/*.log"));
  EXPECT_FALSE(settings.inputs[0].fromBeginning);
  EXPECT_EQ(settings.inputs[0].maxLineBytes, collect::InputSettings::defaultMaxLineBytes);
  EXPECT_EQ(settings.inputs[1].kind, collect::InputSettings::Kind::StandardInput);
  EXPECT_EQ(settings.inputs[1].maxLineBytes, 300u);
  EXPECT_TRUE(settings.inputs[2].fromBeginning);
  EXPECT_EQ(settings.inputs[2].maxLineBytes, 1000u);
}

TEST(Settings, StandardInputHasTheDefaultOfFiles) {
  EXPECT_EQ(Read(InInputs("<StandardInput/>")).inputs.front().maxLineBytes,
            collect::InputSettings::defaultMaxLineBytes);
}

TEST(Settings, DestinationBecomesTheBlockOfItsSocket) {
  const Settings settings = Read(InDestinations(
      "<Destination Type=\"tls\" Address=\"::1\" Port=\"6514\" MinTls=\"TLSv1.2\" Builder=\"RawPayloadBuilder\" "
      "Framing=\"OctetCounting\">"
      "<Parameter Name=\"MaxPayloadSize\" Value=\"100\"/><Parameter Name=\"AppendLineFeed\" Value=\"no\"/>"
      "<Certificate>\n good \n</Certificate></Destination>"
      "<Destination Type=\"udp\" Address=\"host\"/>"));
  ASSERT_EQ(settings.destinations.size(), 2u);
  const DestinationSettings& tls = settings.destinations[0];
  EXPECT_EQ(tls.type, DestinationType::Tls);
  EXPECT_EQ(tls.minTls, "TLSv1.2");
  EXPECT_EQ(tls.maxTls, "TLSv1.2");
  EXPECT_EQ(tls.Url(), "tls://[::1]:6514");
  EXPECT_THAT(tls.parameters,
              ElementsAre(Pair("AppendLineFeed", "no"), Pair("Certificate", "encoded"),
                          Pair("Framing", "OctetCounting"), Pair("MaxPayloadSize", "100"),
                          Pair("PayloadBuilderType", "RawPayloadBuilder"), Pair("Socket.BlockingSendStrategy", "false"),
                          Pair("TargetAddress", "::1"), Pair("TargetPort", "6514")));
  EXPECT_EQ(settings.destinations[1].Url(), "udp://host:514");
  EXPECT_THAT(settings.destinations[1].parameters,
              testing::Contains(Pair("PayloadBuilderType", "SyslogPayloadBuilder")));
}

/// The parameters of one TCP destination with these attributes and elements.
WindowsAgentCommon::ParameterBlock TcpParameters(const std::string& attributes, const std::string& elements = {}) {
  return Read(InDestinations("<Destination Type='tcp' Address='a' " + attributes + ">" + elements + "</Destination>"))
      .destinations.front()
      .parameters;
}

TEST(Settings, DestinationHasNoParametersButItsOwnAndTheAgents) {
  EXPECT_THAT(TcpParameters(""), ElementsAre(Pair("PayloadBuilderType", "SyslogPayloadBuilder"),
                                             Pair("Socket.BlockingSendStrategy", "false"), Pair("TargetAddress", "a"),
                                             Pair("TargetPort", "514")));
  const Settings udp = Read(InDestinations("<Destination Type='udp' Address='a' Port='515'/>"));
  EXPECT_THAT(udp.destinations.front().parameters, ElementsAre(Pair("PayloadBuilderType", "SyslogPayloadBuilder"),
                                                               Pair("Socket.BlockingSendStrategy", "false"),
                                                               Pair("TargetAddress", "a"), Pair("TargetPort", "515")));
}

TEST(Settings, FramingAndBuilderAreForTheSocket) {
  for (const char* const framing : {"LineFeed", "OctetCounting"}) {
    EXPECT_THAT(TcpParameters("Framing='" + std::string(framing) + "'"), testing::Contains(Pair("Framing", framing)));
  }
  for (const char* const builder : {"SyslogPayloadBuilder", "SyslogBsdPayloadBuilder", "RawPayloadBuilder"}) {
    EXPECT_THAT(TcpParameters("Builder='" + std::string(builder) + "'"),
                testing::Contains(Pair("PayloadBuilderType", builder)));
  }
}

TEST(Settings, NumbersAreTakenUpToTheirBounds) {
  EXPECT_THAT(TcpParameters("Port='1'"), testing::Contains(Pair("TargetPort", "1")));
  EXPECT_THAT(TcpParameters("Port='65535'"), testing::Contains(Pair("TargetPort", "65535")));
  const Settings inputs =
      Read(InInputs("<StandardInput MaxLineBytes='256'/><File MaxLineBytes='16777216' Path='" + Absolute("a") + "'/>"));
  EXPECT_EQ(inputs.inputs[0].maxLineBytes, 256u);
  EXPECT_EQ(inputs.inputs[1].maxLineBytes, 16777216u);
  const Settings builds =
      Read(InComponents("<Component Name='a' BuildNumber='0'/><Component Name='b' BuildNumber='4294967295'/>"));
  EXPECT_EQ(builds.components[0].buildNumber, 0u);
  EXPECT_EQ(builds.components[1].buildNumber, 4294967295u);
}

TEST(Settings, AddressInBracketsGetsNoMore) {
  const Settings settings = Read(InDestinations("<Destination Type='tcp' Address='[::1]' Port='1'/>"));
  EXPECT_EQ(settings.destinations.front().Url(), "tcp://[::1]:1");
}

TEST(Settings, ComponentNameMayHaveEveryCharacterThatItSays) {
  const std::string longest = "0123456789._-AZaz" + std::string(64 - 17, 'x');
  EXPECT_EQ(Read(InComponents("<Component Name='" + longest + "' BuildNumber='1'/>")).components[0].name, longest);
}

TEST(Settings, ComponentNameHasNoOtherCharacter) {
  for (const char* const name : {"a/b", "a\\b", "a:b", "a b", "a*b", "\xC3\xA4"}) {
    EXPECT_THAT(ErrorOf(InComponents("<Component Name='" + std::string(name) + "' BuildNumber='1'/>")),
                HasSubstr("is no name of a component"))
        << name;
  }
}

TEST(Settings, DestinationsAreEqualWhenAllIsTheSame) {
  const std::string base = "<Destination Type=\"tls\" Address=\"a\"";
  const std::string end = "><Certificate>good</Certificate></Destination>";
  const auto read = [&](const std::string& more) {
    return Read(InDestinations(base + more + end)).destinations.front();
  };
  EXPECT_EQ(read(""), read(" MinTls=\"TLSv1\""));
  EXPECT_NE(read(""), read(" MinTls=\"TLSv1.1\""));
  EXPECT_NE(read(""), read(" MaxTls=\"TLSv1.1\""));
  EXPECT_NE(read(""), read(" Port=\"515\""));
  EXPECT_NE(read(""), read("><Parameter Name=\"MaxPayloadSize\" Value=\"1\"/"));
}

TEST(Settings, ComponentsAreRead) {
  const Settings settings = Read(InComponents("<Component Name=\"AgentCore\" BuildNumber=\"4712\"/>"));
  ASSERT_EQ(settings.components.size(), 1u);
  EXPECT_EQ(settings.components[0].name, "AgentCore");
  EXPECT_EQ(settings.components[0].buildNumber, 4712u);
}

TEST(Settings, SizeIsBounded) {
  const std::string configuration = "<AgentConfig/>";
  const std::string largest = configuration + std::string(maxSettingsBytes - configuration.size(), ' ');
  EXPECT_EQ(ErrorOf(largest), "none");
  EXPECT_EQ(ErrorOf(largest + " "), "line 1: the configuration has more than 1048576 bytes");
}

struct ErrorCase {
  const char* name;
  std::string text;
  std::string error;
};

void PrintTo(const ErrorCase& error, std::ostream* out) { *out << error.name; }

class SettingsErrorCase : public testing::TestWithParam<ErrorCase> {};

TEST_P(SettingsErrorCase, IsToldWithItsLine) { EXPECT_THAT(ErrorOf(GetParam().text), HasSubstr(GetParam().error)); }

const std::string tcp = "<Destination Type=\"tcp\" Address=\"a\"";

INSTANTIATE_TEST_SUITE_P(
    All, SettingsErrorCase,
    testing::Values(
        ErrorCase{"OtherRoot", "\n<Other/>", "line 2: the document is 'Other' and has to be AgentConfig"},
        ErrorCase{"AttributeOfTheRoot", "<AgentConfig Version='1'/>", "line 1: AgentConfig has no attribute 'Version'"},
        ErrorCase{"TextInTheRoot", "<AgentConfig>x</AgentConfig>", "line 1: AgentConfig holds no text"},
        ErrorCase{"UnknownList", "<AgentConfig>\n<Inputz/></AgentConfig>",
                  "line 2: AgentConfig has no element 'Inputz'; there are: Inputs, Destinations, Components"},
        ErrorCase{"ListTwice", "<AgentConfig><Inputs/>\n<Inputs/></AgentConfig>", "line 2: Inputs is given twice"},
        ErrorCase{"UnknownInput", InInputs("<Pipe/>"),
                  "line 3: Inputs has no element 'Pipe'; there are: File, StandardInput"},
        ErrorCase{"DestinationsTwice", "<AgentConfig><Destinations/>\n<Destinations/></AgentConfig>",
                  "line 2: Destinations is given twice"},
        ErrorCase{"ComponentsTwice", "<AgentConfig><Components/>\n<Components/></AgentConfig>",
                  "line 2: Components is given twice"},
        ErrorCase{"AttributeOfInputs", "<AgentConfig><Inputs A='1'/></AgentConfig>", "Inputs has no attribute 'A'"},
        ErrorCase{"AttributeOfDestinations", "<AgentConfig><Destinations A='1'/></AgentConfig>",
                  "Destinations has no attribute 'A'"},
        ErrorCase{"AttributeOfComponents", "<AgentConfig><Components A='1'/></AgentConfig>",
                  "Components has no attribute 'A'"},
        ErrorCase{"AttributeOfStandardInput", InInputs("<StandardInput Path='a'/>"),
                  "line 3: StandardInput has no attribute 'Path'"},
        ErrorCase{"FileWithoutPath", InInputs("<File/>"), "line 3: the attribute Path is missing or empty"},
        ErrorCase{"FileWithEmptyPath", InInputs("<File Path=''/>"), "line 3: the attribute Path is missing or empty"},
        ErrorCase{"RelativePath", InInputs("<File Path='a/b'/>"), "line 3: the path 'a/b' is not absolute"},
        ErrorCase{"UnknownStart", InInputs("<File Path='" + Absolute("a") + "' From='middle'/>"),
                  "line 3: From is 'middle'; there are: end, beginning"},
        ErrorCase{"UnknownFileAttribute", InInputs("<File Path='" + Absolute("a") + "' Form='end'/>"),
                  "line 3: File has no attribute 'Form'"},
        ErrorCase{"LineTooLong", InInputs("<File Path='" + Absolute("a") + "' MaxLineBytes='16777217'/>"),
                  "line 3: MaxLineBytes is '16777217'; it takes a number from 256 to 16777216"},
        ErrorCase{"LineTooShort", InInputs("<StandardInput MaxLineBytes='255'/>"), "MaxLineBytes is '255'"},
        ErrorCase{"LineOfStandardInputTooLong", InInputs("<StandardInput MaxLineBytes='16777217'/>"),
                  "MaxLineBytes is '16777217'; it takes a number from 256 to 16777216"},
        ErrorCase{"LineOfAFileTooShort", InInputs("<File Path='" + Absolute("a") + "' MaxLineBytes='255'/>"),
                  "MaxLineBytes is '255'"},
        ErrorCase{"TextInStandardInput", InInputs("<StandardInput>x</StandardInput>"),
                  "line 3: StandardInput holds no text"},
        ErrorCase{"ElementInStandardInput", InInputs("<StandardInput>\n<b/></StandardInput>"),
                  "line 4: StandardInput holds no elements"},
        ErrorCase{"NoNumber", InInputs("<StandardInput MaxLineBytes='1000 '/>"), "MaxLineBytes is '1000 '"},
        ErrorCase{"EmptyNumber", InInputs("<StandardInput MaxLineBytes=''/>"),
                  "line 3: MaxLineBytes is ''; it takes a number from 256 to 16777216"},
        ErrorCase{"EmptyStart", InInputs("<File Path='" + Absolute("a") + "' From=''/>"),
                  "line 3: From is ''; there are: end, beginning"},
        ErrorCase{"TextInFile", InInputs("<File Path='" + Absolute("a") + "'>x</File>"), "line 3: File holds no text"},
        ErrorCase{"ElementInFile", InInputs("<File Path='" + Absolute("a") + "'>\n<b/></File>"),
                  "line 4: File holds no elements"},
        ErrorCase{"InputTwice",
                  InInputs("<File Path='" + Absolute("a") + "'/>\n<File Path='" + Absolute("a") + "' From='end'/>"),
                  "line 4: this input is given twice"},
        ErrorCase{"StandardInputTwice", InInputs("<StandardInput/><StandardInput/>"), "this input is given twice"},
        ErrorCase{"UnknownDestination", InDestinations("<File/>"), "line 3: Destinations has no element 'File'"},
        ErrorCase{"NoType", InDestinations("<Destination Address='a'/>"), "line 3: the attribute Type is missing"},
        ErrorCase{"UnknownType", InDestinations("<Destination Type='http' Address='a'/>"),
                  "line 3: Type is 'http'; there are: tcp, tls, udp"},
        ErrorCase{"NoAddress", InDestinations("<Destination Type='tcp'/>"), "the attribute Address is missing"},
        ErrorCase{"PortZero", InDestinations(tcp + " Port='0'/>"), "Port is '0'; it takes a number from 1 to 65535"},
        ErrorCase{"PortTooHigh", InDestinations(tcp + " Port='65536'/>"), "Port is '65536'"},
        ErrorCase{"EmptyPort", InDestinations(tcp + " Port=''/>"), "line 3: Port is ''; it takes a number"},
        ErrorCase{"EmptyBuilder", InDestinations(tcp + " Builder=''/>"), "line 3: Builder is ''; there are: "},
        ErrorCase{"EmptyMinTls",
                  InDestinations("<Destination Type='tls' Address='a' MinTls=''>\n<Certificate>good</Certificate>"
                                 "</Destination>"),
                  "line 3: The minimum SSL protocol is not specified."},
        ErrorCase{"EmptyMaxTls",
                  InDestinations("<Destination Type='tls' Address='a' MaxTls=''>\n<Certificate>good</Certificate>"
                                 "</Destination>"),
                  "line 3: The maximum SSL protocol is not specified."},
        ErrorCase{"UnknownBuilder", InDestinations(tcp + " Builder='Raw'/>"),
                  "Builder is 'Raw'; there are: SyslogPayloadBuilder, SyslogBsdPayloadBuilder, RawPayloadBuilder"},
        ErrorCase{"UnknownFraming", InDestinations(tcp + " Framing='Lines'/>"),
                  "Framing is 'Lines'; there are: LineFeed, OctetCounting"},
        ErrorCase{"FramingOfUdp", InDestinations("<Destination Type='udp' Address='a' Framing='LineFeed'/>"),
                  "Destination has no attribute 'Framing'"},
        ErrorCase{"TlsRangeOfTcp", InDestinations(tcp + " MinTls='TLSv1'/>"), "Destination has no attribute 'MinTls'"},
        ErrorCase{"AttributeOfADestination", InDestinations(tcp + " Protocol='tcp'/>"),
                  "line 3: Destination has no attribute 'Protocol'"},
        ErrorCase{"EmptyFraming", InDestinations(tcp + " Framing=''/>"), "the attribute Framing is missing or empty"},
        ErrorCase{"TextInADestination", InDestinations(tcp + ">x</Destination>"), "line 3: Destination holds no text"},
        ErrorCase{
            "BothTlsVersions",
            InDestinations("<Destination Type='tls' Address='a' MinTls='x' MaxTls='y'>"
                           "<Certificate>good</Certificate></Destination>"),
            "line 3: The minimum SSL protocol (x) is unrecognized. The maximum SSL protocol (y) is unrecognized."},
        ErrorCase{"AttributeOfACertificate",
                  InDestinations("<Destination Type='tls' Address='a'>\n<Certificate A='1'>good</Certificate>"
                                 "</Destination>"),
                  "line 4: Certificate has no attribute 'A'"},
        ErrorCase{"ElementInACertificate",
                  InDestinations("<Destination Type='tls' Address='a'>\n<Certificate>good<b/></Certificate>"
                                 "</Destination>"),
                  "line 4: Certificate holds no elements"},
        ErrorCase{"ParameterWithoutName", InDestinations(tcp + ">\n<Parameter Value='1'/></Destination>"),
                  "line 4: the attribute Name is missing or empty"},
        ErrorCase{"ParameterWithoutValue", InDestinations(tcp + ">\n<Parameter Name='MaxPayloadSize'/></Destination>"),
                  "line 4: MaxPayloadSize is ''; it takes a number"},
        ErrorCase{"AttributeOfAParameter",
                  InDestinations(tcp + ">\n<Parameter Name='MaxPayloadSize' Value='1' Unit='KiB'/></Destination>"),
                  "line 4: Parameter has no attribute 'Unit'"},
        ErrorCase{"TextInAParameter",
                  InDestinations(tcp + ">\n<Parameter Name='MaxPayloadSize' Value='1'>2</Parameter></Destination>"),
                  "line 4: Parameter holds no text"},
        ErrorCase{"UnknownTlsVersion",
                  InDestinations("<Destination Type='tls' Address='a' MinTls='TLSv9'><Certificate>good</Certificate>"
                                 "</Destination>"),
                  "line 3: The minimum SSL protocol (TLSv9) is unrecognized."},
        ErrorCase{"NoCertificate", InDestinations("<Destination Type='tls' Address='a'/>"),
                  "line 3: a tls destination needs a Certificate"},
        ErrorCase{"BadCertificate",
                  InDestinations("<Destination Type='tls' Address='a'>\n<Certificate>bad</Certificate></Destination>"),
                  "line 4: it holds no certificate"},
        ErrorCase{"CertificateOfTcp", InDestinations(tcp + ">\n<Certificate>good</Certificate></Destination>"),
                  "line 4: only a tls destination has a certificate"},
        ErrorCase{"CertificateOfUdp",
                  InDestinations("<Destination Type='udp' Address='a'>\n<Certificate>good</Certificate></Destination>"),
                  "line 4: only a tls destination has a certificate"},
        ErrorCase{"CertificateTwice",
                  InDestinations("<Destination Type='tls' Address='a'><Certificate>good</Certificate>\n"
                                 "<Certificate>good</Certificate></Destination>"),
                  "line 4: the certificate is given twice"},
        ErrorCase{"UdpToIPv6", InDestinations("<Destination Type='udp' Address='::1'/>"), "udp destinations are IPv4"},
        ErrorCase{"UnknownParameter", InDestinations(tcp + ">\n<Parameter Name='X' Value='1'/></Destination>"),
                  "line 4: 'X' is no parameter of these destinations; there are: Socket.QueueLowWaterMark, "
                  "Socket.QueueHighWaterMark, Socket.KeepAlive.Enabled, Socket.KeepAlive.Time, "
                  "Socket.KeepAlive.Interval, MaxPayloadSize, AppendLineFeed"},
        ErrorCase{"ParameterValue",
                  InDestinations(tcp + ">\n<Parameter Name='MaxPayloadSize' Value='many'/></Destination>"),
                  "line 4: MaxPayloadSize is 'many'; it takes a number from 0 to 4294967295"},
        ErrorCase{"ParameterTwice",
                  InDestinations(tcp + "><Parameter Name='MaxPayloadSize' Value='1'/>\n"
                                       "<Parameter Name='MaxPayloadSize' Value='2'/></Destination>"),
                  "line 4: 'MaxPayloadSize' is given more than once"},
        ErrorCase{"ParameterWithAPlaceOfItsOwn",
                  InDestinations(tcp + "><Parameter Name='TargetPort' Value='1'/></Destination>"),
                  "'TargetPort' is set by the attribute Port"},
        ErrorCase{"StrategyIsTheAgents",
                  InDestinations(tcp + "><Parameter Name='Socket.BlockingSendStrategy' Value='true'/></Destination>"),
                  "'Socket.BlockingSendStrategy' is set by the agent, which always queues"},
        ErrorCase{"KeepAliveOfUdp",
                  InDestinations("<Destination Type='udp' Address='a'><Parameter Name='Socket.KeepAlive.Time' "
                                 "Value='1'/></Destination>"),
                  "'Socket.KeepAlive.Time' is no parameter"},
        ErrorCase{"DestinationTwice", InDestinations(tcp + "/>\n" + tcp + " Builder='RawPayloadBuilder'/>"),
                  "line 4: tcp://a:514 is given twice"},
        ErrorCase{"ComponentName", InComponents("<Component Name='../x' BuildNumber='1'/>"),
                  "line 3: '../x' is no name of a component"},
        ErrorCase{"HiddenComponent", InComponents("<Component Name='.x' BuildNumber='1'/>"), "'.x' is no name"},
        ErrorCase{"LongComponentName", InComponents("<Component Name='" + std::string(65, 'a') + "' BuildNumber='1'/>"),
                  "is no name of a component"},
        ErrorCase{"NoBuildNumber", InComponents("<Component Name='x'/>"), "the attribute BuildNumber is missing"},
        ErrorCase{"NegativeBuildNumber", InComponents("<Component Name='x' BuildNumber='-1'/>"), "BuildNumber is '-1'"},
        ErrorCase{"BuildNumberTooHigh", InComponents("<Component Name='x' BuildNumber='4294967296'/>"),
                  "BuildNumber is '4294967296'; it takes a number from 0 to 4294967295"},
        ErrorCase{"AttributeOfAComponent", InComponents("<Component Name='x' BuildNumber='1' Build='2'/>"),
                  "line 3: Component has no attribute 'Build'"},
        ErrorCase{"TextInAComponent", InComponents("<Component Name='x' BuildNumber='1'>2</Component>"),
                  "line 3: Component holds no text"},
        ErrorCase{"ElementInAComponent", InComponents("<Component Name='x' BuildNumber='1'>\n<b/></Component>"),
                  "line 4: Component holds no elements"},
        ErrorCase{"ComponentTwice",
                  InComponents("<Component Name='Core' BuildNumber='1'/>\n<Component Name='core' BuildNumber='2'/>"),
                  "line 4: the component core is given twice"}),
    [](const testing::TestParamInfo<ErrorCase>& test) { return test.param.name; });

}  // namespace
}  // namespace sorvex::settings
