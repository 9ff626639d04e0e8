#include <host/SystemError.h>

#include <gtest/gtest.h>

#include <string>

namespace WindowsAgentCommon {
namespace {

TEST(SystemError, KnownNumberHasAText) {
  // 2 is "no such file" on every platform.
  const std::string text = GetLastErrorText(2);
  EXPECT_FALSE(text.empty());
  EXPECT_NE(text, "error 2");
}

TEST(SystemError, TextHasNoLineEnd) {
  for (int error = 0; error < 200; ++error) {
    EXPECT_EQ(GetLastErrorText(error).find_first_of("\r\n"), std::string::npos) << error;
  }
}

TEST(SystemError, UnknownNumberIsNamed) {
  EXPECT_EQ(GetLastErrorText(123456789), "error 123456789");
  EXPECT_EQ(GetLastErrorText(-5), "error -5");
}

}  // namespace
}  // namespace WindowsAgentCommon
