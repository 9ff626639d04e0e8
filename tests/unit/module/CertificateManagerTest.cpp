// The file of the configuration server's certificate chain: fetched, checked, written.
#include "CertificateInStore.h"
#include "InstallationDirectory.h"
#include "TestCertificate.h"

#include "certificates/CertificateManager.h"
#include "platform/AtomicFile.h"

#include "support/LoopbackTlsServer.h"
#include "support/RecordingLogger.h"

#include <host/SystemError.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using VaroCommunicationAPI::CertificateHolder;
using VaroCommunicationAPI::CertificateManager;
using VaroCommunicationAPI::CertificateServices;
using VaroCommunicationAPI::SSLProtocolList;
using VaroCommunicationAPI::TlsStream;
using VaroCommunicationAPI::Platform::CertificateStore;
using VaroCommunicationAPI::Platform::WriteFileAtomically;
using WindowsAgentCommon::Format;
using WindowsAgentCommon::GetLastErrorText;

constexpr const char* fetching = "Info Attempting to retrieve the certificate from the configuration server";

/// A number for which the system has a text.
constexpr int someError = 5;

/// The faults of a chain.
constexpr const char* unknownIssuer =
    "Error The certificate for server (%s) is not self-signed and its issuer (%s) does not appear to be in the Windows "
    "certificate store. We can't make the connection to the configuration console in a secure fashion, so the "
    "connection will not be made at all.";
constexpr const char* unknownIssuerInChain =
    "Error The certificate for server (%s) is not self-signed and an issuer in its chain (%s) does not appear to be in "
    "the Windows certificate store. We can't make the connection to the configuration console in a secure fashion, so "
    "the connection will not be made at all.";

Name Named(const std::string& commonName) { return {{NID_commonName, V_ASN1_UTF8STRING, commonName}}; }

CertificateHolder Make(const Name& subject, const Name& issuer, const std::string& comment = {}) {
  CertificateHolder certificate;
  EXPECT_EQ(CertificateHolder::FromDer(MakeCertificate(subject, issuer, {}, comment), certificate), 0);
  return certificate;
}

CertificateHolder Make(const std::string& subject, const std::string& issuer) {
  return Make(Named(subject), Named(issuer));
}

class CertificateManagerTest : public testing::Test {
 protected:
  /// Points the manager at a test's server and sets the file.
  void Configure(CertificateManager& manager, const std::string& server, std::uint16_t port) {
    manager.SetServer(server);
    manager.SetPort(port);
    manager.SetProtocolList(SSLProtocolList());
    manager.SetPEMFilePath(WindowsAgentCommon::PathToWide(m_file));
  }

  CertificateServices Scripted() {
    CertificateServices services;
    services.m_openStore = [this](const std::wstring& name, CertificateStore& store) {
      m_opened.push_back(name);
      return name == m_closedStore ? someError : store.Open(name);
    };
    services.m_certificateText = [this](const CertificateHolder& certificate) {
      return certificate.DisplayName() == m_nameWithoutText ? std::string() : certificate.Pem();
    };
    return services;
  }

  std::vector<std::string> FilesInDirectory() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_installation.ConfigDirectory())) {
      if (!entry.is_directory()) names.push_back(entry.path().filename().string());
    }
    return names;
  }

  std::string FileContent() const { return TemporaryDirectory::Read(m_file); }

  InstallationDirectory m_installation;
  RecordingLogger m_log;
  std::filesystem::path m_file = m_installation.ConfigDirectory() / "ConfigurationServer.PEM";
  std::vector<std::wstring> m_opened;  ///< the stores, in order
  std::wstring m_closedStore;
  std::wstring m_nameWithoutText = L"(nobody)";
  CertificateManager m_manager{VaroCommunicationAPI::defaultHandshakeLimit, Scripted()};
  std::vector<std::string> m_chain;
};

// Validation

TEST_F(CertificateManagerTest, AnExistingFileIsTrustedWhateverItHolds) {
  m_installation.Write("config/ConfigurationServer.PEM", "junk");
  Configure(m_manager, "127.0.0.1", UnusedPort());
  EXPECT_TRUE(m_manager.ValidateCertificate());
  EXPECT_THAT(m_log->Lines(), IsEmpty());
  EXPECT_EQ(FileContent(), "junk");
}

