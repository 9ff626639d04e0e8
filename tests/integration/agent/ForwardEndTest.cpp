// The end of forwarding: an interrupt and --give-up-after with every kind of destination, at any moment.
#include "AgentFixture.h"
#include "support/BlackHole.h"
#include "support/LoopbackTlsServer.h"
#include "support/LoopbackUdpServer.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <tuple>
#include <variant>
#include <vector>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

enum class Kind {
  Live,
  LiveTls,
  LiveUdp,
  Refused,
  RefusedTls,
  RefusedUdp,
  BlackHoleTcp,
  BlackHoleTls,
  NeverReads,
  NeverReadsTls,
  NoHandshake
};
enum class Input { Endless, Short };
enum class End { Interrupt, GiveUp };

constexpr Kind allKinds[] = {Kind::Live,       Kind::LiveTls,       Kind::LiveUdp,      Kind::Refused,
                             Kind::RefusedTls, Kind::RefusedUdp,    Kind::BlackHoleTcp, Kind::BlackHoleTls,
                             Kind::NeverReads, Kind::NeverReadsTls, Kind::NoHandshake};
constexpr Kind deadKinds[] = {Kind::Refused,    Kind::RefusedTls,    Kind::BlackHoleTcp, Kind::BlackHoleTls,
                              Kind::NeverReads, Kind::NeverReadsTls, Kind::NoHandshake};

const char* NameOf(Kind kind) {
  switch (kind) {
    case Kind::Live: return "Live";
    case Kind::LiveTls: return "LiveTls";
    case Kind::LiveUdp: return "LiveUdp";
    case Kind::Refused: return "Refused";
    case Kind::RefusedTls: return "RefusedTls";
    case Kind::RefusedUdp: return "RefusedUdp";
    case Kind::BlackHoleTcp: return "BlackHole";
    case Kind::BlackHoleTls: return "BlackHoleTls";
    case Kind::NeverReads: return "NeverReads";
    case Kind::NeverReadsTls: return "NeverReadsTls";
    case Kind::NoHandshake: return "NoHandshake";
  }
  return "";
}

constexpr int smallBuffer = 65536;

/// A destination of one kind, with its server if any.
class Peer {
 public:
  explicit Peer(Kind kind) : m_kind(kind) {
    switch (kind) {
      case Kind::Live: Serve<LoopbackTcpServer>("tcp"); break;
      case Kind::LiveTls: Serve<LoopbackTlsServer>("tls"); break;
      case Kind::LiveUdp: Serve<LoopbackUdpServer>("udp", [](std::string_view) {}); break;
      case Kind::Refused: Serve<RefusingPort>("tcp"); break;
      case Kind::RefusedTls: Serve<RefusingPort>("tls"); break;
      case Kind::RefusedUdp: Name("udp", UnusedUdpPort()); break;
      case Kind::BlackHoleTcp: Serve<BlackHole>("tcp"); break;
      case Kind::BlackHoleTls: Serve<BlackHole>("tls"); break;
      case Kind::NeverReads: Serve<LoopbackTcpServer>("tcp", &Hold, 0, smallBuffer); break;
      case Kind::NeverReadsTls: {
        TlsServerOptions options;
        options.receiveBufferBytes = smallBuffer;
        Serve<LoopbackTlsServer>("tls", &HoldTls, options);
        break;
      }
      case Kind::NoHandshake: Serve<LoopbackTcpServer>("tls", &Hold); break;
    }
  }

  const std::string& Url() const { return m_url; }

 private:
  static void Hold(LoopbackTcpServer& server, ServerConnection&, int) { server.HoldUntilStopped(); }
  static void HoldTls(LoopbackTlsServer& server, TlsServerSession&, int) { server.HoldUntilStopped(); }

  template <class Server, class... Arguments>
  void Serve(const std::string& scheme, Arguments&&... arguments) {
    auto server = std::make_shared<Server>(std::forward<Arguments>(arguments)...);
    Name(scheme, server->Port());
    m_pServer = std::move(server);
  }

  void Name(const std::string& scheme, std::uint16_t port) { m_url = scheme + "://127.0.0.1:" + std::to_string(port); }

  Kind m_kind;
  std::string m_url;
  std::shared_ptr<void> m_pServer;
};

