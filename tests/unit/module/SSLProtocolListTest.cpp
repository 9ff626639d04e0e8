// The range of TLS versions: texts, messages, and what a context really negotiates.
#include "support/RecordingLogger.h"

#include <CommunicationAPI/SSLProtocolList.h>

#include <ace/SSL/SSL_Context.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <cstdint>
#include <memory>
#include <string>

namespace {

using sorvex::test::RecordingLogger;
using testing::ElementsAre;
using testing::IsEmpty;
using VaroCommunicationAPI::SSLProtocolList;

constexpr const char* minimumMissing = "Error The minimum SSL protocol is not specified.";
constexpr const char* maximumMissing = "Error The maximum SSL protocol is not specified.";

/// Options by version, in the order TLS 1.0, 1.1, 1.2.
constexpr std::uint64_t versionOptions[] = {SSL_OP_NO_TLSv1, SSL_OP_NO_TLSv1_1, SSL_OP_NO_TLSv1_2};
constexpr std::uint64_t allVersionOptions =
    SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1 | SSL_OP_NO_TLSv1_2 | SSL_OP_NO_TLSv1_3;

/// A new client context to which `list` has been applied.
class AppliedContext {
 public:
  explicit AppliedContext(const SSLProtocolList& list) {
    m_context.set_mode(ACE_SSL_Context::SSLv23_client);
    list.applyTo(m_context);
  }

  SSL_CTX* Get() { return m_context.context(); }
  std::uint64_t DisabledVersions() { return SSL_CTX_get_options(Get()) & allVersionOptions; }

 private:
  ACE_SSL_Context m_context;
};

class SSLProtocolListRange : public testing::Test {
 protected:
  bool SetRange(const std::string& min, const std::string& max) {
    return m_list.setRange(min, max, WindowsAgentCommon::LoggerFactory::GetLogger("Test"));
  }
  std::uint64_t DisabledVersions() const { return AppliedContext(m_list).DisabledVersions(); }