TEST_F(CertificateManagerTest, TheVerdictStaysWhenTheFileGoes) {
  m_installation.Write("config/ConfigurationServer.PEM", "junk");
  Configure(m_manager, "127.0.0.1", UnusedPort());
  std::filesystem::remove(m_file);
  EXPECT_TRUE(m_manager.ValidateCertificate());
}

TEST_F(CertificateManagerTest, WithoutPathIsRefusedWithoutMessage) {
  EXPECT_FALSE(m_manager.ValidateCertificate());
  EXPECT_THAT(m_log->Lines(), IsEmpty());
}

TEST_F(CertificateManagerTest, ASelfSignedCertificateIsFetchedOnceAndWrittenAlone) {
  LoopbackTlsServer server;
  Configure(m_manager, "127.0.0.1", server.Port());
  EXPECT_TRUE(m_manager.ValidateCertificate());
  EXPECT_EQ(FileContent(), ServerIdentity().CertificatePem());
  EXPECT_THAT(FilesInDirectory(), ElementsAre("ConfigurationServer.PEM"));
  EXPECT_THAT(m_log->Lines("Code.CertificateManager.127.0.0.1"),
              ElementsAre(fetching, StartsWith("Debug Connected to server using TLSv1.2 (cipher: "),
                          "Debug GetContextFromCertificateText: Converted PEM text for certificate subject loopback"));
  EXPECT_EQ(m_log->Lines().size(), 3U);
  m_log->Clear();
  EXPECT_TRUE(m_manager.ValidateCertificate());
  EXPECT_EQ(server.Connections(), 1);
  EXPECT_THAT(m_log->Lines(), IsEmpty());
}

TEST_F(CertificateManagerTest, AnUnreachableServerIsToldAndTriedAgain) {
  const std::uint16_t port = UnusedPort();
  Configure(m_manager, "127.0.0.1", port);
  EXPECT_FALSE(m_manager.ValidateCertificate());
  EXPECT_THAT(m_log->Lines(), ElementsAre(fetching, "Error Cannot connect to configuration server (10061)"));
  EXPECT_THAT(FilesInDirectory(), IsEmpty());
  LoopbackTlsServer server(TlsServerOptions{.port = port});
  EXPECT_TRUE(m_manager.ValidateCertificate());
  EXPECT_EQ(FileContent(), ServerIdentity().CertificatePem());
}

TEST_F(CertificateManagerTest, AnUnknownNameIsToldWithItsNumber) {
  Configure(m_manager, "", 8413);
  EXPECT_FALSE(m_manager.ValidateCertificate());
  EXPECT_THAT(m_log->Lines(), ElementsAre(fetching, "Error Cannot connect to configuration server (10022)"));
}

TEST_F(CertificateManagerTest, ASilentServerIsLeftAfterTheLimit) {
  LoopbackTcpServer silent([](LoopbackTcpServer& self, ServerConnection&, int) { self.HoldUntilStopped(); });
  CertificateManager hasty(300ms);
  Configure(hasty, "127.0.0.1", silent.Port());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(hasty.ValidateCertificate());
  EXPECT_LT(std::chrono::steady_clock::now() - start, patience);
  EXPECT_THAT(m_log->Lines(), ElementsAre(fetching, "Error Cannot connect to configuration server (137)"));
  EXPECT_THAT(FilesInDirectory(), IsEmpty());
}

TEST_F(CertificateManagerTest, ARefusedHandshakeIsToldWithTheLibrarysReason) {
  LoopbackTlsServer server(TlsServerOptions{.minVersion = TLS1_3_VERSION});
  Configure(m_manager, "127.0.0.1", server.Port());
  EXPECT_FALSE(m_manager.ValidateCertificate());
  EXPECT_THAT(m_log->Lines(), ElementsAre(fetching, StartsWith("Error Cannot connect to configuration server (1677"),
                                          StartsWith("Debug The TLS library's reason: ")));
}