using Case = std::tuple<Kind, bool /* queued */, bool /* beside a live one */, Input>;

std::string CaseName(const testing::TestParamInfo<Case>& test) {
  const auto& [kind, queued, beside, input] = test.param;
  return std::string(NameOf(kind)) + (queued ? "Queued" : "Blocking") + (beside ? "BesideALiveOne" : "Alone") +
         (input == Input::Short ? "Short" : "Endless");
}

long Number(const std::string& block, const std::string& key) {
  const std::string value = Value(block, key);
  return value == "(absent)" ? -1 : std::stol(value);
}

/// Checks the counters of one destination.
void CheckCounters(const std::string& block, long eventsRead) {
  EXPECT_EQ(Number(block, "messages-submitted"),
            Number(block, "messages-sent") + Number(block, "messages-dropped") + Number(block, "refused"))
      << block;
  EXPECT_EQ(eventsRead, Number(block, "messages-sent") + Number(block, "messages-dropped") + Number(block, "unsent"))
      << block;
  EXPECT_EQ(Number(block, "queue-size"), 0) << block;
}

void CheckAllCounters(const std::string& output, const std::vector<std::string>& urls) {
  const long eventsRead = Number(output, "events-read");
  EXPECT_GE(eventsRead, 0);
  if (urls.size() == 1) {
    CheckCounters(output, eventsRead);
    return;
  }
  for (const std::string& url : urls) {
    const std::string block = BlockOf(output, url);
    EXPECT_NE(block, "") << url;
    CheckCounters(block, eventsRead);
  }
}

class AgentForwardEnd : public testing::TestWithParam<Case> {
 protected:
  AgentForwardEnd() : m_peer(std::get<0>(GetParam())), m_live(Kind::Live) {
    m_urls.push_back(m_peer.Url());
    if (std::get<2>(GetParam())) m_urls.push_back(m_live.Url());
  }

  /// Either more lines than a destination that accepts nothing can buffer in its socket and the agent, or only two.
  /// Standard input, which follows, stays open.
  std::unique_ptr<ChildProcess> Start(std::vector<std::string> further) {
    std::string lines = "one\ntwo\n";
    if (std::get<3>(GetParam()) == Input::Endless) {
      while (lines.size() < 16'000'000) lines += std::string(999, 'x') + "\n";
    }
    const std::string file = m_installation.Directory().Write("input.log", lines).string();
    further.insert(further.end(), {file, "-"});
    if (std::get<1>(GetParam())) further.emplace_back("--queued");
    if (m_peer.Url().starts_with("tls")) {
      const std::string pem = ServerIdentity().CertificatePem();
      further.insert(further.end(), {"--certificate", m_installation.Directory().Write("a.pem", pem).string()});
    }
    std::vector<std::string> arguments = m_installation.Arguments(ForwardTo(m_urls, further));
    arguments.insert(arguments.begin(), {"--log-level", "info"});
    return std::make_unique<ChildProcess>(SORVEX_AGENT_PROGRAM, arguments);
  }

  Peer m_peer;
  Peer m_live;
  std::vector<std::string> m_urls;
  Installation m_installation;
};

using AgentForwardTermination = AgentForwardEnd;

/// Seconds within which the program ends after an interrupt, and as many again for a busy machine.
constexpr auto interruptLimit = 3s + 3s;

/// The time a live destination may need for all of the input.
constexpr auto liveLimit = 20s;

TEST_P(AgentForwardTermination, EndsItWithCounters) {
  const std::unique_ptr<ChildProcess> agent = Start({});
  // From here on the agent handles interrupts.
  ASSERT_TRUE(WaitUntil([&] { return agent->Errors().find("'stand-alone' mode") != std::string::npos; }));
  // Whatever state it is in by now: connecting, the handshake, a blocked write, a full queue, waiting for input.
  EXPECT_EQ(agent->Wait(500ms), std::nullopt);
  agent->RequestEnd();
  EXPECT_EQ(agent->Wait(interruptLimit), 1);
  CheckAllCounters(agent->Output(), m_urls);
}

INSTANTIATE_TEST_SUITE_P(Kinds, AgentForwardTermination,
                         testing::Combine(testing::ValuesIn(allKinds), testing::Bool(), testing::Bool(),
                                          testing::Values(Input::Endless)),
                         CaseName);