  RecordingLogger m_log;
  SSLProtocolList m_list;
};

constexpr std::uint64_t defaultDisabled = SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1_3;

TEST_F(SSLProtocolListRange, IsTls10ToTls12WhenNew) { EXPECT_EQ(DisabledVersions(), defaultDisabled); }

TEST_F(SSLProtocolListRange, RefusesTwoEmptyTextsWithTwoMessages) {
  EXPECT_FALSE(SetRange("", ""));
  EXPECT_THAT(m_log->Lines(), ElementsAre(minimumMissing, maximumMissing));
}

TEST_F(SSLProtocolListRange, TakesWhiteSpaceForEmpty) {
  EXPECT_FALSE(SetRange(" \t\n", "\r\v\f"));
  EXPECT_THAT(m_log->Lines(), ElementsAre(minimumMissing, maximumMissing));
}

TEST_F(SSLProtocolListRange, RefusesEmptyMinimumWithKnownMaximum) {
  EXPECT_FALSE(SetRange("", "TLSv1.2"));
  EXPECT_THAT(m_log->Lines(), ElementsAre(minimumMissing));
}

TEST_F(SSLProtocolListRange, RefusesEmptyMinimumWithoutLookingAtMaximum) {
  EXPECT_FALSE(SetRange("", "nonsense"));
  EXPECT_THAT(m_log->Lines(), ElementsAre(minimumMissing));
}

TEST_F(SSLProtocolListRange, RefusesEmptyMaximumWithKnownMinimum) {
  EXPECT_FALSE(SetRange("TLSv1", ""));
  EXPECT_THAT(m_log->Lines(), ElementsAre(maximumMissing));
}

TEST_F(SSLProtocolListRange, RefusesEmptyMaximumWithoutLookingAtMinimum) {
  EXPECT_FALSE(SetRange("nonsense", ""));
  EXPECT_THAT(m_log->Lines(), ElementsAre(maximumMissing));
}

TEST_F(SSLProtocolListRange, RefusesTwoUnknownTextsWithTwoMessages) {
  EXPECT_FALSE(SetRange("SSLv2", "TLS Version 1"));
  EXPECT_THAT(m_log->Lines(), ElementsAre("Error The minimum SSL protocol (SSLv2) is unrecognized.",
                                          "Error The maximum SSL protocol (TLS Version 1) is unrecognized."));
}

TEST_F(SSLProtocolListRange, RefusesUnknownMinimum) {
  EXPECT_FALSE(SetRange("SSLv3", "TLSv1.2"));
  EXPECT_THAT(m_log->Lines(), ElementsAre("Error The minimum SSL protocol (SSLv3) is unrecognized."));
}

TEST_F(SSLProtocolListRange, RefusesUnknownMaximum) {
  EXPECT_FALSE(SetRange("TLSv1", "TLSv1.3"));
  EXPECT_THAT(m_log->Lines(), ElementsAre("Error The maximum SSL protocol (TLSv1.3) is unrecognized."));
}

TEST_F(SSLProtocolListRange, QuotesTrimmedTextsAsTheyStand) {
  EXPECT_FALSE(SetRange("  tlsV9 ", "\tSSLv2\r\n"));
  EXPECT_THAT(m_log->Lines(), ElementsAre("Error The minimum SSL protocol (tlsV9) is unrecognized.",
                                          "Error The maximum SSL protocol (SSLv2) is unrecognized."));
}

TEST_F(SSLProtocolListRange, RefusesTextThatOnlyBeginsWithKnownOne) {
  EXPECT_FALSE(SetRange("TLSv1.", "TLSv1.2.1"));
  EXPECT_THAT(m_log->Lines(), ElementsAre("Error The minimum SSL protocol (TLSv1.) is unrecognized.",
                                          "Error The maximum SSL protocol (TLSv1.2.1) is unrecognized."));
}

TEST_F(SSLProtocolListRange, RefusesTextThatKnownOneBeginsWith) {
  EXPECT_FALSE(SetRange("TLS", "TLSv1.2"));
  EXPECT_THAT(m_log->Lines(), ElementsAre("Error The minimum SSL protocol (TLS) is unrecognized."));
}

TEST_F(SSLProtocolListRange, RefusesBlankInside) {
  EXPECT_FALSE(SetRange("TLS v1", "TLSv1.2"));
  EXPECT_THAT(m_log->Lines(), ElementsAre("Error The minimum SSL protocol (TLS v1) is unrecognized."));
}

TEST_F(SSLProtocolListRange, RefusesZeroByteInside) { EXPECT_FALSE(SetRange(std::string("TLSv1\0", 6), "TLSv1.2")); }

TEST_F(SSLProtocolListRange, RefusesMinimumAboveMaximumQuotingBoth) {
  EXPECT_FALSE(SetRange(" TLSv1.2 ", "tlsv1"));
  EXPECT_THAT(m_log->Lines(),
              ElementsAre("Error The minimum SSL protocol (TLSv1.2) is higher than the maximum SSL protocol (tlsv1)."));
}

TEST_F(SSLProtocolListRange, StaysAsItWasAfterRefusal) {
  SetRange("TLSv1.2", "TLSv1");
  EXPECT_EQ(DisabledVersions(), defaultDisabled);
}

TEST_F(SSLProtocolListRange, StaysNarrowedAfterEachKindOfRefusal) {
  ASSERT_TRUE(SetRange("TLSv1.1", "TLSv1.1"));
  const std::uint64_t narrowed = DisabledVersions();
  for (const auto& [min, max] :
       {std::pair("", ""), {"TLSv1", ""}, {"x", "TLSv1"}, {"TLSv1", "x"}, {"TLSv1.1", "TLSv1"}}) {
    EXPECT_FALSE(SetRange(min, max));
    EXPECT_EQ(DisabledVersions(), narrowed) << min << " to " << max;
  }
}

TEST_F(SSLProtocolListRange, TakesTextsInAnyCaseSilently) {
  EXPECT_TRUE(SetRange("tlsv1", "tlsv1.2"));
  EXPECT_EQ(DisabledVersions(), defaultDisabled);
  EXPECT_THAT(m_log->Lines(), IsEmpty());
}

TEST_F(SSLProtocolListRange, TakesTextsWithBlanksAroundThemSilently) {
  EXPECT_TRUE(SetRange("  TLSv1  ", "  TLSv1.2  "));
  EXPECT_EQ(DisabledVersions(), defaultDisabled);
  EXPECT_THAT(m_log->Lines(), IsEmpty());
}

TEST_F(SSLProtocolListRange, TakesEveryWhiteSpaceAroundText) {
  EXPECT_TRUE(SetRange(" \t\n\v\f\rTLSv1.2\r\f\v\n\t ", "TLSV1.2"));
}

TEST_F(SSLProtocolListRange, CanBeWidenedAgain) {
  SetRange("TLSv1.2", "TLSv1.2");
  EXPECT_TRUE(SetRange("TLSv1", "TLSv1.2"));
  EXPECT_EQ(DisabledVersions(), defaultDisabled);
}

TEST_F(SSLProtocolListRange, IsCopied) {
  SetRange("TLSv1.2", "TLSv1.2");
  const SSLProtocolList copy(m_list);
  SetRange("TLSv1", "TLSv1");
  EXPECT_EQ(AppliedContext(copy).DisabledVersions() & SSL_OP_NO_TLSv1_2, 0U);
}

TEST_F(SSLProtocolListRange, IsAssigned) {
  SetRange("TLSv1.1", "TLSv1.1");
  SSLProtocolList copy;
  SSLProtocolList& result = copy = m_list;
  EXPECT_EQ(&result, &copy);
  EXPECT_EQ(AppliedContext(copy).DisabledVersions(), DisabledVersions());
}

struct Range {
  int min;  ///< 0 for TLS 1.0 to 2 for TLS 1.2
  int max;
};

constexpr Range ranges[] = {{0, 0}, {1, 1}, {2, 2}, {0, 1}, {1, 2}, {0, 2}};

void PrintTo(const Range& range, std::ostream* out) { *out << "TLS 1." << range.min << " to TLS 1." << range.max; }

SSLProtocolList MakeList(const Range& range) {
  static constexpr const char* texts[] = {"TLSv1", "TLSv1.1", "TLSv1.2"};
  SSLProtocolList list;
  EXPECT_TRUE(list.setRange(texts[range.min], texts[range.max], WindowsAgentCommon::Log()));
  return list;
}

class SSLProtocolListContext : public testing::TestWithParam<Range> {};

TEST_P(SSLProtocolListContext, DisablesExactlyVersionsOutsideTheRange) {
  std::uint64_t expected = SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1_3;
  for (int version = 0; version < 3; ++version) {
    if (version < GetParam().min || version > GetParam().max) expected |= versionOptions[version];
  }
  EXPECT_EQ(AppliedContext(MakeList(GetParam())).DisabledVersions(), expected);
}

TEST_P(SSLProtocolListContext, KeepsOptionsSetForOtherPurposes) {
  ACE_SSL_Context context;
  context.set_mode(ACE_SSL_Context::SSLv23_client);
  SSL_CTX_set_options(context.context(), SSL_OP_NO_TICKET | SSL_OP_CIPHER_SERVER_PREFERENCE);
  const std::uint64_t before = SSL_CTX_get_options(context.context());
  MakeList(GetParam()).applyTo(context);
  EXPECT_EQ(SSL_CTX_get_options(context.context()) & ~allVersionOptions, before & ~allVersionOptions);
}

TEST_P(SSLProtocolListContext, EnablesVersionsThatWereDisabledBefore) {
  ACE_SSL_Context context;
  context.set_mode(ACE_SSL_Context::SSLv23_client);
  SSL_CTX_set_options(context.context(), allVersionOptions);
  const SSLProtocolList list = MakeList(GetParam());
  list.applyTo(context);
  EXPECT_EQ(SSL_CTX_get_options(context.context()) & allVersionOptions, AppliedContext(list).DisabledVersions());
}

TEST_P(SSLProtocolListContext, LowersSecurityLevelOnlyForVersionsThatNeedIt) {
  const std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> fresh(SSL_CTX_new(TLS_client_method()), &SSL_CTX_free);
  AppliedContext context(MakeList(GetParam()));
  EXPECT_EQ(SSL_CTX_get_security_level(context.Get()),
            GetParam().min < 2 ? 0 : SSL_CTX_get_security_level(fresh.get()));
}

TEST_P(SSLProtocolListContext, LeavesOtherContextsAlone) {
  ACE_SSL_Context other;
  other.set_mode(ACE_SSL_Context::SSLv23_client);
  const std::uint64_t options = SSL_CTX_get_options(other.context());
  const int level = SSL_CTX_get_security_level(other.context());
  const AppliedContext context(MakeList(GetParam()));
  EXPECT_EQ(SSL_CTX_get_options(other.context()), options);
  EXPECT_EQ(SSL_CTX_get_security_level(other.context()), level);
}

INSTANTIATE_TEST_SUITE_P(Ranges, SSLProtocolListContext, testing::ValuesIn(ranges));

/// A server that speaks one version only.
class OneVersionPeer {
 public:
  explicit OneVersionPeer(int version) {
    SSL_CTX_set_min_proto_version(m_context.get(), version);
    SSL_CTX_set_max_proto_version(m_context.get(), version);
    SSL_CTX_set_security_level(m_context.get(), 0);
    EVP_PKEY* const key = Key();
    const std::unique_ptr<X509, void (*)(X509*)> certificate(X509_new(), &X509_free);
    X509_set_version(certificate.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
    X509_set_pubkey(certificate.get(), key);
    X509_sign(certificate.get(), key, EVP_sha256());
    SSL_CTX_use_certificate(m_context.get(), certificate.get());
    SSL_CTX_use_PrivateKey(m_context.get(), key);
  }

  /// Does a handshake with a client of `clientContext` in memory. Returns the version negotiated, 0 for none.
  int Negotiate(SSL_CTX* clientContext) {
    using Connection = std::unique_ptr<SSL, void (*)(SSL*)>;
    const Connection server(SSL_new(m_context.get()), &SSL_free);
    const Connection client(SSL_new(clientContext), &SSL_free);
    BIO* serverSide = nullptr;
    BIO* clientSide = nullptr;
    BIO_new_bio_pair(&serverSide, 0, &clientSide, 0);
    SSL_set_bio(server.get(), serverSide, serverSide);
    SSL_set_bio(client.get(), clientSide, clientSide);
    SSL_set_accept_state(server.get());
    SSL_set_connect_state(client.get());
    constexpr int enoughRounds = 20;
    for (int round = 0; round < enoughRounds; ++round) {
      const int clientResult = SSL_do_handshake(client.get());
      const int serverResult = SSL_do_handshake(server.get());
      if (clientResult == 1 && serverResult == 1) return SSL_version(client.get());
      if (SSL_get_error(client.get(), clientResult) == SSL_ERROR_SSL) return 0;
    }
    return 0;
  }

 private:
  static EVP_PKEY* Key() {
    static EVP_PKEY* const key = EVP_RSA_gen(2048);
    return key;
  }

  std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> m_context{SSL_CTX_new(TLS_server_method()), &SSL_CTX_free};
};

/// A range of the client and the one version of its peer, 0 for TLS 1.0 to 3 for TLS 1.3.
class SSLProtocolListHandshake : public testing::TestWithParam<std::tuple<Range, int>> {
 protected:
  static Range ClientRange() { return std::get<0>(GetParam()); }
  static int PeerMinor() { return std::get<1>(GetParam()); }
  static int PeerVersion() { return TLS1_VERSION + PeerMinor(); }
  static int Expected() {
    return ClientRange().min <= PeerMinor() && PeerMinor() <= ClientRange().max ? PeerVersion() : 0;
  }
};

TEST_P(SSLProtocolListHandshake, SucceedsExactlyWithinTheRange) {
  AppliedContext client(MakeList(ClientRange()));
  EXPECT_EQ(OneVersionPeer(PeerVersion()).Negotiate(client.Get()), Expected());
}

TEST_P(SSLProtocolListHandshake, FollowsTheRangeWhateverBoundsTheContextHadBefore) {
  ACE_SSL_Context context;
  context.set_mode(ACE_SSL_Context::SSLv23_client);
  SSL_CTX_set_min_proto_version(context.context(), TLS1_3_VERSION);
  SSL_CTX_set_max_proto_version(context.context(), TLS1_3_VERSION);
  MakeList(ClientRange()).applyTo(context);
  EXPECT_EQ(OneVersionPeer(PeerVersion()).Negotiate(context.context()), Expected());
}

INSTANTIATE_TEST_SUITE_P(RangesAndPeers, SSLProtocolListHandshake,
                         testing::Combine(testing::ValuesIn(ranges), testing::Range(0, 4)));

TEST(OneVersionPeer, SpeaksTls13WithClientThatMay) {
  const std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> client(SSL_CTX_new(TLS_client_method()), &SSL_CTX_free);
  EXPECT_EQ(OneVersionPeer(TLS1_3_VERSION).Negotiate(client.get()), TLS1_3_VERSION);
}

}  // namespace
