#include <StatusReport.h>
#include <platform/Platform.h>

#include "support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <system_error>

namespace sorvex::agent {

// The program's own function, which this test does not link.
long GetProcessNumber() { return 4711; }

namespace {

using namespace std::chrono_literals;
using test::TemporaryDirectory;
using testing::HasSubstr;
using testing::Not;

constexpr WallTime now{std::chrono::seconds(1795209053)};

TEST(TimeText, IsUtc) {
  EXPECT_EQ(TimeText(now), "2026-11-20T21:10:53Z");
  EXPECT_EQ(TimeText(WallTime{}), "1970-01-01T00:00:00Z");
  EXPECT_EQ(TimeText(now + 999ms), TimeText(now));
}

StatusReport Report() {
  StatusReport report;
  report.started = now;
  report.mode = "direct-tls";
  report.server = "server";
  report.digest = "abc";
  report.applied = now + 1s;
  report.destinations.push_back({"tcp://a:1", 10, 9, 1, 2, 0, true, now});
  report.destinations.push_back({"udp://longer-name:514", 10, 0, 10, 0, 0, false, std::nullopt});
  return report;
}

TEST(FormatStatus, ShowsAll) {
  StatusReport report = Report();
  report.connection.emplace();
  report.connection->isRegistered = true;
  report.connection->reached = now;
  EXPECT_EQ(FormatStatus(report),
            "agent           process 4711, since 2026-11-20T21:10:53Z\n"
            "mode            direct-tls\n"
            "configuration   abc, applied 2026-11-20T21:10:54Z\n"
            "server          server\n"
            "connection      in order, last used 2026-11-20T21:10:53Z\n"
            "registered      yes\n"
            "\n"
            "destination            submitted  sent  queued  truncated  dropped  connected since\n"
            "tcp://a:1                     10     9       1          2        0  2026-11-20T21:10:53Z\n"
            "udp://longer-name:514         10     0      10          0        0  not connected\n");
}

TEST(FormatStatus, ShowsWhatIsWrong) {
  StatusReport report;
  report.refused = "line 3: x\ny";
  report.connection.emplace();
  report.connection->awaySince = now;
  report.connection->errorCode = -7;
  report.connection->errorText = "no\tserver";
  const std::string text = FormatStatus(report);
  EXPECT_THAT(text, HasSubstr("\nconfiguration   none\n"));
  EXPECT_THAT(text, HasSubstr("\nrefused         line 3: x\\ny\n"));
  EXPECT_THAT(text, HasSubstr("\nconnection      failing since 2026-11-20T21:10:53Z\n"));
  EXPECT_THAT(text, HasSubstr("\nregistered      no\n"));
  EXPECT_THAT(text, HasSubstr("\nlast-error      -7 no\\tserver\n"));
}

TEST(FormatStatus, KnowsNothingOfAServerThatIsNotThere) {
  EXPECT_THAT(FormatStatus(StatusReport{}), Not(HasSubstr("connection ")));
  EXPECT_THAT(FormatStatus(StatusReport{}), Not(HasSubstr("\nserver")));
  StatusReport report;
  report.connection.emplace();
  EXPECT_THAT(FormatStatus(report), HasSubstr("\nconnection      not used yet\n"));
}

TEST(FormatStatus, FailureCountsAlsoWhereItWentWellBefore) {
  StatusReport report;
  report.connection.emplace();
  report.connection->reached = now;
  report.connection->awaySince = now + 1s;
  EXPECT_THAT(FormatStatus(report), HasSubstr("\nconnection      failing since 2026-11-20T21:10:54Z\n"));
}

TEST(FormatStatus, DestinationIsOneLineWhateverItsAddress) {
  StatusReport report;
  report.destinations.push_back({"tcp://a\nb:1", 1, 2, 3, 4, 5, true, std::nullopt});
  EXPECT_THAT(FormatStatus(report), HasSubstr("\ntcp://a\\nb:1"));
  EXPECT_THAT(FormatStatus(report), HasSubstr("  1     2       3          4        5  open\n"));
}

TEST(FormatStatistics, IsOneLine) {
  EXPECT_EQ(FormatStatistics(Report().destinations[0]),
            "tcp://a:1: submitted 10, sent 9, queued 1, truncated 2, dropped 0, connected since 2026-11-20T21:10:53Z");
}

TEST(StatusFileTest, IsWrittenWhenItHasChangedAndOnceAMinute) {
  const TemporaryDirectory directory;
  const auto content = [&] { return TemporaryDirectory::Read(directory.Path() / "status"); };
  StatusFile file(directory.Path());
  file.Write("one\n", now);
  EXPECT_EQ(content(), "1795209053\none\n");
  file.Write("one\n", now + 59s);
  EXPECT_EQ(content(), "1795209053\none\n");
  file.Write("one\n", now + 60s);
  EXPECT_EQ(content(), "1795209113\none\n");
  file.Write("two\n", now + 61s);
  EXPECT_EQ(content(), "1795209114\ntwo\n");
  // The clock was set back.
  file.Write("two\n", now);
  EXPECT_EQ(content(), "1795209053\ntwo\n");
  file.Remove();
  EXPECT_EQ(content(), "");
}

TEST(StatusFileTest, IsWrittenAnewAfterAFailure) {
  const TemporaryDirectory directory;
  const std::filesystem::path folder = directory.Path() / "state";
  StatusFile file(folder);
  EXPECT_THROW(file.Write("one\n", now), std::system_error);
  std::filesystem::create_directory(folder);
  file.Write("one\n", now + 1s);
  EXPECT_EQ(TemporaryDirectory::Read(folder / "status"), "1795209054\none\n");
}

}  // namespace
}  // namespace sorvex::agent