INSTANTIATE_TEST_SUITE_P(Idle, AgentForwardTermination,
                         testing::Combine(testing::Values(Kind::Live, Kind::Refused, Kind::BlackHoleTcp),
                                          testing::Bool(), testing::Values(false), testing::Values(Input::Short)),
                         CaseName);

using AgentForwardGiveUp = AgentForwardEnd;

TEST_P(AgentForwardGiveUp, EndsItWithCounters) {
  const std::unique_ptr<ChildProcess> agent = Start({"--give-up-after", "1"});
  // A live destination makes the program wait for its input and needs time to receive it.
  const bool isBesideALiveOne = std::get<2>(GetParam());
  if (isBesideALiveOne) agent->CloseInput();
  EXPECT_EQ(agent->Wait(1s + interruptLimit + (isBesideALiveOne ? liveLimit : 0s)), 1) << agent->Errors();
  CheckAllCounters(agent->Output(), m_urls);
  EXPECT_THAT(agent->Errors(), testing::ContainsRegex(m_peer.Url() + ": .*nothing could be sent for 1 seconds"));
}

INSTANTIATE_TEST_SUITE_P(Kinds, AgentForwardGiveUp,
                         testing::Combine(testing::ValuesIn(deadKinds), testing::Bool(), testing::Bool(),
                                          testing::Values(Input::Endless)),
                         CaseName);
INSTANTIATE_TEST_SUITE_P(Udp, AgentForwardGiveUp,
                         testing::Combine(testing::Values(Kind::RefusedUdp), testing::Bool(), testing::Bool(),
                                          testing::Values(Input::Endless)),
                         CaseName);
INSTANTIATE_TEST_SUITE_P(Idle, AgentForwardGiveUp,
                         testing::Combine(testing::Values(Kind::Refused, Kind::BlackHoleTcp, Kind::NoHandshake),
                                          testing::Bool(), testing::Values(false), testing::Values(Input::Short)),
                         CaseName);

using AgentForwardDead = AgentForwardEnd;

TEST_P(AgentForwardDead, DoesNotKeepTheOthersFromEnding) {
  const std::unique_ptr<ChildProcess> agent = Start({});
  agent->CloseInput();
  EXPECT_EQ(agent->Wait(20s), 1);
  CheckAllCounters(agent->Output(), m_urls);
  EXPECT_EQ(Value(BlockOf(agent->Output(), m_urls.back()), "unsent"), "0");
}

INSTANTIATE_TEST_SUITE_P(Kinds, AgentForwardDead,
                         testing::Combine(testing::ValuesIn(deadKinds), testing::Values(true), testing::Values(true),
                                          testing::Values(Input::Endless)),
                         CaseName);
// Two lines go to one that never reads: the system buffers them.
INSTANTIATE_TEST_SUITE_P(Unconnected, AgentForwardDead,
                         testing::Combine(testing::Values(Kind::Refused, Kind::BlackHoleTcp, Kind::NoHandshake),
                                          testing::Values(true), testing::Values(true), testing::Values(Input::Short)),
                         CaseName);
INSTANTIATE_TEST_SUITE_P(Udp, AgentForwardDead,
                         testing::Combine(testing::Values(Kind::RefusedUdp), testing::Values(true),
                                          testing::Values(true), testing::Values(Input::Endless)),
                         CaseName);

TEST(AgentForward, SeveralDeadDestinationsAreGivenUpTogether) {
  for (const bool queued : {false, true}) {
    const Peer first(Kind::BlackHoleTcp);
    const Peer second(Kind::BlackHoleTcp);
    const Peer third(Kind::BlackHoleTcp);
    const Installation installation;
    std::vector<std::string> further{"--give-up-after", "3"};
    if (queued) further.emplace_back("--queued");
    const SteadyClock::time_point begin = SteadyClock::now();
    ChildProcess agent(SORVEX_AGENT_PROGRAM,
                       installation.Arguments(ForwardTo({first.Url(), second.Url(), third.Url()}, further)));
    // One after the other would take at least nine seconds.
    EXPECT_EQ(agent.Wait(8500ms), 1) << std::chrono::duration<double>(SteadyClock::now() - begin).count();
  }
}

}  // namespace
}  // namespace sorvex::test
