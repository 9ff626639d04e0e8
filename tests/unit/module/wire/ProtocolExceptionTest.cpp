#include "wire/ProtocolMismatchException.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace SSLConfigServerProto {
namespace {

ProtocolMismatchException Mismatch(const std::string& message) {
  return ProtocolMismatchException("File", "Class::Function", 7, message);
}

TEST(ProtocolExceptions, NameTheirPlace) {
  const ProtocolException exception("File", "Class::Function", 7);
  EXPECT_EQ(exception.GetSourceFile(), "File");
  EXPECT_EQ(exception.GetFunction(), "Class::Function");
  EXPECT_EQ(exception.GetLine(), 7);
  EXPECT_STREQ(exception.what(), "(Class::Function, File:7)");
}

TEST(ProtocolExceptions, AreCaughtAsWhatTheyDeriveFrom) {
  EXPECT_THROW(throw ProtocolException("", "", 0), WindowsAgentCommon::SocketException);
  EXPECT_THROW(throw Mismatch(""), ProtocolException);
  EXPECT_THROW(throw Mismatch(""), WindowsAgentCommon::VaroException);
  EXPECT_THROW(throw Mismatch(""), std::exception);
}

TEST(ProtocolMismatch, ReadsBothVersionsFromItsMessage) {
  const auto exception = Mismatch("cli:2.0 --> svr:1.0");
  EXPECT_EQ(exception.GetClientVersion(), "2.0");
  EXPECT_EQ(exception.GetServerVersion(), "1.0");
  EXPECT_EQ(exception.GetMessageText(), "cli:2.0 --> svr:1.0");
  EXPECT_EQ(exception.GetLine(), 7);
}

TEST(ProtocolMismatch, VersionsMayHaveSeveralDigits) {
  const auto exception = Mismatch("cli:12.345 --> svr:0.10");
  EXPECT_EQ(exception.GetClientVersion(), "12.345");
  EXPECT_EQ(exception.GetServerVersion(), "0.10");
}

TEST(ProtocolMismatch, OfAnyOtherMessageBothVersionsAreEmpty) {
  for (const char* message : {"", "2.0 1.0", "cli:2 --> svr:1", "cli:2.0 -> svr:1.0", "cli:2.0 --> svr:", "cli:2.0",
                              "cli:2.x --> svr:1.0", "CLI:2.0 --> SVR:1.0", "cli:2.0 --> svr:1.0 or so"}) {
    const auto exception = Mismatch(message);
    EXPECT_EQ(exception.GetClientVersion(), "") << message;
    EXPECT_EQ(exception.GetServerVersion(), "") << message;
    EXPECT_EQ(exception.GetMessageText(), message);
  }
}

TEST(ProtocolMismatch, CopiesHaveBothVersions) {
  auto original = std::make_unique<ProtocolMismatchException>("File", "Function", 7, "cli:2.0 --> svr:1.0");
  std::vector<ProtocolMismatchException> copies{*original, Mismatch("")};
  copies[1] = *original;
  original.reset();
  for (const ProtocolMismatchException& exception : copies) {
    EXPECT_EQ(exception.GetClientVersion(), "2.0");
    EXPECT_EQ(exception.GetServerVersion(), "1.0");
    EXPECT_STREQ(exception.what(), "cli:2.0 --> svr:1.0 (Function, File:7)");
  }
}

TEST(ProtocolMismatch, LongMessagesAreMatchedWithoutRecursion) {
  const std::string digits(1'000'000, '1');
  const auto exception = Mismatch("cli:" + digits + ".0 --> svr:1." + digits);
  EXPECT_EQ(exception.GetClientVersion(), digits + ".0");
  EXPECT_EQ(exception.GetServerVersion(), "1." + digits);
}

}  // namespace
}  // namespace SSLConfigServerProto
