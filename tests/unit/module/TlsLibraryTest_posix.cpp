// Which libraries the component initialises itself, and in which order. Wrappers watch their functions.
#include "FakeComponentFactory.h"
#include "InstallationDirectory.h"

#include "factory/ConnectionFactory.h"
#include "support/RecordingLogger.h"

#include <host/ISecurityManager.h>

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <openssl/ssl.h>

namespace {

std::vector<std::string>& Calls() {
  static std::vector<std::string> calls;
  return calls;
}

bool isWatching = false;

void Note(std::string call) {
  if (isWatching) Calls().push_back(std::move(call));
}

template <class Function>
Function Next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

constexpr std::uint64_t errorStrings = OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS;
constexpr std::uint64_t allAlgorithms = OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS;

}  // namespace

// These replace the libraries' own in this program.
extern "C" {

int OPENSSL_init_ssl(std::uint64_t options, const OPENSSL_INIT_SETTINGS* settings) {
  Note(options == errorStrings ? "error strings" : options == 0 ? "library" : "something else");
  return Next<decltype(&OPENSSL_init_ssl)>("OPENSSL_init_ssl")(options, settings);
}

int OPENSSL_init_crypto(std::uint64_t options, const OPENSSL_INIT_SETTINGS* settings) {
  if (options == allAlgorithms) Note("ciphers and digests");
  return Next<decltype(&OPENSSL_init_crypto)>("OPENSSL_init_crypto")(options, settings);
}

int curl_global_init(long flags) {
  // Nothing here uses the library, which is then not even loaded.
  Note("curl " + std::to_string(flags));
  return 0;
}

}  // extern "C"

namespace {

using sorvex::test::FakeComponentFactory;
using testing::ElementsAre;
using testing::IsEmpty;

class FakeSecurityManager : public ACE_Service_Object, public WindowsAgentCommon::ISecurityManager {
 public:
  bool IsTlsReady() const override { return true; }
};

/// Has the security manager's name but is not one.
class FakeOtherService : public ACE_Service_Object {};

class TlsLibrary : public testing::Test {
 protected:
  TlsLibrary() {
    Calls().clear();
    isWatching = true;
    m_installation.WriteInstallFile("A=1");
  }
  ~TlsLibrary() override { isWatching = false; }

  sorvex::test::InstallationDirectory m_installation;
  sorvex::test::RecordingLogger m_log;
  FakeComponentFactory m_host;
  VaroCommunicationAPI::ConnectionFactory m_factory;
};

TEST_F(TlsLibrary, IsInitialisedInOrderWithoutSecurityManager) {
  EXPECT_EQ(m_factory.Initialize({}), 1);
  EXPECT_THAT(Calls(), ElementsAre("error strings", "library", "ciphers and digests", "curl 0"));
}

TEST_F(TlsLibrary, IsLeftToSecurityManager) {
  m_host.Offer("ISecurityManager", [] { return new FakeSecurityManager; });
  EXPECT_EQ(m_factory.Initialize({}), 1);
  EXPECT_THAT(Calls(), ElementsAre("curl 0"));
}

TEST_F(TlsLibrary, IsInitialisedWhenSomethingElseHasTheSecurityManagersName) {
  m_host.Offer("ISecurityManager", [] { return new FakeOtherService; });
  EXPECT_EQ(m_factory.Initialize({}), 1);
  EXPECT_THAT(Calls(), ElementsAre("error strings", "library", "ciphers and digests", "curl 0"));
}

TEST_F(TlsLibrary, IsInitialisedAlsoWhenInstallationTurnsOutEmpty) {
  m_installation.WriteInstallFile("");
  EXPECT_EQ(m_factory.Initialize({}), 3);
  EXPECT_THAT(Calls(), ElementsAre("error strings", "library", "ciphers and digests", "curl 0"));
}

TEST_F(TlsLibrary, IsNotInitialisedWhenDependencyIsMissing) {
  m_host.OfferBroken("IStatisticsServer");
  EXPECT_EQ(m_factory.Initialize({}), 2);
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(TlsLibrary, IsNotInitialisedBySecondInitialize) {
  m_factory.Initialize({});
  Calls().clear();
  EXPECT_EQ(m_factory.Initialize({}), 1);
  EXPECT_THAT(Calls(), IsEmpty());
}

}  // namespace
