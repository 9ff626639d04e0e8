#include "sockets/Framing.h"

#include <settings/DestinationNames.h>

#include <gtest/gtest.h>

namespace sorvex::settings {
namespace {

using VaroCommunicationAPI::Framing;

TEST(DestinationNames, FramingsAreKnownToTheSockets) {
  for (const auto& [name, value] : framings) {
    const auto kind = Framing::Parse(value);
    ASSERT_TRUE(kind) << name;
    EXPECT_EQ(FramesEmptyPayloads(value, true), Framing(*kind).AddedBytes(0) > 0) << name;
  }
}

TEST(DestinationNames, WithoutALineFeedOnlyThatFramingLosesEmptyPayloads) {
  for (const auto& [name, value] : framings) {
    EXPECT_EQ(FramesEmptyPayloads(value, false), value != "LineFeed" && FramesEmptyPayloads(value, true)) << name;
  }
}

}  // namespace
}  // namespace sorvex::settings
