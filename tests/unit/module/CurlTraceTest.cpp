#include "connection/CurlTrace.h"

#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace {

using testing::ElementsAre;
using VaroCommunicationAPI::CurlTrace;
using Kind = CurlTrace::Kind;

class CurlTraceTest : public testing::Test {
 protected:
  CurlTrace Trace(std::string_view token) {
    return {WindowsAgentCommon::LoggerFactory::GetLogger("Trace"), VaroCommunicationAPI::Platform::SecretText(token)};
  }

  sorvex::test::RecordingLogger m_log;
};

TEST_F(CurlTraceTest, LogsEachLineAtDebugWithTheMarkOfItsKind) {
  CurlTrace trace = Trace("to-ken");
  trace.Add(Kind::Text, "Trying 127.0.0.1:443...\n");
  trace.Add(Kind::HeaderOut, "GET / HTTP/1.1\r\nHost: a\r\n\r\n");
  trace.Add(Kind::HeaderIn, "HTTP/1.1 200 OK\r\n");
  EXPECT_THAT(m_log->Lines("Trace"),
              ElementsAre("Debug libcurl: * Trying 127.0.0.1:443...", "Debug libcurl: > GET / HTTP/1.1",
                          "Debug libcurl: > Host: a", "Debug libcurl: > ", "Debug libcurl: < HTTP/1.1 200 OK"));
}

TEST_F(CurlTraceTest, LogsALineWhenItIsWhole) {
  CurlTrace trace = Trace("to-ken");
  trace.Add(Kind::HeaderOut, "Ho");
  trace.Add(Kind::Text, "between\n");
  EXPECT_THAT(m_log->Lines("Trace"), ElementsAre("Debug libcurl: * between"));
  trace.Add(Kind::HeaderOut, "st: a\r\nAcc");
  EXPECT_THAT(m_log->Lines("Trace"), ElementsAre("Debug libcurl: * between", "Debug libcurl: > Host: a"));
}

TEST_F(CurlTraceTest, LeavesOutTheHeaderOfTheToken) {
  CurlTrace trace = Trace("to-ken");
  trace.Add(Kind::HeaderOut, "SEC: to-ken\r\n");
  trace.Add(Kind::Text, "h2h3 [sec: to-k\n");
  EXPECT_THAT(m_log->Lines("Trace"), ElementsAre("Debug libcurl: > SEC: ***", "Debug libcurl: * h2h3 [sec: ***"));
}

TEST_F(CurlTraceTest, LeavesOutTheTokenWhereverItOccurs) {
  CurlTrace trace = Trace("to-ken");
  trace.Add(Kind::HeaderIn, "Echo: to-kento-ken and to-ken, to-ke\r\n");
  trace.Add(Kind::HeaderIn, "to-ken SEC: to-ken\r\n");
  EXPECT_THAT(m_log->Lines("Trace"),
              ElementsAre("Debug libcurl: < Echo: ****** and ***, to-ke", "Debug libcurl: < *** SEC: ***"));
}

TEST_F(CurlTraceTest, LeavesOutATokenThatComesInPieces) {
  constexpr std::string_view request = "GET / HTTP/1.1\r\nSEC: to-ken\r\nEcho: to-ken\r\n";
  CurlTrace trace = Trace("to-ken");
  for (const char& byte : request) trace.Add(Kind::HeaderOut, {&byte, 1});
  EXPECT_THAT(m_log->Lines("Trace"), ElementsAre("Debug libcurl: > GET / HTTP/1.1", "Debug libcurl: > SEC: ***",
                                                 "Debug libcurl: > Echo: ***"));
}

TEST_F(CurlTraceTest, ShowsEverythingElseWithoutAToken) {
  CurlTrace trace = Trace("");
  trace.Add(Kind::HeaderIn, "A: 1\r\n");
  EXPECT_THAT(m_log->Lines("Trace"), ElementsAre("Debug libcurl: < A: 1"));
}

}  // namespace