TEST_F(CertificateManagerTest, OnlyTheRangesVersionsAreNegotiated) {
  LoopbackTlsServer server;
  Configure(m_manager, "127.0.0.1", server.Port());
  SSLProtocolList oldest;
  ASSERT_TRUE(oldest.setRange("TLSv1.1", "TLSv1.1", WindowsAgentCommon::Log()));
  m_manager.SetProtocolList(oldest);
  EXPECT_TRUE(m_manager.ValidateCertificate());
  EXPECT_THAT(m_log->Lines()[1], StartsWith("Debug Connected to server using TLSv1.1 (cipher: "));
}

TEST_F(CertificateManagerTest, AServerWithoutCertificateIsRefused) {
  CertificateServices services;
  services.m_peerCertificateText = [](const TlsStream&) { return std::string(); };
  CertificateManager manager(VaroCommunicationAPI::defaultHandshakeLimit, services);
  LoopbackTlsServer server;
  Configure(manager, "127.0.0.1", server.Port());
  EXPECT_FALSE(manager.ValidateCertificate());
  EXPECT_THAT(m_log->Lines(), ElementsAre(fetching, StartsWith("Debug Connected to server using "),
                                          "Error Failed to validate the certificate from the configuration server"));
  EXPECT_THAT(FilesInDirectory(), IsEmpty());
}

TEST_F(CertificateManagerTest, AnUntrustedServerIsRefusedAndLeavesNoFile) {
  const TlsIdentity authority("Sorvex unknown authority");
  const TlsIdentity issued("issued", &authority);
  LoopbackTlsServer server(TlsServerOptions{.identity = &issued});
  Configure(m_manager, "127.0.0.1", server.Port());
  EXPECT_FALSE(m_manager.ValidateCertificate());
  EXPECT_THAT(m_log->Lines(),
              ElementsAre(fetching, StartsWith("Debug Connected to server using "),
                          "Debug GetContextFromCertificateText: Converted PEM text for certificate subject issued",
                          Format(unknownIssuer, "issued", "Sorvex unknown authority"),
                          "Error Failed to process the certificate from the configuration server. Reason: " +
                              GetLastErrorText(VaroCommunicationAPI::Platform::certificateNotFound)));
  EXPECT_THAT(FilesInDirectory(), IsEmpty());
}

TEST_F(CertificateManagerTest, AFileThatCannotBeWrittenIsToldWithTheSystemsReason) {
  LoopbackTlsServer server;
  m_file = m_installation.ConfigDirectory() / "absent" / "ConfigurationServer.PEM";
  Configure(m_manager, "127.0.0.1", server.Port());
  EXPECT_FALSE(m_manager.ValidateCertificate());
  const int error = WriteFileAtomically(WindowsAgentCommon::PathToWide(m_file), "x");
  ASSERT_NE(error, 0);
  EXPECT_EQ(m_log->Lines().back(), "Error Failed to process the certificate from the configuration server. Reason: " +
                                       GetLastErrorText(error));
}

TEST_F(CertificateManagerTest, AServersNameIsSentAndAnAddressIsNot) {
  std::vector<std::string> names;
  LoopbackTlsServer server([&](LoopbackTlsServer&, TlsServerSession& session, int) {
    const char* const name = SSL_get_servername(session.Native(), TLSEXT_NAMETYPE_host_name);
    names.emplace_back(name ? name : "(none)");
  });
  for (const char* host : {"localhost", "127.0.0.1"}) {
    CertificateManager manager;
    Configure(manager, host, server.Port());
    EXPECT_TRUE(manager.ValidateCertificate());
    std::filesystem::remove(m_file);
  }
  server.Stop();
  EXPECT_THAT(names, testing::UnorderedElementsAre("localhost", "(none)"));
}

TEST_F(CertificateManagerTest, AnIPv6AddressMayStandInBrackets) {
  std::optional<LoopbackTlsServer> server;
  try {
    server.emplace(TlsServerOptions{.isIPv6 = true});
  } catch (const std::exception&) {
    GTEST_SKIP() << "no IPv6 on this machine";
  }
  Configure(m_manager, "[::1]", server->Port());
  EXPECT_TRUE(m_manager.ValidateCertificate());
}

// Certificate texts

