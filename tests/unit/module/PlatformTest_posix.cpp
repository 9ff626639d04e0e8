// Properties that only a POSIX system has: errno, signals, file modes, read-back of socket options.
#include "ApplicationKey.h"
#include "InstallationDirectory.h"
#include "LoopbackConnection.h"

#include "platform/Files.h"
#include "platform/KeyContainer.h"
#include "platform/SocketErrors.h"
#include "platform/SocketIo.h"
#include "support/OrdinaryUser_posix.h"

#include <host/SystemError.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <future>
#include <optional>

namespace {

/// If a test says so, the owner of every file, and this process's user: only root could change either.
std::optional<uid_t> pretendedOwner;
std::optional<uid_t> pretendedUser;

}  // namespace

// These replace those of the C library.

extern "C" uid_t geteuid() noexcept { return pretendedUser.value_or(static_cast<uid_t>(syscall(SYS_geteuid))); }

extern "C" int fstat(int file, struct stat* status) noexcept {
  const int result = fstatat(file, "", status, AT_EMPTY_PATH);
  if (result == 0 && pretendedOwner) status->st_uid = *pretendedOwner;
  return result;
}

namespace {

using sorvex::test::ApplicationKey;
using sorvex::test::InstallationDirectory;
using sorvex::test::LoopbackConnection;
using namespace VaroCommunicationAPI;

// Error numbers

struct NumberPair {
  int system;
  int caller;
};

void PrintTo(const NumberPair& pair, std::ostream* out) { *out << pair.system << " and " << pair.caller; }

class ErrnoPair : public testing::TestWithParam<NumberPair> {};

TEST_P(ErrnoPair, IsConvertedToCallers) {
  EXPECT_EQ(Platform::ToCallerError(GetParam().system).Number(), GetParam().caller);
}

TEST_P(ErrnoPair, IsConvertedBack) {
  EXPECT_EQ(Platform::ToSystemError(Platform::SocketError(GetParam().caller)), GetParam().system);
}

TEST_P(ErrnoPair, HasTextOfTheSystemsNumber) {
  EXPECT_EQ(Platform::SocketError(GetParam().caller).Text(), WindowsAgentCommon::GetLastErrorText(GetParam().system));
}

INSTANTIATE_TEST_SUITE_P(
    Numbers, ErrnoPair,
    testing::Values(NumberPair{ETIME, 137}, NumberPair{EINTR, 10004}, NumberPair{EBADF, 10009},
                    NumberPair{EACCES, 10013}, NumberPair{EFAULT, 10014}, NumberPair{EINVAL, 10022},
                    NumberPair{EMFILE, 10024}, NumberPair{EAGAIN, 10035}, NumberPair{EINPROGRESS, 10036},
                    NumberPair{EALREADY, 10037}, NumberPair{ENOTSOCK, 10038}, NumberPair{EDESTADDRREQ, 10039},
                    NumberPair{EMSGSIZE, 10040}, NumberPair{EPROTOTYPE, 10041}, NumberPair{ENOPROTOOPT, 10042},
                    NumberPair{EPROTONOSUPPORT, 10043}, NumberPair{ESOCKTNOSUPPORT, 10044},
                    NumberPair{EOPNOTSUPP, 10045}, NumberPair{EPFNOSUPPORT, 10046}, NumberPair{EAFNOSUPPORT, 10047},
                    NumberPair{EADDRINUSE, 10048}, NumberPair{EADDRNOTAVAIL, 10049}, NumberPair{ENETDOWN, 10050},
                    NumberPair{ENETUNREACH, 10051}, NumberPair{ENETRESET, 10052}, NumberPair{ECONNABORTED, 10053},
                    NumberPair{ECONNRESET, 10054}, NumberPair{ENOBUFS, 10055}, NumberPair{EISCONN, 10056},
                    NumberPair{ENOTCONN, 10057}, NumberPair{ESHUTDOWN, 10058}, NumberPair{ETOOMANYREFS, 10059},
                    NumberPair{ETIMEDOUT, 10060}, NumberPair{ECONNREFUSED, 10061}, NumberPair{ELOOP, 10062},
                    NumberPair{ENAMETOOLONG, 10063}, NumberPair{EHOSTDOWN, 10064}, NumberPair{EHOSTUNREACH, 10065},
                    NumberPair{EUSERS, 10068}, NumberPair{EDQUOT, 10069}, NumberPair{ESTALE, 10070},
                    NumberPair{EREMOTE, 10071}));

TEST(Errno, BrokenPipeIsResetConnection) { EXPECT_EQ(Platform::ToCallerError(EPIPE).Number(), 10054); }

TEST(Errno, WithoutCounterpartStays) { EXPECT_EQ(Platform::ToCallerError(ENOENT).Number(), ENOENT); }

TEST(Errno, IsWhatLastSocketErrorConverts) {
  errno = ECONNREFUSED;
  EXPECT_EQ(Platform::LastSocketError().Number(), 10061);
}

TEST(SocketErrorText, OfPeerClosedIsTheModulesOwn) {
  EXPECT_EQ(Platform::SocketError(10101).Text(), "Connection closed by the peer");
}

TEST(SocketErrorText, OfNamesIsTheResolvers) {
  EXPECT_EQ(Platform::SocketError(11001).Text(), gai_strerror(EAI_NONAME));
  EXPECT_EQ(Platform::SocketError(11002).Text(), gai_strerror(EAI_AGAIN));
  EXPECT_EQ(Platform::SocketError(11003).Text(), gai_strerror(EAI_FAIL));
}

// Files

TEST(ReadFileHeadErrors, AreTheSystemsOwn) {
  const InstallationDirectory installation;
  Platform::SecretText content;
  EXPECT_EQ(Platform::ReadFileHead(WindowsAgentCommon::GetConfigPath() + L"/missing", 10, content), ENOENT);
  EXPECT_EQ(Platform::ReadFileHead(WindowsAgentCommon::GetConfigPath(), 10, content), EISDIR);
}

TEST(ReadFileHeadErrors, TellFileThatMayNotBeRead) {
  const InstallationDirectory installation;
  installation.Write("config/open", "x");
  installation.Write("config/closed", "x");
  chmod((installation.ConfigDirectory() / "open").c_str(), 0644);
  chmod((installation.ConfigDirectory() / "closed").c_str(), 0);
  const auto readAsOrdinaryUser = [](const wchar_t* name) {
    return sorvex::test::CallAsOrdinaryUser([name] {
      Platform::SecretText content;
      return Platform::ReadFileHead(WindowsAgentCommon::GetConfigPath() + L"/" + name, 10, content);
    });
  };
  EXPECT_EQ(readAsOrdinaryUser(L"open"), 0);
  EXPECT_EQ(readAsOrdinaryUser(L"closed"), EACCES);
}

// Key containers

class KeyContainerFile : public testing::Test {
 protected:
  KeyContainerFile() { StoreInContainer(m_key, "Test.Container"); }
  ~KeyContainerFile() override {
    pretendedOwner.reset();
    pretendedUser.reset();
  }

