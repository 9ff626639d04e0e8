#include "connection/ResponseHeaders.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using VaroCommunicationAPI::ResponseHeaders;

TEST(ResponseHeaders, KeepNameAndValueWithoutWhiteSpaceAround) {
  ResponseHeaders headers;
  headers.AddLine(" \tServer\v : \f one two \r\n");
  EXPECT_THAT(headers.All(), ElementsAre(Pair("Server", "one two")));
}

TEST(ResponseHeaders, EndTheNameAtTheFirstColon) {
  ResponseHeaders headers;
  headers.AddLine("Location: https://a:1/\r\n");
  EXPECT_THAT(headers.All(), ElementsAre(Pair("Location", "https://a:1/")));
}

TEST(ResponseHeaders, KeepTheLastOfOneName) {
  ResponseHeaders headers;
  headers.AddLine("A: 1\r\n");
  headers.AddLine("a: 2\r\n");
  headers.AddLine("A:3\r\n");
  EXPECT_THAT(headers.All(), ElementsAre(Pair("A", "3"), Pair("a", "2")));
}

TEST(ResponseHeaders, IgnoreLinesWithoutColon) {
  ResponseHeaders headers;
  for (const char* const line : {"\r\n", "", "no colon\r\n", "http/1.1 200\r\n"}) headers.AddLine(line);
  EXPECT_THAT(headers.All(), IsEmpty());
}

TEST(ResponseHeaders, KeepEmptyNameAndValue) {
  ResponseHeaders headers;
  headers.AddLine(":\r\n");
  EXPECT_THAT(headers.All(), ElementsAre(Pair("", "")));
}

TEST(ResponseHeaders, StartAnewWithAStatusLine) {
  ResponseHeaders headers;
  headers.AddLine("HTTP/1.1 100 Continue\r\n");
  headers.AddLine("A: 1\r\n");
  headers.AddLine("HTTP/1.1 302 Found: elsewhere \r\n");
  headers.AddLine("B: 2\r\n");
  EXPECT_THAT(headers.All(), ElementsAre(Pair("B", "2"), Pair("Version", "HTTP/1.1 302 Found: elsewhere")));
}

TEST(ResponseHeaders, TakeOneMebibyte) {
  ResponseHeaders headers;
  const std::string value(ResponseHeaders::maxBytes - 2, 'v');
  headers.AddLine("A:" + value);
  headers.AddLine("B:");
  headers.AddLine("C:");
  EXPECT_THAT(headers.All(), ElementsAre(Pair("A", value), Pair("B", "")));
}

TEST(ResponseHeaders, CountWhatWasReplaced) {
  ResponseHeaders headers;
  const std::string line = "A:" + std::string(ResponseHeaders::maxBytes / 2, '1');
  headers.AddLine(line);
  headers.AddLine("A: " + std::string(ResponseHeaders::maxBytes / 2, '2'));
  EXPECT_THAT(headers.All(), ElementsAre(Pair("A", line.substr(2))));
}

TEST(ResponseHeaders, HaveRoomAgainAfterAStatusLine) {
  ResponseHeaders headers;
  headers.AddLine("A:" + std::string(ResponseHeaders::maxBytes - 1, 'v'));
  headers.AddLine("HTTP/2 200");
  headers.AddLine("B: 1");
  EXPECT_THAT(headers.All(), ElementsAre(Pair("B", "1"), Pair("Version", "HTTP/2 200")));
}

TEST(ResponseHeaders, LeaveOutAStatusLineOverTheLimit) {
  ResponseHeaders headers;
  headers.AddLine("A: 1");
  headers.AddLine("HTTP/" + std::string(ResponseHeaders::maxBytes, 'v'));
  EXPECT_THAT(headers.All(), IsEmpty());
}

}  // namespace
