// The application token, plain and secured.
#include "ApplicationKey.h"
#include "InstallationDirectory.h"

#include "install/InstallConfigFileProcessor.h"
#include "platform/KeyContainer.h"

#include <host/SystemError.h>
#include <host/Text.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

using sorvex::test::ApplicationKey;
using sorvex::test::EncodeBase64;
using sorvex::test::InstallationDirectory;
using testing::ElementsAre;
using testing::Pair;
using VaroCommunicationAPI::InstallConfigFileProcessor;

constexpr const char* plainToken = "01234567-89ab-cdef-0123-456789abcdef";

class ApplicationToken : public testing::Test {
 protected:
  /// Reads an install file with this token; returns the token in the parameters.
  std::string Read(const std::string& token) {
    m_installation.WriteInstallFile("ApplicationToken=" + token + "\r\n");
    m_result = m_processor.Process(InstallationDirectory::InstallFile(), m_parameters);
    return m_parameters.find("ApplicationToken")->second;
  }

  /// The processor's text for a token that could not be decrypted for this reason.
  static std::string Complaint(int error) {
    return "Couldn't decode the secure application token provided in " +
           WindowsAgentCommon::WideToUtf8(InstallationDirectory::InstallFile()) + " (" +
           WindowsAgentCommon::GetLastErrorText(error) +
           "). Proceeding as if it is ok, but the config server may have something to say about it later...";
  }

  InstallationDirectory m_installation;
  InstallConfigFileProcessor m_processor;
  WindowsAgentCommon::ParameterBlock m_parameters;
  int m_result = -1;
};

class SecuredApplicationToken : public ApplicationToken, public testing::WithParamInterface<unsigned int> {};

// The installer's own key store writes the least significant byte first; the installer reverses the bytes before it
// encodes them. So the text contains what RSA itself writes, most significant byte first, and one text serves every
// system.
TEST_P(SecuredApplicationToken, InBase64OfMostSignificantByteFirstIsDecrypted) {
  StoreInContainer(ApplicationKey::Of(GetParam()));
  EXPECT_EQ(Read(ApplicationKey::Of(GetParam()).Secure(plainToken)), plainToken);
  EXPECT_EQ(m_result, 0);
}

TEST_P(SecuredApplicationToken, InBase64OfLeastSignificantByteFirstIsRefused) {
  StoreInContainer(ApplicationKey::Of(GetParam()));
  std::vector<std::uint8_t> bytes = ApplicationKey::Of(GetParam()).Encrypt(plainToken);
  std::reverse(bytes.begin(), bytes.end());
  const std::string reversed = EncodeBase64(bytes);
  EXPECT_EQ(Read(reversed), reversed);
  EXPECT_NE(m_result, 0);
}

INSTANTIATE_TEST_SUITE_P(KeySizes, SecuredApplicationToken, testing::Values(1024U, 2048U));

TEST_F(ApplicationToken, Of36CharactersWithDashesIsKept) {
  StoreInContainer(ApplicationKey::Of(1024));
  EXPECT_EQ(Read(plainToken), plainToken);
  EXPECT_EQ(m_result, 0);
  EXPECT_EQ(m_processor.GetMessageText(), "");
}

TEST_F(ApplicationToken, Of40CharactersWithDashIsKept) {
  const std::string token = std::string(39, 'A') + "-";
  EXPECT_EQ(Read(token), token);
  EXPECT_EQ(m_result, 0);
}

TEST_F(ApplicationToken, Of41CharactersWithDashesIsTakenForSecured) {
  StoreInContainer(ApplicationKey::Of(1024));
  const std::string token = std::string(37, 'A') + "-BCD";
  EXPECT_EQ(Read(token), token);
  EXPECT_NE(m_result, 0);
  EXPECT_EQ(m_processor.GetMessageText(), Complaint(m_result));
}

TEST_F(ApplicationToken, ShortWithoutDashIsTakenForSecured) {
  StoreInContainer(ApplicationKey::Of(1024));
  EXPECT_EQ(Read("Zm9vYmFy"), "Zm9vYmFy");
  EXPECT_NE(m_result, 0);
  EXPECT_EQ(m_processor.GetMessageText(), Complaint(m_result));
}