TEST_F(CertificateManagerTest, ATextThatIsNoCertificateIsToldAndEmptiesTheHolder) {
  CertificateHolder holder = Make("server", "server");
  EXPECT_FALSE(m_manager.GetContextFromCertificateText("hello", holder));
  EXPECT_FALSE(holder);
  CertificateHolder other;
  const int error = CertificateHolder::FromPem("hello", other);
  EXPECT_THAT(m_log->Lines(),
              ElementsAre("Error GetContextFromCertificateText: Failed to retrieve context from certificate text. "
                          "Reason: " +
                          GetLastErrorText(error)));
}

/// A self-signed certificate whose encoding has `size` bytes.
CertificateHolder MakeOfSize(std::size_t size) {
  const Name name = Named("server");
  const std::size_t base = MakeCertificate(name, name, {}, std::string(15000, 'x')).size();
  return Make(name, name, std::string(15000 + size - base, 'x'));
}

TEST_F(CertificateManagerTest, ACertificateOf16384BytesIsWrittenWhole) {
  const CertificateHolder certificate = MakeOfSize(16384);
  ASSERT_EQ(certificate.Der().size(), 16384U);
  ASSERT_GT(certificate.Pem().size(), 16384U);
  EXPECT_TRUE(m_manager.WriteCertificateChainFile(WindowsAgentCommon::PathToWide(m_file), certificate.Pem()));
  EXPECT_EQ(FileContent(), certificate.Pem());
}

TEST_F(CertificateManagerTest, ACertificateOfOneByteMoreIsAFailedConversion) {
  const CertificateHolder certificate = MakeOfSize(16385);
  ASSERT_EQ(certificate.Der().size(), 16385U);
  EXPECT_FALSE(m_manager.WriteCertificateChainFile(WindowsAgentCommon::PathToWide(m_file), certificate.Pem()));
  EXPECT_THAT(m_log->Lines(), ElementsAre(StartsWith("Error GetContextFromCertificateText: Failed to retrieve context "
                                                     "from certificate text. Reason: ")));
  EXPECT_THAT(FilesInDirectory(), IsEmpty());
}

TEST_F(CertificateManagerTest, NoCertificateHasNoTextAndNoNames) {
  const CertificateHolder none;
  std::string text = "before";
  std::wstring name = L"before";
  EXPECT_FALSE(m_manager.CertificateToText(none, text));
  EXPECT_EQ(text, "");
  EXPECT_FALSE(CertificateManager::GetSubjectDisplayName(none, name));
  EXPECT_EQ(name, L"");
  name = L"before";
  EXPECT_FALSE(CertificateManager::GetSubjectRDN(none, name));
  EXPECT_EQ(name, L"");
}

TEST_F(CertificateManagerTest, ACertificateHasTextAndNames) {
  const CertificateHolder certificate =
      Make({{NID_organizationName, V_ASN1_UTF8STRING, "Example"}, {NID_commonName, V_ASN1_UTF8STRING, "server"}},
           Named("issuer"));
  std::string text;
  std::wstring name;
  EXPECT_TRUE(m_manager.CertificateToText(certificate, text));
  EXPECT_EQ(text, certificate.Pem());
  EXPECT_TRUE(CertificateManager::GetSubjectDisplayName(certificate, name));
  EXPECT_EQ(name, L"server");
  EXPECT_TRUE(CertificateManager::GetSubjectRDN(certificate, name));
  EXPECT_EQ(name, L"Example, server");
}

// Chains. No other test uses these issuers' names: the stores are the machine's.

TEST_F(CertificateManagerTest, ASelfSignedCertificateIsItsChain) {
  const CertificateHolder server = Make("server", "server");
  EXPECT_EQ(m_manager.RetrieveChainTextForContext(server, m_chain), 1U);
  EXPECT_THAT(m_chain, ElementsAre(server.Pem()));
  EXPECT_THAT(m_log->Lines(), IsEmpty());
  EXPECT_THAT(m_opened, ElementsAre(L"CA"));
}

TEST_F(CertificateManagerTest, ARootThatIsOnlyInRootDoesNotVouchForTheServer) {
  const CertificateInStore root(L"ROOT", Make("Sorvex direct root", "Sorvex direct root"));
  EXPECT_EQ(m_manager.RetrieveChainTextForContext(Make("server", "Sorvex direct root"), m_chain), 0U);
  EXPECT_THAT(m_chain, IsEmpty());
  EXPECT_THAT(m_log->Lines(), ElementsAre(Format(unknownIssuer, "server", "Sorvex direct root")));
  EXPECT_THAT(m_opened, ElementsAre(L"CA"));
}

