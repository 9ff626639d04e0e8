// What the HTTPS connection asks of libcurl, and what it does when libcurl refuses. Wrappers watch libcurl's functions
// and make them fail.
#include "InstallationDirectory.h"

#include "connection/ConfigServerConnection.h"
#include "support/RecordingLogger.h"

#include <curl/curl.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr std::string_view token = "Zq7~vK2-wX9_Jm4-pR8";

struct Watch {
  std::vector<std::pair<CURLoption, void*>> m_options;
  std::vector<std::string> m_headers;
  std::string m_url;
  std::optional<CURLoption> m_refusedOption;
  bool m_bHandleFails = false;
  bool m_bHeaderFails = false;
  bool m_bEscapeFails = false;
  bool m_bPerformed = false;
  CURLcode m_result = CURLE_OK;
  std::string m_message;          ///< of a request that fails
  bool m_bSignalBlocked = false;  ///< SIGPIPE, in every call that may write
  int m_openHandles = 0;
  int m_freedLists = 0;
  int m_freedListsWithToken = 0;
};

Watch* watch = nullptr;

bool IsSignalBlocked() {
  sigset_t blocked;
  return pthread_sigmask(SIG_BLOCK, nullptr, &blocked) == 0 && sigismember(&blocked, SIGPIPE) == 1;
}

template <class Function>
Function Next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// These replace the library's own in this program.
extern "C" {

#undef curl_easy_setopt

CURL* curl_easy_init() {
  if (watch && watch->m_bHandleFails) return nullptr;
  if (watch) ++watch->m_openHandles;
  return Next<CURL* (*)()>("curl_easy_init")();
}

void curl_easy_cleanup(CURL* handle) {
  if (watch) {
    --watch->m_openHandles;
    watch->m_bSignalBlocked = watch->m_bSignalBlocked && IsSignalBlocked();
  }
  Next<void (*)(CURL*)>("curl_easy_cleanup")(handle);
}

CURLcode curl_easy_setopt(CURL* handle, CURLoption option, ...) {
  va_list arguments;
  va_start(arguments, option);
  void* const value = va_arg(arguments, void*);
  va_end(arguments);
  if (watch) {
    if (option == watch->m_refusedOption) return CURLE_OUT_OF_MEMORY;
    watch->m_options.emplace_back(option, value);
    if (option == CURLOPT_URL) watch->m_url = static_cast<const char*>(value);
  }
  return Next<CURLcode (*)(CURL*, CURLoption, ...)>("curl_easy_setopt")(handle, option, value);
}

CURLcode curl_easy_perform(CURL*) {
  // Nothing leaves this program.
  watch->m_bPerformed = true;
  watch->m_bSignalBlocked = IsSignalBlocked();
  for (const auto& [option, value] : watch->m_options) {
    if (option == CURLOPT_ERRORBUFFER) std::strcpy(static_cast<char*>(value), watch->m_message.c_str());
  }
  return watch->m_result;
}

curl_slist* curl_slist_append(curl_slist* list, const char* text) {
  if (watch->m_bHeaderFails) return nullptr;
  watch->m_headers.emplace_back(text);
  return Next<curl_slist* (*)(curl_slist*, const char*)>("curl_slist_append")(list, text);
}

void curl_slist_free_all(curl_slist* list) {
  if (watch && list) {
    ++watch->m_freedLists;
    // The memory is as long as the header was, whatever its first byte is now.
    const std::string_view memory(list->data, std::strlen("SEC: ") + token.size());
    for (std::size_t i = 0; i + 4 <= token.size(); ++i) {
      if (memory.find(token.substr(i, 4)) == std::string_view::npos) continue;
      ++watch->m_freedListsWithToken;
      break;
    }
  }
  Next<void (*)(curl_slist*)>("curl_slist_free_all")(list);
}

char* curl_easy_escape(CURL* handle, const char* text, int size) {
  if (watch->m_bEscapeFails) return nullptr;
  return Next<char* (*)(CURL*, const char*, int)>("curl_easy_escape")(handle, text, size);
}

}  // extern "C"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class HttpLibrary : public testing::Test {
 protected:
  HttpLibrary() {
    watch = &m_watch;
    m_installation.Write("config/Console.PEM", "trusted");
  }
  ~HttpLibrary() override {
    m_connection.Shutdown();
    watch = nullptr;
  }

  bool Initialize(WindowsAgentCommon::ParameterBlock parameters = {}) {
    parameters.emplace("ConfigurationServer", "server.example");
    parameters.emplace("ApplicationIdentifier", "agent");
    parameters.emplace("ApplicationToken", token);
    return m_connection.Initialize(parameters);
  }

  std::vector<CURLoption> Options() const {
    std::vector<CURLoption> options;
    for (const auto& option : m_watch.m_options) options.push_back(option.first);
    return options;
  }

  void* Value(CURLoption option) const {
    for (const auto& [name, value] : m_watch.m_options) {
      if (name == option) return value;
    }
    ADD_FAILURE() << "not set: " << option;
    return nullptr;
  }

  long Number(CURLoption option) const { return static_cast<long>(reinterpret_cast<std::intptr_t>(Value(option))); }

  Watch m_watch;
  sorvex::test::InstallationDirectory m_installation;
  sorvex::test::RecordingLogger m_log;
  VaroCommunicationAPI::ConfigServerConnection m_connection;
};