TEST_F(ApplicationToken, WithoutDashIsDecrypted) {
  StoreInContainer(ApplicationKey::Of(1024));
  const std::string secured = ApplicationKey::Of(1024).Secure(plainToken);
  ASSERT_EQ(secured.find('-'), std::string::npos);
  EXPECT_EQ(Read(secured), plainToken);
}

TEST_F(ApplicationToken, WithBlanksAroundBase64IsDecrypted) {
  StoreInContainer(ApplicationKey::Of(1024));
  EXPECT_EQ(Read("  " + ApplicationKey::Of(1024).Secure(plainToken) + " "), plainToken);
}

TEST_F(ApplicationToken, DecryptedToEmptyTextIsEmpty) {
  StoreInContainer(ApplicationKey::Of(1024));
  EXPECT_EQ(Read(ApplicationKey::Of(1024).Secure("")), "");
  EXPECT_EQ(m_result, 0);
}

TEST_F(ApplicationToken, EmptyIsKept) {
  EXPECT_EQ(Read(""), "");
  EXPECT_EQ(m_result, 0);
}

TEST_F(ApplicationToken, AbsentIsNoFailure) {
  m_installation.WriteInstallFile("A=1");
  EXPECT_EQ(m_processor.Process(InstallationDirectory::InstallFile(), m_parameters), 0);
  EXPECT_THAT(m_parameters, ElementsAre(Pair("A", "1")));
}

TEST_F(ApplicationToken, WithoutKeyIsKeptAndToldWithReason) {
  const std::string secured = ApplicationKey::Of(1024).Secure(plainToken);
  EXPECT_EQ(Read(secured), secured);
  EXPECT_NE(m_result, 0);
  EXPECT_EQ(m_processor.GetMessageText(), Complaint(m_result));
}

TEST_F(ApplicationToken, OfAnotherKeyIsKeptAndToldWithReason) {
  StoreInContainer(ApplicationKey::Of(1024));
  const std::string secured = ApplicationKey(1024).Secure(plainToken);
  EXPECT_EQ(Read(secured), secured);
  EXPECT_NE(m_result, 0);
  EXPECT_EQ(m_processor.GetMessageText(), Complaint(m_result));
}

TEST_F(ApplicationToken, OfAnotherKeySizeIsKept) {
  StoreInContainer(ApplicationKey::Of(2048));
  const std::string secured = ApplicationKey::Of(1024).Secure(plainToken);
  EXPECT_EQ(Read(secured), secured);
  EXPECT_NE(m_result, 0);
}

TEST_F(ApplicationToken, ThatIsNoBase64IsKeptAndToldWithReason) {
  StoreInContainer(ApplicationKey::Of(1024));
  EXPECT_EQ(Read("!!! not Base64 !!!"), "!!! not Base64 !!!");
  EXPECT_NE(m_result, 0);
  EXPECT_EQ(m_processor.GetMessageText(), Complaint(m_result));
}

TEST_F(ApplicationToken, GivenTwiceIsDecryptedWhereLookUpsReadIt) {
  StoreInContainer(ApplicationKey::Of(1024));
  const std::string secured = ApplicationKey::Of(1024).Secure(plainToken);
  m_installation.WriteInstallFile("ApplicationToken=" + secured + "\nApplicationToken=second-one\n");
  m_processor.Process(InstallationDirectory::InstallFile(), m_parameters);
  EXPECT_THAT(m_parameters, ElementsAre(Pair("ApplicationToken", plainToken), Pair("ApplicationToken", "second-one")));
}

TEST_F(ApplicationToken, IsDecryptedWithTheContainerThatTheProcessorNames) {
  StoreInContainer(ApplicationKey::Of(1024), "Another.Container");
  m_processor = InstallConfigFileProcessor(L"Another.Container");
  EXPECT_EQ(Read(ApplicationKey::Of(1024).Secure(plainToken)), plainToken);
}

TEST_F(ApplicationToken, NeverStandsInTheMessage) {
  const std::string secured = ApplicationKey::Of(1024).Secure(plainToken);
  Read(secured);
  EXPECT_EQ(m_processor.GetMessageText().find(secured), std::string::npos);
}

}  // namespace