TEST_F(CertificateManagerTest, NamesThatDifferInCaseOnlyDiffer) {
  EXPECT_EQ(m_manager.RetrieveChainTextForContext(Make("Server", "server"), m_chain), 0U);
  EXPECT_THAT(m_log->Lines(), ElementsAre(Format(unknownIssuer, "Server", "server")));
}

TEST_F(CertificateManagerTest, TheFileHasRootFirstAndServerLast) {
  const CertificateHolder root = Make("Sorvex far root", "Sorvex far root");
  const CertificateHolder intermediate = Make("Sorvex near", "Sorvex far root");
  const CertificateHolder server = Make("server", "Sorvex near");
  const CertificateInStore storedRoot(L"ROOT", root);
  const CertificateInStore storedIntermediate(L"CA", intermediate);
  EXPECT_TRUE(m_manager.WriteCertificateChainFile(WindowsAgentCommon::PathToWide(m_file), server.Pem()));
  EXPECT_EQ(FileContent(), root.Pem() + intermediate.Pem() + server.Pem());
  EXPECT_THAT(m_opened, ElementsAre(L"CA", L"ROOT"));
}

TEST_F(CertificateManagerTest, ARootInNoStoreIsToldWithTheIntermediatesName) {
  const CertificateInStore intermediate(L"CA", Make("Sorvex orphan", "Sorvex lost root"));
  EXPECT_EQ(m_manager.RetrieveChainTextForContext(Make("server", "Sorvex orphan"), m_chain), 0U);
  EXPECT_THAT(m_chain, IsEmpty());
  EXPECT_THAT(m_log->Lines(), ElementsAre(Format(unknownIssuerInChain, "Sorvex orphan", "Sorvex lost root")));
}

TEST_F(CertificateManagerTest, ThreeIntermediatesAreClimbed) {
  const CertificateHolder root = Make("Sorvex top", "Sorvex top");
  const CertificateHolder third = Make("Sorvex third", "Sorvex top");
  const CertificateHolder second = Make("Sorvex second", "Sorvex third");
  const CertificateHolder first = Make("Sorvex first", "Sorvex second");
  const CertificateHolder server = Make("server", "Sorvex first");
  const CertificateInStore stored[] = {{L"ROOT", root}, {L"CA", third}, {L"CA", second}, {L"CA", first}};
  EXPECT_EQ(m_manager.RetrieveChainTextForContext(server, m_chain), 5U);
  EXPECT_THAT(m_chain, ElementsAre(server.Pem(), first.Pem(), second.Pem(), third.Pem(), root.Pem()));
  EXPECT_THAT(m_log->Lines(), IsEmpty());
}

TEST_F(CertificateManagerTest, ASelfSignedTopInCaEndsTheChain) {
  const CertificateHolder top = Make("Sorvex own top", "Sorvex own top");
  const CertificateHolder intermediate = Make("Sorvex under top", "Sorvex own top");
  const CertificateHolder server = Make("server", "Sorvex under top");
  const CertificateInStore stored[] = {{L"CA", top}, {L"CA", intermediate}};
  EXPECT_EQ(m_manager.RetrieveChainTextForContext(server, m_chain), 3U);
  EXPECT_THAT(m_chain, ElementsAre(server.Pem(), intermediate.Pem(), top.Pem()));
  EXPECT_THAT(m_opened, ElementsAre(L"CA"));
}

TEST_F(CertificateManagerTest, AnIssuerThatRepeatsTheServersNameIsNotAdded) {
  const Name issuer{{NID_organizationName, V_ASN1_UTF8STRING, "Sorvex repeated"},
                    {NID_commonName, V_ASN1_UTF8STRING, "server"}};
  const CertificateInStore stored(L"CA", Make(issuer, issuer));
  const CertificateHolder server = Make(Named("server"), issuer);
  EXPECT_EQ(m_manager.RetrieveChainTextForContext(server, m_chain), 1U);
  EXPECT_THAT(m_chain, ElementsAre(server.Pem()));
  EXPECT_THAT(m_opened, ElementsAre(L"CA"));
}

