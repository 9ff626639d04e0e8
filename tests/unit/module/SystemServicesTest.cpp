// Key export, keep-alive, time zone and version of the system on which the module runs.
#include "ApplicationKey.h"
#include "InstallationDirectory.h"
#include "KeepAlive.h"
#include "LoopbackConnection.h"

#include "platform/KeyContainer.h"
#include "platform/SocketIo.h"
#include "platform/SystemError.h"
#include "platform/TimeZone.h"

#include <ace/OS_NS_errno.h>
#include <ace/OS_NS_time.h>
#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <memory>
#include <vector>

namespace {

using namespace sorvex::test;
using namespace VaroCommunicationAPI;
using Bytes = std::vector<std::uint8_t>;
using Key = std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)>;

class PublicKeyExport : public testing::Test {
 protected:
  InstallationDirectory m_installation;
  Bytes m_bytes{1, 2, 3};
};

TEST_F(PublicKeyExport, BeginsWithTheFixedPrefix) {
  StoreInContainer(ApplicationKey::Of(1024), "Test.Container");
  ASSERT_EQ(Platform::ExportPublicKey(L"Test.Container", m_bytes), 0);
  const Bytes prefix{0x30, 0x81, 0x9F, 0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86,
                     0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00, 0x03, 0x81, 0x8D, 0x00};
  ASSERT_EQ(m_bytes.size(), 162U);
  EXPECT_EQ(Bytes(m_bytes.begin(), m_bytes.begin() + 22), prefix);
}

TEST_F(PublicKeyExport, Of1024BitsIsTheContainersKey) {
  StoreInContainer(ApplicationKey::Of(1024), "Test.Container");
  ASSERT_EQ(Platform::ExportPublicKey(L"Test.Container", m_bytes), 0);
  const unsigned char* position = m_bytes.data();
  const Key exported(d2i_PUBKEY(nullptr, &position, static_cast<long>(m_bytes.size())), &EVP_PKEY_free);
  ASSERT_NE(exported, nullptr);
  const std::string pem = ApplicationKey::Of(1024).Pem();
  const std::unique_ptr<BIO, int (*)(BIO*)> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), &BIO_free);
  const Key key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr), &EVP_PKEY_free);
  EXPECT_EQ(EVP_PKEY_eq(exported.get(), key.get()), 1);
}

TEST_F(PublicKeyExport, Of2048BitsHasTheSamePrefixAndTheLongerKey) {
  StoreInContainer(ApplicationKey::Of(2048), "Test.Container");
  ASSERT_EQ(Platform::ExportPublicKey(L"Test.Container", m_bytes), 0);
  ASSERT_EQ(m_bytes.size(), 22U + 270U);
  EXPECT_TRUE(std::equal(Platform::publicKeyPrefix.begin(), Platform::publicKeyPrefix.end(), m_bytes.begin()));
  // A sequence of 266 bytes, and in it the modulus of 257.
  const Bytes start{0x30, 0x82, 0x01, 0x0A, 0x02, 0x82, 0x01, 0x01, 0x00};
  EXPECT_EQ(Bytes(m_bytes.begin() + 22, m_bytes.begin() + 31), start);
  // The usual exponent, 65537.
  const Bytes end{0x02, 0x03, 0x01, 0x00, 0x01};
  EXPECT_EQ(Bytes(m_bytes.end() - 5, m_bytes.end()), end);
}

TEST_F(PublicKeyExport, WithoutContainerGivesErrorAndNothing) {
  EXPECT_NE(Platform::ExportPublicKey(L"Test.Absent", m_bytes), 0);
  EXPECT_TRUE(m_bytes.empty());
}

TEST(KeepAlive, IsOffOnANewConnection) {
  LoopbackConnection connection;
  EXPECT_FALSE(ReadKeepAlive(connection.Near().get_handle()).isEnabled);
}

TEST(KeepAlive, IsReadBackAsSet) {
  LoopbackConnection connection;
  ASSERT_EQ(Platform::SetKeepAlive(connection.Near().get_handle(), 30000, 2000).Number(), 0);
  const KeepAlive keepAlive = ReadKeepAlive(connection.Near().get_handle());
  EXPECT_TRUE(keepAlive.isEnabled);
  EXPECT_EQ(keepAlive.timeMs.value_or(30000), 30000U);
  EXPECT_EQ(keepAlive.intervalMs.value_or(2000), 2000U);
}

TEST(KeepAlive, OfAClosedHandleIsAnError) {
  EXPECT_NE(Platform::SetKeepAlive(ACE_INVALID_HANDLE, 30000, 2000).Number(), 0);
}

TEST(TimeZone, AgreesWithTheClockOfTheStandardLibrary) {
  const Platform::TimeZone zone = Platform::CurrentTimeZone();
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ACE_OS::localtime_r(&now, &local);
  // Read as if it were UTC, local time is shifted by the offset in effect, including daylight time.
  using namespace std::chrono;
  const sys_days day = year(local.tm_year + 1900) / (local.tm_mon + 1) / local.tm_mday;
  const sys_seconds shifted = day + hours(local.tm_hour) + minutes(local.tm_min) + seconds(local.tm_sec);
  EXPECT_EQ(shifted + minutes(zone.m_nBiasMinutes), floor<seconds>(system_clock::from_time_t(now)));
  EXPECT_EQ(zone.m_bDaylight, local.tm_isdst > 0);
  EXPECT_FALSE(zone.m_strName.empty());
}

TEST(LastSystemError, IsTheSystemsAndNotTheLanguages) {
  ACE_OS::last_error(5);
  errno = 7;
  const int error = Platform::LastSystemError();
  // Where the two are one this does nothing.
  ACE_OS::set_errno_to_last_error();
  EXPECT_EQ(error, errno);
}

}  // namespace