TEST_F(HttpLibrary, IsGivenTheseOptionsInThisOrderAndNoOthers) {
  EXPECT_TRUE(Initialize());
  EXPECT_THAT(Options(), ElementsAre(CURLOPT_HTTPHEADER, CURLOPT_ERRORBUFFER, CURLOPT_WRITEFUNCTION,
                                     CURLOPT_HEADERFUNCTION, CURLOPT_WRITEDATA, CURLOPT_HEADERDATA,
                                     CURLOPT_SSL_VERIFYPEER, CURLOPT_SSL_VERIFYHOST, CURLOPT_CERTINFO, CURLOPT_CAINFO,
                                     CURLOPT_VERBOSE, CURLOPT_CAPATH, CURLOPT_DEBUGFUNCTION, CURLOPT_DEBUGDATA));
  EXPECT_EQ(Value(CURLOPT_WRITEDATA), &m_connection);
  EXPECT_EQ(Value(CURLOPT_HEADERDATA), &m_connection);
  EXPECT_EQ(Number(CURLOPT_SSL_VERIFYPEER), 1);
  EXPECT_EQ(Number(CURLOPT_SSL_VERIFYHOST), 0);
  EXPECT_EQ(Number(CURLOPT_CERTINFO), 1);
  EXPECT_EQ(Number(CURLOPT_VERBOSE), 0);
  EXPECT_EQ(Value(CURLOPT_CAPATH), nullptr);
  EXPECT_THAT(m_watch.m_headers, ElementsAre("SEC: " + std::string(token)));
}

TEST_F(HttpLibrary, IsVerboseWhenAsked) {
  EXPECT_TRUE(Initialize({{"Curl.Verbose", "yes"}}));
  EXPECT_EQ(Number(CURLOPT_VERBOSE), 1);
}

TEST_F(HttpLibrary, IsGivenTheUrlAloneForARequest) {
  EXPECT_TRUE(Initialize());
  m_watch.m_options.clear();
  EXPECT_TRUE(m_connection.PostHeartbeat());
  EXPECT_THAT(Options(), ElementsAre(CURLOPT_URL));
}

TEST_F(HttpLibrary, WritesWithoutSignals) {
  EXPECT_TRUE(Initialize());
  EXPECT_TRUE(m_connection.PostHeartbeat());
  EXPECT_TRUE(m_watch.m_bSignalBlocked);
  m_connection.Shutdown();
  EXPECT_TRUE(m_watch.m_bSignalBlocked);
  EXPECT_FALSE(IsSignalBlocked());
}

TEST_F(HttpLibrary, IsGivenNoTokenWithALineBreak) {
  EXPECT_TRUE(Initialize({{"ApplicationToken", "a\nb"}}));
  EXPECT_THAT(m_watch.m_headers, IsEmpty());
  EXPECT_FALSE(m_connection.PostHeartbeat());
  EXPECT_FALSE(m_watch.m_bPerformed);
}

TEST_F(HttpLibrary, MayGiveNoHandle) {
  m_watch.m_bHandleFails = true;
  EXPECT_FALSE(Initialize());
  EXPECT_FALSE(m_connection.PostHeartbeat());
  // It may be tried again.
  m_watch.m_bHandleFails = false;
  EXPECT_TRUE(Initialize());
  EXPECT_TRUE(m_connection.PostHeartbeat());
}