  std::filesystem::path Path() const { return m_installation.ConfigDirectory() / "keys/Test.Container.pem"; }
  void Replace(const std::string& content) {
    m_installation.Write("config/keys/Test.Container.pem", content);
    chmod(Path().c_str(), 0600);
  }
  int Decrypt() {
    Platform::SecretText plainText;
    return Platform::DecryptWithContainer(L"Test.Container", m_key.Encrypt("secret"), plainText);
  }

  const ApplicationKey& m_key = ApplicationKey::Of(1024);
  InstallationDirectory m_installation;
};

TEST_F(KeyContainerFile, OfItsOwnerAloneIsUsed) { EXPECT_EQ(Decrypt(), 0); }

/// The read calls of this process so far; nothing where the system does not count them.
std::optional<long> CallsOfRead() {
  std::ifstream counters("/proc/self/io");
  long count = 0;
  for (std::string name; counters >> name >> count;) {
    if (name == "syscr:") return count;
  }
  return std::nullopt;
}

TEST_F(KeyContainerFile, IsReadInFewCalls) {
  const std::optional<long> before = CallsOfRead();
  if (!before) GTEST_SKIP() << "the system does not count calls";
  ASSERT_EQ(Decrypt(), 0);
  EXPECT_LT(*CallsOfRead() - *before, 50);
}

TEST_F(KeyContainerFile, ThatOwnerMayOnlyReadIsUsed) {
  chmod(Path().c_str(), 0400);
  EXPECT_EQ(Decrypt(), 0);
}

class KeyContainerMode : public KeyContainerFile, public testing::WithParamInterface<mode_t> {};

TEST_P(KeyContainerMode, OpenToOthersIsRefused) {
  chmod(Path().c_str(), 0600 | GetParam());
  EXPECT_EQ(Decrypt(), EPERM);
}

INSTANTIATE_TEST_SUITE_P(Bits, KeyContainerMode, testing::Values(040U, 020U, 010U, 04U, 02U, 01U));

TEST_F(KeyContainerFile, MissingIsTold) {
  std::filesystem::remove(Path());
  EXPECT_EQ(Decrypt(), ENOENT);
}

TEST_F(KeyContainerFile, ThatIsDirectoryIsRefused) {
  std::filesystem::remove(Path());
  std::filesystem::create_directory(Path());
  EXPECT_EQ(Decrypt(), EPERM);
}

TEST_F(KeyContainerFile, ThatIsAPipeIsRefusedWithoutWaitingForItsWriter) {
  std::filesystem::remove(Path());
  ASSERT_EQ(mkfifo(Path().c_str(), 0600), 0);
  std::future<int> result = std::async(std::launch::async, [this] { return Decrypt(); });
  const bool bReturned = result.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  EXPECT_TRUE(bReturned);
  // Releases a waiting reader.
  if (!bReturned) close(open(Path().c_str(), O_WRONLY | O_NONBLOCK));
  EXPECT_EQ(result.get(), EPERM);
}

TEST_F(KeyContainerFile, OfAnotherUserIsRefused) {
  pretendedOwner = geteuid() + 1;
  EXPECT_EQ(Decrypt(), EPERM);
}

TEST_F(KeyContainerFile, OfAnotherUserIsRefusedByRootToo) {
  pretendedUser = 0;
  pretendedOwner = 4711;
  EXPECT_EQ(Decrypt(), EPERM);
}

TEST_F(KeyContainerFile, OfRootIsUsed) {
  pretendedUser = 4711;
  pretendedOwner = 0;
  EXPECT_EQ(Decrypt(), 0);
}

TEST_F(KeyContainerFile, WithoutKeyIsRefused) {
  Replace("no key");
  EXPECT_EQ(Decrypt(), EKEYREJECTED);
}

TEST_F(KeyContainerFile, EmptyIsRefused) {
  Replace("");
  EXPECT_EQ(Decrypt(), EKEYREJECTED);
}

TEST_F(KeyContainerFile, WithKeyOfAnotherKindIsRefused) {
  const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(EVP_EC_gen("P-256"), &EVP_PKEY_free);
  const std::unique_ptr<BIO, int (*)(BIO*)> bio(BIO_new(BIO_s_mem()), &BIO_free);
  PEM_write_bio_PrivateKey(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);
  Replace({data, static_cast<std::size_t>(size)});
  EXPECT_EQ(Decrypt(), EKEYREJECTED);
}

TEST_F(KeyContainerFile, InTheTraditionalFormIsUsed) {
  const std::string pem = m_key.Pem();
  const std::unique_ptr<BIO, int (*)(BIO*)> input(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), &BIO_free);
  const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(
      PEM_read_bio_PrivateKey(input.get(), nullptr, nullptr, nullptr), &EVP_PKEY_free);
  const std::unique_ptr<BIO, int (*)(BIO*)> bio(BIO_new(BIO_s_mem()), &BIO_free);
  PEM_write_bio_PrivateKey_traditional(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);
  Replace({data, static_cast<std::size_t>(size)});
  EXPECT_EQ(Decrypt(), 0);
}

