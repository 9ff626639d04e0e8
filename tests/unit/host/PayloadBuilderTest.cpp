#include "support/ScopedTimeZone.h"

#include <SorvexHost/ComponentFactory.h>
#include <host/IPayloadFactory.h>
#include <host/ServiceLookup.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace WindowsAgentCommon {
namespace {

using namespace std::chrono_literals;

class PayloadBuilder : public testing::Test {
 protected:
  PayloadBuilder() {
    m_factory.RegisterBuiltInServices();
    EXPECT_TRUE(m_factory.LoadService("IPayloadFactory"));
    m_event.m_time = At(1'795'209'053s) + 123'456us;
    m_event.m_level = 4;
    m_event.m_strSource = "kernel";
    m_event.m_strHost = "host.example";
    m_event.m_strText = "some text";
  }

  static std::chrono::system_clock::time_point At(std::chrono::seconds sinceEpoch) {
    return std::chrono::system_clock::time_point(sinceEpoch);
  }

  static std::shared_ptr<IPayloadBuilder> Make(const std::string& typeName) {
    std::shared_ptr<IPayloadBuilder> builder;
    EXPECT_TRUE(GetService<IPayloadFactory>()->CreatePayloadBuilder(typeName, builder));
    return builder;
  }

  std::string Build(const std::string& typeName) const {
    std::string payload = "what was there before";
    Make(typeName)->BuildPayload(m_event, payload);
    return payload;
  }

  std::string Syslog() const { return Build("SyslogPayloadBuilder"); }
  std::string Bsd() const { return Build("SyslogBsdPayloadBuilder"); }

  sorvex::test::ScopedTimeZone m_zone{"UTC0"};
  ComponentFactory m_factory;
  Event m_event;
};

TEST_F(PayloadBuilder, SyslogHasAllFieldsOfRfc5424) {
  EXPECT_EQ(Syslog(), "<12>1 2026-11-20T21:10:53.123456Z host.example kernel - - - some text");
}

TEST_F(PayloadBuilder, SyslogTimesAreRight) {
  struct {
    std::chrono::microseconds m_time;
    const char* m_pText;
  } const vectors[] = {{0us, "1970-01-01T00:00:00.000000Z"},
                       {-1us, "1969-12-31T23:59:59.999999Z"},
                       {951'782'399s + 999'999us, "2000-02-28T23:59:59.999999Z"},
                       {951'782'400s, "2000-02-29T00:00:00.000000Z"},
                       {951'868'800s, "2000-03-01T00:00:00.000000Z"},
                       {4'107'542'400s, "2100-03-01T00:00:00.000000Z"},
                       {1'704'067'199s, "2023-12-31T23:59:59.000000Z"}};
  for (const auto& vector : vectors) {
    m_event.m_time = std::chrono::system_clock::time_point(vector.m_time);
    EXPECT_EQ(Syslog(), std::string("<12>1 ") + vector.m_pText + " host.example kernel - - - some text");
  }
}

TEST_F(PayloadBuilder, SyslogClampsTheLevel) {
  m_event.m_level = -3;
  EXPECT_EQ(Syslog().substr(0, 5), "<8>1 ");
  m_event.m_level = 0;
  EXPECT_EQ(Syslog().substr(0, 5), "<8>1 ");
  m_event.m_level = 7;
  EXPECT_EQ(Syslog().substr(0, 6), "<15>1 ");
  m_event.m_level = 800;
  EXPECT_EQ(Syslog().substr(0, 6), "<15>1 ");
}

TEST_F(PayloadBuilder, SyslogWritesADashForEmptyNames) {
  m_event.m_strHost.clear();
  m_event.m_strSource.clear();
  EXPECT_EQ(Syslog(), "<12>1 2026-11-20T21:10:53.123456Z - - - - - some text");
}

TEST_F(PayloadBuilder, SyslogReducesNamesToPrintableAscii) {
  m_event.m_strHost = "my host\n\x7F";
  m_event.m_strSource = "\xC3\xA4!~";
  EXPECT_EQ(Syslog(), "<12>1 2026-11-20T21:10:53.123456Z my_host__ __!~ - - - some text");
}

TEST_F(PayloadBuilder, SyslogCutsNames) {
  m_event.m_strHost.assign(300, 'h');
  m_event.m_strSource.assign(60, 's');
  EXPECT_EQ(Syslog(), "<12>1 2026-11-20T21:10:53.123456Z " + std::string(255, 'h') + ' ' + std::string(48, 's') +
                          " - - - some text");
}

TEST_F(PayloadBuilder, SyslogTakesTheLastComponentOfAPath) {
  for (const char* path : {"/var/log/app.log", "C:\\Logs\\app.log", "app.log", "/app.log//", "mixed\\way/app.log"}) {
    m_event.m_strSource = path;
    EXPECT_EQ(Syslog(), "<12>1 2026-11-20T21:10:53.123456Z host.example app.log - - - some text") << path;
  }
}

TEST_F(PayloadBuilder, SyslogOfARootPathHasNoName) {
  m_event.m_strSource = "/";
  EXPECT_EQ(Syslog(), "<12>1 2026-11-20T21:10:53.123456Z host.example - - - - some text");
}

TEST_F(PayloadBuilder, SyslogPassesTheTextThrough) {
  m_event.m_strText = std::string("a\nb\0\xFF \xC3\xA4", 8);
  EXPECT_EQ(Syslog(),
            "<12>1 2026-11-20T21:10:53.123456Z host.example kernel - - - " + std::string("a\nb\0\xFF \xC3\xA4", 8));
}

TEST_F(PayloadBuilder, SyslogWithoutTextEndsAfterTheStructuredData) {
  m_event.m_strText.clear();
  EXPECT_EQ(Syslog(), "<12>1 2026-11-20T21:10:53.123456Z host.example kernel - - -");
}

TEST_F(PayloadBuilder, BsdHasAllFieldsOfRfc3164) { EXPECT_EQ(Bsd(), "<12>Nov 20 21:10:53 host kernel: some text"); }

TEST_F(PayloadBuilder, BsdTimeIsLocal) {
  m_event.m_time = At(1'795'209'053s);
  struct {
    const char* m_pZone;
    const char* m_pTime;
  } const vectors[] = {{"UTC0", "Nov 20 21:10:53"},     {"ONE-1", "Nov 20 22:10:53"},   {"IST-5:30", "Nov 21 02:40:53"},
                       {"NPT-5:45", "Nov 21 02:55:53"}, {"NST3:30", "Nov 20 17:40:53"}, {"LIN-14", "Nov 21 11:10:53"}};
  for (const auto& vector : vectors) {
    const sorvex::test::ScopedTimeZone zone(vector.m_pZone);
    EXPECT_EQ(Bsd(), std::string("<12>") + vector.m_pTime + " host kernel: some text") << vector.m_pZone;
  }
}

TEST_F(PayloadBuilder, BsdDayChangesAtLocalMidnight) {
  const sorvex::test::ScopedTimeZone zone("IST-5:30");
  // 2026-12-31 18:29:59 UTC.
  m_event.m_time = At(1'798'741'799s) + 999'999us;
  EXPECT_EQ(Bsd(), "<12>Dec 31 23:59:59 host kernel: some text");
  m_event.m_time = At(1'798'741'800s);
  EXPECT_EQ(Bsd(), "<12>Jan  1 00:00:00 host kernel: some text");
}

TEST_F(PayloadBuilder, BsdTimeIsThatOfTheSeason) {
  const sorvex::test::ScopedTimeZone zone("EST5EDT");
  m_event.m_time = std::chrono::sys_days(std::chrono::year(2026) / 1 / 15);
  EXPECT_EQ(Bsd(), "<12>Jan 14 19:00:00 host kernel: some text");
  m_event.m_time = std::chrono::sys_days(std::chrono::year(2026) / 7 / 15);
  EXPECT_EQ(Bsd(), "<12>Jul 14 20:00:00 host kernel: some text");
}

TEST_F(PayloadBuilder, BsdHostHasNoDomain) {
  struct {
    const char* m_pHost;
    const char* m_pShown;
  } const vectors[] = {
      {"host", "host"},           {"host.example.org", "host"},   {"host.", "host"},
      {"192.0.2.7", "192.0.2.7"}, {"2001:db8::7", "2001:db8::7"}, {"::ffff:192.0.2.7", "::ffff:192.0.2.7"},
      {"7.example.org", "7"},     {".example.org", "-"}};
  for (const auto& vector : vectors) {
    m_event.m_strHost = vector.m_pHost;
    EXPECT_EQ(Bsd(), std::string("<12>Nov 20 21:10:53 ") + vector.m_pShown + " kernel: some text") << vector.m_pHost;
  }
}

TEST_F(PayloadBuilder, BsdPadsTheDayWithABlank) {
  m_event.m_time = At(951'868'800s);
  EXPECT_EQ(Bsd(), "<12>Mar  1 00:00:00 host kernel: some text");
}

TEST_F(PayloadBuilder, BsdKnowsEveryMonth) {
  const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  for (unsigned i = 0; i < 12; ++i) {
    m_event.m_time = std::chrono::sys_days(std::chrono::year(2024) / std::chrono::month(i + 1) / 15);
    EXPECT_EQ(Bsd(), std::string("<12>") + months[i] + " 15 00:00:00 host kernel: some text");
  }
}

TEST_F(PayloadBuilder, BsdTagHasLettersAndDigitsOnly) {
  m_event.m_strSource = "/var/log/my-app.2 \xC3\xA4.log";
  EXPECT_EQ(Bsd(), "<12>Nov 20 21:10:53 host myapp2log: some text");
}

TEST_F(PayloadBuilder, BsdTagIsCut) {
  m_event.m_strSource = std::string(40, 't');
  EXPECT_EQ(Bsd(), "<12>Nov 20 21:10:53 host " + std::string(32, 't') + ": some text");
}

TEST_F(PayloadBuilder, BsdTagOfANameWithoutLettersIsUnknown) {
  m_event.m_strSource = "---";
  EXPECT_EQ(Bsd(), "<12>Nov 20 21:10:53 host unknown: some text");
  m_event.m_strSource.clear();
  EXPECT_EQ(Bsd(), "<12>Nov 20 21:10:53 host unknown: some text");
}

TEST_F(PayloadBuilder, BsdReducesTheHost) {
  m_event.m_strHost = "my host";
  EXPECT_EQ(Bsd(), "<12>Nov 20 21:10:53 my_host kernel: some text");
  m_event.m_strHost.clear();
  EXPECT_EQ(Bsd(), "<12>Nov 20 21:10:53 - kernel: some text");
}

TEST_F(PayloadBuilder, BsdClampsTheLevel) {
  m_event.m_level = 99;
  EXPECT_EQ(Bsd().substr(0, 4), "<15>");
}

TEST_F(PayloadBuilder, LongestHeadFits) {
  m_event.m_level = 7;
  m_event.m_strHost.assign(1000, 'h');
  m_event.m_strSource.assign(1000, 's');
  m_event.m_strText.clear();
  EXPECT_EQ(Syslog().size(), 6U + 27 + 1 + 255 + 1 + 48 + 6);
  EXPECT_EQ(Bsd().size(), 4U + 15 + 1 + 255 + 1 + 32 + 2);
}

TEST_F(PayloadBuilder, RawIsTheText) {
  m_event.m_strText = "a\nb \xFF";
  EXPECT_EQ(Build("RawPayloadBuilder"), "a\nb \xFF");
}

TEST_F(PayloadBuilder, CapacityIsReused) {
  for (const char* typeName : {"SyslogPayloadBuilder", "SyslogBsdPayloadBuilder", "RawPayloadBuilder"}) {
    std::string payload;
    payload.reserve(4096);
    const char* const buffer = payload.data();
    Make(typeName)->BuildPayload(m_event, payload);
    EXPECT_EQ(payload.data(), buffer) << typeName;
  }
}

TEST_F(PayloadBuilder, OneBuilderServesManyThreads) {
  const std::shared_ptr<IPayloadBuilder> builder = Make("SyslogPayloadBuilder");
  std::vector<std::string> payloads(4);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < payloads.size(); ++i) {
    threads.emplace_back([&, i] {
      Event event = m_event;
      event.m_strText = "thread " + std::to_string(i);
      for (int j = 0; j < 200; ++j) builder->BuildPayload(event, payloads[i]);
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (std::size_t i = 0; i < payloads.size(); ++i) {
    EXPECT_EQ(payloads[i], "<12>1 2026-11-20T21:10:53.123456Z host.example kernel - - - thread " + std::to_string(i));
  }
}

TEST_F(PayloadBuilder, UnknownTypeLeavesTheBuilderAsItWas) {
  std::shared_ptr<IPayloadBuilder> builder = Make("RawPayloadBuilder");
  const std::shared_ptr<IPayloadBuilder> before = builder;
  EXPECT_FALSE(GetService<IPayloadFactory>()->CreatePayloadBuilder("rawpayloadbuilder", builder));
  EXPECT_FALSE(GetService<IPayloadFactory>()->CreatePayloadBuilder("", builder));
  EXPECT_EQ(builder, before);
}

}  // namespace
}  // namespace WindowsAgentCommon
