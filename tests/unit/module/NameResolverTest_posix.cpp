// What happens to requests to the resolver, and to sockets that make them. The resolver itself is scripted here.
#include "platform/NameResolver.h"
#include "sockets/TCPRawSocket.h"

#include <support/LoopbackTcpServer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include <algorithm>
#include <cerrno>
#include <vector>

namespace {

/// What the scripted resolver does, and its requests.
struct FakeResolver {
  int m_submitCode = 0;
  int m_cancelCode = EAI_NOTCANCELED;
  int m_answerCode = EAI_INPROGRESS;
  int m_pollsUntilAnswer = 0;      ///< 0: never
  const char* m_answer = nullptr;  ///< an address, if there is one
  int m_submits = 0;
  int m_polls = 0;
  int m_cancels = 0;
  gaicb* m_pRequest = nullptr;  ///< the request, as the resolver's own threads keep it
  long m_longestSliceNs = 0;
};

FakeResolver resolver;

/// Every request ever made: the real resolver may read one that was given up as long as it likes. Never destroyed, so
/// that a leak checker finds them.
std::vector<gaicb*>& Asked() {
  static auto& asked = *new std::vector<gaicb*>;
  return asked;
}

}  // namespace

// These replace the C library's in this program.
extern "C" {

int getaddrinfo_a(int, gaicb** list, int, sigevent*) {
  ++resolver.m_submits;
  resolver.m_pRequest = list[0];
  Asked().push_back(list[0]);
  if (resolver.m_answer) getaddrinfo(resolver.m_answer, list[0]->ar_service, list[0]->ar_request, &list[0]->ar_result);
  return resolver.m_submitCode;
}

int gai_error(gaicb*) noexcept {
  ++resolver.m_polls;
  if (resolver.m_pollsUntilAnswer != 0 && resolver.m_polls >= resolver.m_pollsUntilAnswer) return resolver.m_answerCode;
  return EAI_INPROGRESS;
}

int gai_suspend(const gaicb* const*, int, const timespec* slice) {
  resolver.m_longestSliceNs = std::max(resolver.m_longestSliceNs, slice->tv_sec * 1'000'000'000 + slice->tv_nsec);
  return EAI_AGAIN;
}

int gai_cancel(gaicb*) noexcept {
  ++resolver.m_cancels;
  return resolver.m_cancelCode;
}

}  // extern "C"

namespace {

using testing::IsEmpty;
using VaroCommunicationAPI::Platform::AddressFamily;
using VaroCommunicationAPI::Platform::ResolvedHost;
using VaroCommunicationAPI::Platform::ResolveHost;

class NameResolver : public testing::Test {
 protected:
  NameResolver() { resolver = {}; }

  ResolvedHost Resolve(int interruptedAfter) {
    return ResolveHost(L"host.example", 514, AddressFamily::Any,
                       [this, interruptedAfter] { return ++m_questions > interruptedAfter; });
  }

  int m_questions = 0;
};

TEST_F(NameResolver, GivesUpWhenInterrupted) {
  const ResolvedHost resolved = Resolve(3);
  EXPECT_EQ(resolved.m_error.Number(), 10004);
  EXPECT_THAT(resolved.m_addresses, IsEmpty());
  EXPECT_EQ(m_questions, 4);
  EXPECT_EQ(resolver.m_cancels, 1);
}

TEST_F(NameResolver, LooksForInterruptionTenTimesSecondOrMore) {
  Resolve(3);
  EXPECT_GT(resolver.m_longestSliceNs, 0);
  EXPECT_LE(resolver.m_longestSliceNs, 100'000'000);
}

TEST_F(NameResolver, LeavesQuestionToResolverThatStillAsksIt) {
  Resolve(0);
  // It may still be read; a memory checker would object otherwise.
  EXPECT_STREQ(resolver.m_pRequest->ar_name, "host.example");
  EXPECT_STREQ(resolver.m_pRequest->ar_service, "514");
}

TEST_F(NameResolver, TakesBackQuestionThatWasNotAskedYet) {
  resolver.m_cancelCode = EAI_CANCELED;
  EXPECT_EQ(Resolve(0).m_error.Number(), 10004);
}

TEST_F(NameResolver, WaitsForAnswer) {
  resolver.m_pollsUntilAnswer = 4;
  resolver.m_answerCode = EAI_NONAME;
  EXPECT_EQ(Resolve(100).m_error.Number(), 11001);
  EXPECT_EQ(m_questions, 3);
  EXPECT_EQ(resolver.m_cancels, 0);
}

TEST_F(NameResolver, TellsThatResolverTakesNoQuestion) {
  resolver.m_submitCode = EAI_AGAIN;
  EXPECT_EQ(Resolve(100).m_error.Number(), 11002);
}

struct Codes {
  int resolver;
  int caller;
};

void PrintTo(const Codes& codes, std::ostream* out) { *out << codes.resolver; }

class NameResolverCode : public NameResolver, public testing::WithParamInterface<Codes> {};

TEST_P(NameResolverCode, IsConverted) {
  resolver.m_pollsUntilAnswer = 1;
  resolver.m_answerCode = GetParam().resolver;
  EXPECT_EQ(Resolve(100).m_error.Number(), GetParam().caller);
}

INSTANTIATE_TEST_SUITE_P(Codes, NameResolverCode,
                         testing::Values(Codes{EAI_NONAME, 11001}, Codes{EAI_NODATA, 11001}, Codes{EAI_AGAIN, 11002},
                                         Codes{EAI_FAIL, 11003}, Codes{EAI_FAMILY, 11001}, Codes{EAI_MEMORY, 11002},
                                         Codes{EAI_SYSTEM, 11002}));

TEST_F(NameResolver, DoesNotReportNumberOfCallersOwnThread) {
  resolver.m_pollsUntilAnswer = 1;
  resolver.m_answerCode = EAI_SYSTEM;
  for (const int unrelated : {0, EACCES}) {
    errno = unrelated;
    EXPECT_EQ(Resolve(100).m_error.Number(), 11002);
  }
}

TEST_F(NameResolver, WithoutAddressInAnswerFindsNothing) {
  resolver.m_pollsUntilAnswer = 1;
  resolver.m_answerCode = 0;
  EXPECT_EQ(Resolve(100).m_error.Number(), 11001);
}

TEST_F(NameResolver, IsNotAskedForLiteralAddress) {
  EXPECT_EQ(ResolveHost(L"127.0.0.1", 514, AddressFamily::Any, [] { return true; }).m_error.Number(), 0);
  EXPECT_EQ(resolver.m_pRequest, nullptr);
}

TEST_F(NameResolver, ThatFailsLeavesRawSocketUnconnected) {
  resolver.m_pollsUntilAnswer = 1;
  resolver.m_answerCode = EAI_SYSTEM;
  errno = 0;
  VaroCommunicationAPI::TCPRawSocket socket;
  socket.Open(L"host.example", 514);
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_EQ(socket.GetLastResultCode(), 11002);
}

TEST_F(NameResolver, IsAskedOnceForAddressesThatRawSocketKeeps) {
  resolver.m_pollsUntilAnswer = 1;
  resolver.m_answerCode = 0;
  resolver.m_answer = "127.0.0.1";
  sorvex::test::LoopbackTcpServer server;
  VaroCommunicationAPI::TCPRawSocket socket;
  socket.Open(L"host.example", server.Port());
  EXPECT_TRUE(socket.Connect());
  EXPECT_EQ(resolver.m_submits, 1);
  socket.Open(L"other.example", server.Port());
  EXPECT_TRUE(socket.IsConnected());
  EXPECT_EQ(resolver.m_submits, 2);
}

TEST_F(NameResolver, IsAskedOnceByEachOpenAndConnectOfRawSocket) {
  resolver.m_pollsUntilAnswer = 1;
  resolver.m_answerCode = EAI_NONAME;
  VaroCommunicationAPI::TCPRawSocket socket;
  socket.Open(L"host.example", 514);
  EXPECT_EQ(resolver.m_submits, 1);
  socket.Connect();
  EXPECT_EQ(resolver.m_submits, 2);
  socket.Open(L"other.example", 514);
  EXPECT_EQ(resolver.m_submits, 3);
}

}  // namespace