TEST_F(KeyContainerFile, WithAPublicKeyAloneIsRefused) {
  const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(EVP_RSA_gen(1024), &EVP_PKEY_free);
  const std::unique_ptr<BIO, int (*)(BIO*)> bio(BIO_new(BIO_s_mem()), &BIO_free);
  PEM_write_bio_PUBKEY(bio.get(), key.get());
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);
  Replace({data, static_cast<std::size_t>(size)});
  EXPECT_EQ(Decrypt(), EKEYREJECTED);
  std::vector<std::uint8_t> exported;
  EXPECT_EQ(Platform::ExportPublicKey(L"Test.Container", exported), EKEYREJECTED);
}

TEST_F(KeyContainerFile, WithPassphraseIsRefusedWithoutAskingForIt) {
  const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(EVP_RSA_gen(1024), &EVP_PKEY_free);
  const std::unique_ptr<BIO, int (*)(BIO*)> bio(BIO_new(BIO_s_mem()), &BIO_free);
  unsigned char passphrase[] = "passphrase";
  PEM_write_bio_PrivateKey(bio.get(), key.get(), EVP_aes_256_cbc(), passphrase, 10, nullptr, nullptr);
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);
  Replace({data, static_cast<std::size_t>(size)});
  EXPECT_EQ(Decrypt(), EKEYREJECTED);
}

