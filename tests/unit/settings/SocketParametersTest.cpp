#include <settings/SocketParameters.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace sorvex::settings {
namespace {

std::string ErrorOf(const WindowsAgentCommon::ParameterBlock& parameters, bool hasStream, Place place) {
  try {
    CheckSocketParameters(parameters, hasStream, place);
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "none";
}

enum class Takes { Number, Boolean };

struct FreeParameter {
  const char* key;
  Takes takes;
  bool isForUdp;
};

/// What both places leave to the list of keys and values.
constexpr FreeParameter freeParameters[] = {{"Socket.QueueLowWaterMark", Takes::Number, true},
                                            {"Socket.QueueHighWaterMark", Takes::Number, true},
                                            {"Socket.KeepAlive.Enabled", Takes::Boolean, false},
                                            {"Socket.KeepAlive.Time", Takes::Number, false},
                                            {"Socket.KeepAlive.Interval", Takes::Number, false},
                                            {"MaxPayloadSize", Takes::Number, true},
                                            {"AppendLineFeed", Takes::Boolean, false}};

TEST(SocketParameters, AreTakenWithWhatTheyTakeAlone) {
  for (const Place place : {Place::CommandLine, Place::Configuration}) {
    for (const FreeParameter& parameter : freeParameters) {
      const bool isNumber = parameter.takes == Takes::Number;
      EXPECT_EQ(ErrorOf({{parameter.key, isNumber ? "4294967295" : "no"}}, true, place), "none") << parameter.key;
      EXPECT_EQ(ErrorOf({{parameter.key, isNumber ? "no" : "2"}}, true, place),
                parameter.key + std::string(isNumber ? " is 'no'; it takes a number from 0 to 4294967295"
                                                     : " is '2'; it takes true, yes, on, 1, false, no, off or 0"));
    }
  }
}

TEST(SocketParameters, AreAllLookedAt) {
  EXPECT_EQ(ErrorOf({{"AppendLineFeed", "yes"}, {"MaxPayloadSize", "many"}}, true, Place::Configuration),
            "MaxPayloadSize is 'many'; it takes a number from 0 to 4294967295");
}

TEST(SocketParameters, AreThoseOfUdpWithoutAStream) {
  for (const FreeParameter& parameter : freeParameters) {
    const char* const value = parameter.takes == Takes::Number ? "1" : "no";
    EXPECT_EQ(ErrorOf({{parameter.key, value}}, false, Place::Configuration) == "none", parameter.isForUdp)
        << parameter.key;
  }
}

TEST(SocketParameters, WithAnUnknownOneTheKnownOnesAreTold) {
  const std::string ofStreams =
      "'X' is no parameter of these destinations; there are: Socket.QueueLowWaterMark, Socket.QueueHighWaterMark, "
      "Socket.KeepAlive.Enabled, Socket.KeepAlive.Time, Socket.KeepAlive.Interval, MaxPayloadSize, AppendLineFeed";
  const std::string ofUdp =
      "'X' is no parameter of these destinations; there are: Socket.QueueLowWaterMark, Socket.QueueHighWaterMark, "
      "MaxPayloadSize";
  for (const Place place : {Place::CommandLine, Place::Configuration}) {
    EXPECT_EQ(ErrorOf({{"X", "1"}}, true, place), ofStreams);
    EXPECT_EQ(ErrorOf({{"X", "1"}}, false, place), ofUdp);
  }
}

TEST(SocketParameters, WithPlacesOfTheirOwnAreNotTakenHere) {
  struct Placed {
    const char* key;
    const char* option;
    const char* attribute;
  };
  for (const Placed& placed :
       {Placed{"Socket.BlockingSendStrategy", "--queued", "the agent, which always queues"},
        Placed{"TargetAddress", "--to", "the attribute Address"}, Placed{"TargetPort", "--to", "the attribute Port"},
        Placed{"Framing", "--framing", "the attribute Framing"},
        Placed{"PayloadBuilderType", "--builder", "the attribute Builder"},
        Placed{"Certificate", "--certificate", "the element Certificate"}}) {
    const std::string start = "'" + std::string(placed.key) + "' is set by ";
    // Even where no socket would take it, so that the reader learns where it belongs.
    for (const bool hasStream : {true, false}) {
      EXPECT_EQ(ErrorOf({{placed.key, "1"}}, hasStream, Place::CommandLine), start + placed.option);
      EXPECT_EQ(ErrorOf({{placed.key, "1"}}, hasStream, Place::Configuration), start + placed.attribute);
    }
  }
}

TEST(SocketParameters, AreTakenOnce) {
  EXPECT_EQ(ErrorOf({{"MaxPayloadSize", "1"}, {"MaxPayloadSize", "1"}}, true, Place::CommandLine),
            "'MaxPayloadSize' is given more than once");
}

}  // namespace
}  // namespace sorvex::settings
