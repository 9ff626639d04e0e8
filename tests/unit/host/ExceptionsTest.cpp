#include <host/Exceptions.h>

#include <gtest/gtest.h>

#include <exception>

namespace WindowsAgentCommon {
namespace {

TEST(Exceptions, WhatNamesMessageFunctionFileAndLine) {
  const VaroException exception("Socket.cpp", "Send", 17, "short write");
  EXPECT_STREQ(exception.what(), "short write (Send, Socket.cpp:17)");
}

TEST(Exceptions, WhatWithoutMessageNamesOnlyThePlace) {
  const VaroException exception("Socket.cpp", "Send", 17);
  EXPECT_STREQ(exception.what(), "(Send, Socket.cpp:17)");
}

TEST(Exceptions, GiveBackTheirParts) {
  const VaroException exception("Socket.cpp", "Send", 17, "short write");
  EXPECT_EQ(exception.GetSourceFile(), "Socket.cpp");
  EXPECT_EQ(exception.GetFunction(), "Send");
  EXPECT_EQ(exception.GetLine(), 17);
  EXPECT_EQ(exception.GetMessageText(), "short write");
}

TEST(Exceptions, AreCopiedWhole) {
  const VaroException copy = [] { return VaroException("a", "b", 1, "c"); }();
  EXPECT_STREQ(copy.what(), "c (b, a:1)");
}

TEST(Exceptions, OfEveryKindAreCaughtAsTheBase) {
  EXPECT_THROW(throw SocketException("a", "b", 1), VaroException);
  EXPECT_THROW(throw OperationNotSupportedException("a", "b", 1), VaroException);
  EXPECT_THROW(throw InitializationException("a", "b", 1), VaroException);
}

TEST(Exceptions, KindsAreToldApart) {
  try {
    throw OperationNotSupportedException("File.cpp", "Seek", 3, "no");
  } catch (const SocketException&) {
    FAIL();
  } catch (const OperationNotSupportedException& exception) {
    EXPECT_STREQ(exception.what(), "no (Seek, File.cpp:3)");
  }
}

TEST(Exceptions, AreStandardExceptions) { EXPECT_THROW(throw SocketException("a", "b", 1), std::exception); }

}  // namespace
}  // namespace WindowsAgentCommon