TEST_F(CertificateManagerTest, AnIssuerThatRepeatsAnIssuersNameIsNotAdded) {
  const Name top{{NID_organizationName, V_ASN1_UTF8STRING, "Sorvex repeating"},
                 {NID_commonName, V_ASN1_UTF8STRING, "Sorvex repeat"}};
  const CertificateHolder intermediate = Make(Named("Sorvex repeat"), top);
  const CertificateInStore stored[] = {{L"CA", Make(top, Named("Sorvex anybody"))}, {L"CA", intermediate}};
  const CertificateHolder server = Make("server", "Sorvex repeat");
  EXPECT_EQ(m_manager.RetrieveChainTextForContext(server, m_chain), 2U);
  EXPECT_THAT(m_chain, ElementsAre(server.Pem(), intermediate.Pem()));
}

TEST_F(CertificateManagerTest, NamesMayHoldAnyCharacter) {
  const std::string name = "Schl\xC3\xBCssel \xE9\x8D\xB5 \xF0\x9F\x94\x91";
  EXPECT_EQ(m_manager.RetrieveChainTextForContext(Make(name, name), m_chain), 1U);
  m_chain.clear();
  EXPECT_EQ(m_manager.RetrieveChainTextForContext(Make(name, "Sorvex \xE9\x8D\xB5"), m_chain), 0U);
  EXPECT_THAT(m_log->Lines(), ElementsAre(Format(unknownIssuer, name, "Sorvex \xE9\x8D\xB5")));
}

TEST_F(CertificateManagerTest, ACertificateWithoutNamesIsEqualToItself) {
  const CertificateHolder nameless = Make(Name{}, Name{});
  EXPECT_EQ(m_manager.RetrieveChainTextForContext(nameless, m_chain), 1U);
  EXPECT_THAT(m_chain, ElementsAre(nameless.Pem()));
}

TEST_F(CertificateManagerTest, IssuersThatNameEachOtherEndAsUnknown) {
  const CertificateInStore stored[] = {{L"CA", Make("Sorvex chicken", "Sorvex egg")},
                                       {L"CA", Make("Sorvex egg", "Sorvex chicken")}};
  EXPECT_EQ(m_manager.RetrieveChainTextForContext(Make("server", "Sorvex chicken"), m_chain), 0U);
  EXPECT_THAT(m_chain, IsEmpty());
  EXPECT_THAT(m_log->Lines(), ElementsAre(Format(unknownIssuerInChain, "Sorvex egg", "Sorvex chicken")));
  EXPECT_THAT(m_opened, ElementsAre(L"CA", L"ROOT"));
}

TEST_F(CertificateManagerTest, IssuersThatNameEachOtherMayEndInRoot) {
  const CertificateHolder hen = Make("Sorvex hen", "Sorvex cock");
  const CertificateHolder cock = Make("Sorvex cock", "Sorvex hen");
  const CertificateHolder server = Make("server", "Sorvex hen");
  const CertificateHolder root = Make("Sorvex hen", "Sorvex hen");
  const CertificateInStore stored[] = {{L"CA", hen}, {L"CA", cock}, {L"ROOT", root}};
  EXPECT_EQ(m_manager.RetrieveChainTextForContext(server, m_chain), 4U);
  EXPECT_THAT(m_chain, ElementsAre(server.Pem(), hen.Pem(), cock.Pem(), root.Pem()));
}

TEST_F(CertificateManagerTest, AClosedCaStoreIsTold) {
  m_closedStore = L"CA";
  EXPECT_EQ(m_manager.RetrieveChainTextForContext(Make("server", "server"), m_chain), 0U);
  EXPECT_THAT(m_chain, IsEmpty());
  EXPECT_THAT(m_log->Lines(), ElementsAre("Error RetrieveChainTextForContext: Could not open the system certificate "
                                          "store (CA).. Reason: " +
                                          GetLastErrorText(someError)));
}