TEST_F(KeyContainerFile, OfAnotherKeyGivesBadMessage) {
  StoreInContainer(ApplicationKey::Of(2048), "Test.Container");
  EXPECT_EQ(Decrypt(), EBADMSG);
}

TEST_F(KeyContainerFile, WithoutContainerNameIsTheDefaultOne) {
  StoreInContainer(m_key, "default");
  Platform::SecretText plainText;
  EXPECT_EQ(Platform::DecryptWithContainer(L"", m_key.Encrypt("secret"), plainText), 0);
}

// Keep-alive

struct KeepAliveTimes {
  std::uint32_t milliseconds;
  int seconds;
};

void PrintTo(const KeepAliveTimes& times, std::ostream* out) { *out << times.milliseconds << " ms"; }

class KeepAliveTime : public testing::TestWithParam<KeepAliveTimes> {
 protected:
  int ReadBack(int option) {
    int value = -1;
    socklen_t size = sizeof value;
    getsockopt(m_connection.Near().get_handle(), IPPROTO_TCP, option, &value, &size);
    return value;
  }

  LoopbackConnection m_connection;
};

TEST_P(KeepAliveTime, BeforeFirstProbeIsSetInSecondsRoundedUp) {
  ASSERT_EQ(Platform::SetKeepAlive(m_connection.Near().get_handle(), GetParam().milliseconds, 7000).Number(), 0);
  EXPECT_EQ(ReadBack(TCP_KEEPIDLE), GetParam().seconds);
  EXPECT_EQ(ReadBack(TCP_KEEPINTVL), 7);
}

TEST_P(KeepAliveTime, BetweenProbesIsSetInSecondsRoundedUp) {
  ASSERT_EQ(Platform::SetKeepAlive(m_connection.Near().get_handle(), 7000, GetParam().milliseconds).Number(), 0);
  EXPECT_EQ(ReadBack(TCP_KEEPINTVL), GetParam().seconds);
  EXPECT_EQ(ReadBack(TCP_KEEPIDLE), 7);
}

INSTANTIATE_TEST_SUITE_P(Times, KeepAliveTime,
                         testing::Values(KeepAliveTimes{0, 1}, KeepAliveTimes{1, 1}, KeepAliveTimes{1000, 1},
                                         KeepAliveTimes{1001, 2}, KeepAliveTimes{30000, 30},
                                         KeepAliveTimes{4294967295U, 32767}));

TEST(SetKeepAlive, OnSomethingElseThanSocketGivesTheSystemsError) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_EQ(Platform::SetKeepAlive(ends[0], 1000, 1000), Platform::ToCallerError(ENOTSOCK));
  close(ends[0]);
  close(ends[1]);
}

// Broken pipes

volatile std::sig_atomic_t brokenPipes = 0;

void CountBrokenPipe(int) { brokenPipes = brokenPipes + 1; }

/// A socket whose peer is gone, and a handler that counts the signals that writing to it raises.
class BrokenPipe : public testing::Test {
 protected:
  BrokenPipe() {
    brokenPipes = 0;
    struct sigaction action {};
    action.sa_handler = CountBrokenPipe;
    sigaction(SIGPIPE, &action, &m_previousAction);
    sigset_t none = OnlyBrokenPipe();
    pthread_sigmask(SIG_UNBLOCK, &none, &m_previousMask);
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) == 0) {
      m_socket = ends[0];
      close(ends[1]);
    }
  }
  ~BrokenPipe() override {
    close(m_socket);
    pthread_sigmask(SIG_SETMASK, &m_previousMask, nullptr);
    sigaction(SIGPIPE, &m_previousAction, nullptr);
  }

  static sigset_t OnlyBrokenPipe() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
  }
  static bool IsPending() {
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
  }
  static bool IsBlocked() {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, SIGPIPE) == 1;
  }
  /// Writes to the socket; returns the error number.
  int Write() {
    errno = 0;
    return write(m_socket, "x", 1) == -1 ? errno : 0;
  }

  int m_socket = -1;

 private:
  struct sigaction m_previousAction {};
  sigset_t m_previousMask{};
};

