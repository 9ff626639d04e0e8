// The reader of requests over HTTPS. The requests are those of docs/protocol.md.
#include <HttpsRequest.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sorvex::configserver {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string request =
    "GET /console/sorvex?Name=RegisterInstance&Identifier=agent-7&OS+version=Debian%2012&Sorvex+version=7.2.5"
    "&AutoCreation.Enabled=true HTTP/1.1\r\nHost: server\r\nAccept: */*\r\nSEC: 4b1d-99e0\r\n\r\n";

HttpsCommand Command(const std::string& query) {
  const auto content = ReadHttpsCommand("/console/sorvex?" + query);
  EXPECT_TRUE(std::holds_alternative<HttpsCommand>(content)) << query;
  return std::holds_alternative<HttpsCommand>(content) ? std::get<HttpsCommand>(content) : HttpsCommand();
}

std::string Reason(const std::string& query) {
  const auto content = ReadHttpsCommand("/console/sorvex?" + query);
  return std::holds_alternative<Refusal>(content) ? std::get<Refusal>(content).reason : "read";
}

TEST(HttpsRequestReader, IsCompleteAtItsLastByte) {
  HttpsRequestReader reader;
  for (std::size_t size = 0; size < request.size(); ++size) {
    EXPECT_FALSE(reader.Read(request.substr(0, size))) << size;
    EXPECT_FALSE(HttpsRequestReader().Read(request.substr(0, size))) << size;
  }
  for (const std::string& further : {std::string(), std::string("GET"), request}) {
    const auto read = reader.Read(request + further);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->size, request.size());
    EXPECT_EQ(read->token, "4b1d-99e0");
    EXPECT_TRUE(read->keepsConnection);
    const HttpsCommand& command = std::get<HttpsCommand>(read->content);
    EXPECT_EQ(command.exchange, Exchange::Registration);
    EXPECT_EQ(command.identifier, "agent-7");
    EXPECT_EQ(command.osVersion, "Debian 12");
    EXPECT_EQ(command.agentVersion, "7.2.5");
    EXPECT_THAT(command.autoCreation, ElementsAre("AutoCreation.Enabled=true"));
  }
}

TEST(HttpsRequestReader, IsRefusedAtItsBound) {
  const std::string begin = "GET /";
  HttpsRequestReader reader;
  EXPECT_FALSE(reader.Read(begin + std::string(maxHttpsRequestBytes - begin.size() - 1, 'x')));
  const std::string atBound = begin + std::string(maxHttpsRequestBytes - begin.size(), 'x');
  const auto read = reader.Read(atBound);
  ASSERT_TRUE(read);
  EXPECT_EQ(std::get<Refusal>(read->content).status, 431u);
  EXPECT_EQ(read->size, atBound.size());
}

TEST(HttpsRequestReader, ReadsOneRequestAfterTheOther) {
  HttpsRequestReader reader;
  const std::string next = "GET / HTTP/1.1\r\n\r\n";
  EXPECT_FALSE(reader.Read(request.substr(0, request.size() - 1)));
  EXPECT_TRUE(reader.Read(request + next));
  EXPECT_TRUE(reader.Read(next));
}

TEST(HttpsCommand, IsToldByItsName) {
  const std::string agent = "&Identifier=a";
  EXPECT_EQ(Command("Name=PostHeartbeat" + agent).exchange, Exchange::Heartbeat);
  EXPECT_EQ(Command("Name=GetConfigurationFingerprint" + agent).exchange, Exchange::Fingerprint);
  EXPECT_EQ(Command("Name=RetrieveConfiguration" + agent).exchange, Exchange::Configuration);
  const HttpsCommand status = Command("Name=UpdateStatus" + agent + "&Status=-7&Uptime=2147483647");
  EXPECT_EQ(status.exchange, Exchange::Status);
  EXPECT_EQ(status.status, -7);
  EXPECT_EQ(status.uptime, 2147483647);
  const HttpsCommand patch = Command("Name=RetrieveSoftwarePatch" + agent + "&OutOfDateList=x64_72_A%2Cx64_72_B");
  EXPECT_EQ(patch.exchange, Exchange::Patch);
  EXPECT_EQ(patch.outOfDate, "x64_72_A,x64_72_B");
  EXPECT_EQ(Reason("Name=postheartbeat" + agent), "unknown command");
}

struct Encoded {
  std::string text;
  std::string decoded;
};

TEST(HttpsCommand, DecodesKeysAndValues) {
  for (const Encoded& encoded :
       {Encoded{"", ""}, Encoded{"a+b", "a b"}, Encoded{"a%20b", "a b"}, Encoded{"%2B%26%3D%25", "+&=%"},
        Encoded{"Gr%C3%b6%c3%9Fe",
                "Gr\xC3\xB6\xC3\x9F"
                "e"},
        Encoded{"%00", std::string(1, '\0')}, Encoded{"a=b", "a=b"}, Encoded{"?", "?"}, Encoded{"%2500", "%00"}}) {
    EXPECT_EQ(Command("Name=PostHeartbeat&Identifier=" + encoded.text).identifier, encoded.decoded);
  }
  EXPECT_EQ(Command("N%61me=PostHeartbeat&Identifier=a").exchange, Exchange::Heartbeat);
}

TEST(HttpsCommand, WithAnInvalidEscapeIsRefused) {
  for (const char* const text : {"%", "%4", "%4&x=1", "%g0", "%0g", "% 1", "%+1", "%-1", "%0x", "a%"}) {
    EXPECT_EQ(Reason(std::string("Name=PostHeartbeat&Identifier=") + text), "invalid escape") << text;
  }
}

TEST(HttpsCommand, TakesSeveralAutoCreationParametersOfOneName) {
  const HttpsCommand command = Command(
      "Name=RegisterInstance&Identifier=a&OS+version=&Sorvex+version=&AutoCreation.K=1&AutoCreation.K=2&Other=3&&&");
  EXPECT_THAT(command.autoCreation, ElementsAre("AutoCreation.K=1", "AutoCreation.K=2"));
  EXPECT_THAT(Command("Name=PostHeartbeat&Identifier=a&AutoCreation.K=1").autoCreation, IsEmpty());
}

}  // namespace
}  // namespace sorvex::configserver