TEST_F(CertificateManagerTest, AClosedRootStoreIsToldAndWhatIsThereIsWritten) {
  m_closedStore = L"ROOT";
  const CertificateHolder intermediate = Make("Sorvex below closed root", "Sorvex closed root");
  const CertificateHolder server = Make("server", "Sorvex below closed root");
  const CertificateInStore stored(L"CA", intermediate);
  EXPECT_TRUE(m_manager.WriteCertificateChainFile(WindowsAgentCommon::PathToWide(m_file), server.Pem()));
  EXPECT_EQ(FileContent(), intermediate.Pem() + server.Pem());
  EXPECT_EQ(m_log->Lines().back(),
            "Error RetrieveChainTextForContext: Could not open the system certificate store (ROOT).. Reason: " +
                GetLastErrorText(someError));
}

TEST_F(CertificateManagerTest, AServersCertificateWithoutTextIsTold) {
  m_nameWithoutText = L"server";
  EXPECT_EQ(m_manager.RetrieveChainTextForContext(Make("server", "server"), m_chain), 0U);
  EXPECT_THAT(m_log->Lines(), ElementsAre("Error RetrieveChainTextForContext: Could not convert the given certificate "
                                          "to text (or could not use the context given)."));
}

TEST_F(CertificateManagerTest, NoCertificateIsToldAsOneWithoutText) {
  EXPECT_EQ(m_manager.RetrieveChainTextForContext(CertificateHolder(), m_chain), 0U);
  EXPECT_THAT(m_log->Lines(), ElementsAre("Error RetrieveChainTextForContext: Could not convert the given certificate "
                                          "to text (or could not use the context given)."));
}

TEST_F(CertificateManagerTest, AnIssuerWithoutTextIsTold) {
  m_nameWithoutText = L"Sorvex mute";
  const CertificateInStore stored(L"CA", Make("Sorvex mute", "Sorvex mute"));
  EXPECT_EQ(m_manager.RetrieveChainTextForContext(Make("server", "Sorvex mute"), m_chain), 0U);
  EXPECT_THAT(m_chain, IsEmpty());
  EXPECT_THAT(m_log->Lines(), ElementsAre("Error RetrieveChainTextForContext: Could not convert a certificate in the "
                                          "chain to text (or could not use the context given)."));
}

TEST_F(CertificateManagerTest, ARootWithoutTextIsLeftOutSilently) {
  m_nameWithoutText = L"Sorvex mute root";
  const CertificateHolder intermediate = Make("Sorvex below mute root", "Sorvex mute root");
  const CertificateHolder server = Make("server", "Sorvex below mute root");
  const CertificateInStore stored[] = {{L"ROOT", Make("Sorvex mute root", "Sorvex mute root")}, {L"CA", intermediate}};
  EXPECT_EQ(m_manager.RetrieveChainTextForContext(server, m_chain), 2U);
  EXPECT_THAT(m_chain, ElementsAre(server.Pem(), intermediate.Pem()));
  EXPECT_THAT(m_log->Lines(), IsEmpty());
}

// Writing

TEST_F(CertificateManagerTest, AnEmptyTextIsRefusedWithoutMessage) {
  m_installation.Write("config/ConfigurationServer.PEM", "older");
  EXPECT_FALSE(m_manager.WriteCertificateChainFile(WindowsAgentCommon::PathToWide(m_file), ""));
  EXPECT_THAT(m_log->Lines(), IsEmpty());
  EXPECT_EQ(FileContent(), "older");
}

TEST_F(CertificateManagerTest, AFileThatIsThereIsReplaced) {
  m_installation.Write("config/ConfigurationServer.PEM", "older");
  const CertificateHolder server = Make("server", "server");
  EXPECT_TRUE(m_manager.WriteCertificateChainFile(WindowsAgentCommon::PathToWide(m_file), server.Pem()));
  EXPECT_EQ(FileContent(), server.Pem());
}

TEST_F(CertificateManagerTest, ARefusedCertificateLeavesNoFileThatWasThere) {
  m_installation.Write("config/ConfigurationServer.PEM", "older");
  const CertificateHolder server = Make("server", "Sorvex unknown");
  EXPECT_FALSE(m_manager.WriteCertificateChainFile(WindowsAgentCommon::PathToWide(m_file), server.Pem()));
  EXPECT_THAT(FilesInDirectory(), IsEmpty());
}

}  // namespace
}  // namespace sorvex::test