TEST_F(HttpLibrary, MayGiveNoHeader) {
  m_watch.m_bHeaderFails = true;
  EXPECT_FALSE(Initialize());
  EXPECT_FALSE(m_connection.PostHeartbeat());
}

class RefusedOption : public HttpLibrary, public testing::WithParamInterface<CURLoption> {};

TEST_P(RefusedOption, LeavesTheConnectionUninitialized) {
  m_watch.m_refusedOption = GetParam();
  EXPECT_FALSE(Initialize());
  EXPECT_EQ(m_watch.m_openHandles, 0);
  EXPECT_FALSE(m_connection.PostHeartbeat());
  EXPECT_FALSE(m_watch.m_bPerformed);
}

INSTANTIATE_TEST_SUITE_P(Options, RefusedOption,
                         testing::Values(CURLOPT_HTTPHEADER, CURLOPT_SSL_VERIFYPEER, CURLOPT_CAINFO, CURLOPT_CAPATH,
                                         CURLOPT_DEBUGFUNCTION));

TEST_F(HttpLibrary, MayRefuseTheUrl) {
  EXPECT_TRUE(Initialize());
  m_watch.m_refusedOption = CURLOPT_URL;
  EXPECT_FALSE(m_connection.PostHeartbeat());
  EXPECT_FALSE(m_watch.m_bPerformed);
  EXPECT_EQ(m_connection.GetLastErrorCode(), CURLE_OUT_OF_MEMORY);
  EXPECT_EQ(m_connection.GetLastResultCode(), 0);
  // libcurl has no more to say about it.
  EXPECT_EQ(m_log->Count("Error Failed to run 'PostHeartbeat' command on configuration server.\n    URL: "
                         "https://server.example/console/sorvex?Name=PostHeartbeat&Identifier=agent PostFields: \n"
                         "    Error code: 27 "),
            1U);
}

TEST_F(HttpLibrary, MayRefuseTheUrlAfterAFailure) {
  EXPECT_TRUE(Initialize());
  m_watch.m_result = CURLE_RECV_ERROR;
  m_watch.m_message = "text";
  EXPECT_FALSE(m_connection.PostHeartbeat());
  EXPECT_EQ(m_connection.GetLastErrorMessage(), "text");
  m_watch.m_refusedOption = CURLOPT_URL;
  EXPECT_FALSE(m_connection.PostHeartbeat());
  EXPECT_EQ(m_connection.GetLastErrorMessage(), "");
}

TEST_F(HttpLibrary, ReportsAMessageUpToTheLengthOfItsBuffer) {
  EXPECT_TRUE(Initialize());
  m_watch.m_result = CURLE_RECV_ERROR;
  m_watch.m_message = std::string(1023, 'm');
  EXPECT_FALSE(m_connection.PostHeartbeat());
  EXPECT_EQ(m_connection.GetLastErrorMessage(), m_watch.m_message);
}

TEST_F(HttpLibrary, MayEscapeNothing) {
  m_watch.m_bEscapeFails = true;
  EXPECT_TRUE(Initialize({{"AutoCreation.A", "b c"}}));
  EXPECT_EQ(m_log->Count("Debug Log source auto-creation parameters: &AutoCreation.A=b c"), 1U);
  const std::string start = "https://server.example/console/sorvex?Name=";
  EXPECT_TRUE(m_connection.RegisterInstance("d e", "&"));
  EXPECT_EQ(m_watch.m_url,
            start + "RegisterInstance&Identifier=agent&OS+version=d e&Sorvex+version=&&AutoCreation.A=b c");
  std::ostringstream output;
  std::string md5;
  EXPECT_TRUE(m_connection.RetrieveSoftwarePatch({"A", "B"}, output, md5));
  EXPECT_EQ(m_watch.m_url, start + "RetrieveSoftwarePatch&Identifier=agent&OutOfDateList=x64_72_A,x64_72_B");
}

TEST_F(HttpLibrary, GetsItsListBackWithoutTheToken) {
  EXPECT_TRUE(Initialize());
  EXPECT_TRUE(m_connection.PostHeartbeat());
  EXPECT_EQ(m_watch.m_freedLists, 0);
  m_connection.Shutdown();
  EXPECT_EQ(m_watch.m_freedLists, 1);
  EXPECT_EQ(m_watch.m_freedListsWithToken, 0);
  EXPECT_EQ(m_watch.m_openHandles, 0);
}

}  // namespace