TEST_F(BrokenPipe, RaisesSignalWithoutGuard) {
  EXPECT_EQ(Write(), EPIPE);
  EXPECT_EQ(brokenPipes, 1);
}

TEST_F(BrokenPipe, RaisesNoSignalUnderGuard) {
  {
    const Platform::BrokenPipeGuard guard;
    EXPECT_EQ(Write(), EPIPE);
    EXPECT_EQ(Write(), EPIPE);
  }
  EXPECT_EQ(brokenPipes, 0);
  EXPECT_FALSE(IsPending());
}

TEST_F(BrokenPipe, RaisesSignalAgainAfterGuard) {
  { const Platform::BrokenPipeGuard guard; }
  EXPECT_EQ(Write(), EPIPE);
  EXPECT_EQ(brokenPipes, 1);
}

TEST_F(BrokenPipe, RaisesNoSignalUnderNestedGuards) {
  {
    const Platform::BrokenPipeGuard outer;
    {
      const Platform::BrokenPipeGuard inner;
      Write();
    }
    Write();
  }
  EXPECT_EQ(brokenPipes, 0);
  EXPECT_FALSE(IsPending());
  EXPECT_FALSE(IsBlocked());
}

TEST_F(BrokenPipe, GuardKeepsErrorNumber) {
  {
    const Platform::BrokenPipeGuard guard;
    Write();
    errno = EXDEV;
  }
  EXPECT_EQ(errno, EXDEV);
}

TEST_F(BrokenPipe, SignalPendingBeforeGuardStaysPending) {
  const sigset_t set = OnlyBrokenPipe();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  pthread_kill(pthread_self(), SIGPIPE);
  ASSERT_TRUE(IsPending());
  {
    const Platform::BrokenPipeGuard guard;
    EXPECT_EQ(Write(), EPIPE);
  }
  EXPECT_TRUE(IsPending());
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  EXPECT_EQ(brokenPipes, 1);
}

TEST_F(BrokenPipe, GuardKeepsSignalBlockedThatWasBlocked) {
  const sigset_t set = OnlyBrokenPipe();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  {
    const Platform::BrokenPipeGuard guard;
    Write();
  }
  EXPECT_TRUE(IsBlocked());
  int ignored = 0;
  if (IsPending()) sigwait(&set, &ignored);
}

TEST_F(BrokenPipe, SendNowNeedsNoGuard) {
  EXPECT_EQ(Platform::SendNow(m_socket, "x", 1).m_error.Number(), 10054);
  EXPECT_EQ(brokenPipes, 0);
}

TEST(ReadFileHeadOfPipe, IsRefusedWithoutWaitingForItsWriter) {
  InstallationDirectory installation;
  const std::wstring path = installation.InstallFile();
  ASSERT_EQ(mkfifo(WindowsAgentCommon::WideToUtf8(path).c_str(), 0600), 0);
  Platform::SecretText content;
  content.Resize(3);
  EXPECT_EQ(Platform::ReadFileHead(path, 100, content), ENOTSUP);
  EXPECT_EQ(content.View(), "");
}

TEST(KeyContainerErrors, OfExportLeaveTheErrorsOfTheTlsLibraryAsTheyWere) {
  InstallationDirectory installation;
  installation.Write("config/keys/default.pem", "no key");
  chmod((installation.ConfigDirectory() / "keys/default.pem").c_str(), 0600);
  ERR_clear_error();
  ERR_raise(ERR_LIB_USER, 42);
  std::vector<std::uint8_t> bytes;
  EXPECT_EQ(Platform::ExportPublicKey(L"", bytes), EKEYREJECTED);
  EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), 42);
  EXPECT_EQ(ERR_get_error(), 0u);
}

TEST(KeyContainerErrors, LeaveTheErrorsOfTheTlsLibraryAsTheyWere) {
  InstallationDirectory installation;
  StoreInContainer(ApplicationKey::Of(1024));
  ERR_clear_error();
  ERR_raise(ERR_LIB_USER, 42);
  const std::vector<std::uint8_t> garbage(128, 1);
  Platform::SecretText plainText;
  EXPECT_NE(Platform::DecryptWithContainer(L"Sorvex.ConfigServerConnection", garbage, plainText), 0);
  EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), 42);
  EXPECT_EQ(ERR_get_error(), 0u);
}

}  // namespace
