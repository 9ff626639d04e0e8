// The reader of requests. The bytes are those of docs/protocol.md.
#include "support/HexBytes.h"

#include <Request.h>

#include <gtest/gtest.h>

namespace sorvex::configserver {
namespace {

using test::HexBytes;

const std::string establishment2 = HexBytes(
    "00 00 00 06 | 00 00 00 97 | 00 00 00 03 '2.0' | 00 00 00 03 '2.0' | 00 00 00 07 'agent-7' |"
    "00 00 00 09 '4b1d-99e0' | 00 00 00 01 | 00 00 00 00 6B 00 B7 5D |"
    "00 00 00 30 'CET (UTC + 60) Daylight Savings is not in effect' |"
    "00 00 00 09 | 00 00 00 20 'b4e8035341dace83be801cd99d0eebe9' 'agent key'");
const std::string registration = HexBytes(
    "00 00 00 02 | 00 00 00 3B | 00 00 00 03 '2.0' | 00 00 00 09 'Debian 12' | 00 00 00 05 '7.2.5' |"
    "00 00 00 1A '&AutoCreation.Enabled=true'");

struct Whole {
  const char* name;
  std::string bytes;
};

void PrintTo(const Whole& whole, std::ostream* out) { *out << whole.name; }

class WholeRequest : public testing::TestWithParam<Whole> {};

TEST_P(WholeRequest, IsCompleteAtItsLastByte) {
  const std::string& bytes = GetParam().bytes;
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    Request request;
    EXPECT_EQ(ReadRequest(bytes.substr(0, size), request).state, ReadState::NeedsMore) << size;
  }
  Request request;
  const ReadResult read = ReadRequest(bytes + "more", request);
  EXPECT_EQ(read.state, ReadState::Complete);
  EXPECT_EQ(read.size, bytes.size());
}

INSTANTIATE_TEST_SUITE_P(
    Types, WholeRequest,
    testing::Values(
        Whole{"Establishment1",
              HexBytes("00 00 00 01 | 00 00 00 26 | 00 00 00 03 '1.0' | 00 00 00 03 '1.0' | 00 00 00 07 'agent-7' |"
                       "00 00 00 09 '4b1d-99e0'")},
        Whole{"Registration", registration},
        Whole{"Status", HexBytes("00 00 00 03 | 00 00 00 0F | 00 00 00 03 '1.0' | 00 00 00 01 | 6B 00 B7 5D")},
        Whole{
            "Configuration",
            HexBytes("00 00 00 04 | 00 00 00 2B | 00 00 00 03 '1.0' | 00 00 00 20 'FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF'")},
        Whole{"Patch", HexBytes("00 00 00 05 | 00 00 00 1B | 00 00 00 03 '2.0' | 00 00 00 10 'x64_72_agentcore'")},
        Whole{"Establishment2", establishment2}),
    [](const testing::TestParamInfo<Whole>& test) { return test.param.name; });

TEST(ReadRequest, ReadsEveryFieldOfAnEstablishment) {
  Request request;
  ReadRequest(establishment2, request);
  const auto& content = std::get<Establishment>(request.content);
  EXPECT_EQ(request.type, 6u);
  EXPECT_EQ(request.recordVersion, "2.0");
  EXPECT_EQ(content.version, WireVersion::V2);
  EXPECT_EQ(content.identifier, "agent-7");
  EXPECT_EQ(content.token, "4b1d-99e0");
  EXPECT_TRUE(content.isDiagnostic);
  EXPECT_EQ(content.agentTime, 1795209053);
  EXPECT_EQ(content.timeZone, "CET (UTC + 60) Daylight Savings is not in effect");
  EXPECT_EQ(content.publicKey, "agent key");
  EXPECT_EQ(content.publicKeyDigest, "b4e8035341dace83be801cd99d0eebe9");
}

TEST(ReadRequest, ReadsEveryFieldOfARegistration) {
  Request request;
  ReadRequest(registration, request);
  const auto& content = std::get<Registration>(request.content);
  EXPECT_EQ(content.osVersion, "Debian 12");
  EXPECT_EQ(content.agentVersion, "7.2.5");
  EXPECT_EQ(content.autoCreation, "&AutoCreation.Enabled=true");
}

TEST(ReadRequest, TakesAKeyOfNoBytesWithoutADigest) {
  std::string bytes = establishment2;
  bytes.resize(bytes.size() - 4 - 32 - 9);
  bytes.back() = '\0';
  Request request;
  EXPECT_EQ(ReadRequest(bytes, request).state, ReadState::Complete);
  EXPECT_EQ(std::get<Establishment>(request.content).publicKey, "");
}

TEST(ReadRequest, UnknownTypeIsKnownFromItsFourBytes) {
  for (const std::uint32_t type : {0u, 7u, 0xFFFFFFFFu}) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(type >> shift & 0xFF);
    Request request;
    EXPECT_EQ(ReadRequest(bytes, request).state, ReadState::UnknownType);
    EXPECT_EQ(request.type, type);
  }
}

struct Field {
  const char* name;
  std::string start;  ///< of a request, up to the length
  std::uint32_t bound;
};

void PrintTo(const Field& field, std::ostream* out) { *out << field.name; }

class FieldLength : public testing::TestWithParam<Field> {
 protected:
  static ReadState StateAt(std::uint32_t length) {
    std::string bytes = GetParam().start;
    for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(length >> shift & 0xFF);
    Request request;
    return ReadRequest(bytes, request).state;
  }
};

TEST_P(FieldLength, IsBoundedBeforeItsBytesCome) {
  EXPECT_EQ(StateAt(GetParam().bound), ReadState::NeedsMore);
  EXPECT_EQ(StateAt(GetParam().bound + 1), ReadState::TooLong);
  EXPECT_EQ(StateAt(0xFFFFFFFF), ReadState::TooLong);
}

std::string Start(const char* type, const char* fields) {
  return HexBytes(std::string("00 00 00 ") + type + "00 00 00 00 | 00 00 00 03 '2.0' |" + fields);
}

constexpr const char* upToTimeZone = "00 00 00 00 | 00 00 00 01 'a' | 00 00 00 00 | 00 00 00 00 | 0000000000000000 |";
const std::string upToKey = std::string(upToTimeZone) + "00 00 00 00";
const std::string upToDigest = upToKey + "00 00 00 01";

INSTANTIATE_TEST_SUITE_P(
    Fields, FieldLength,
    testing::Values(Field{"RecordVersion", HexBytes("00 00 00 02 00 00 00 00"), 64},
                    Field{"WireVersion", Start("06", ""), 64}, Field{"Identifier", Start("01", "00 00 00 00"), 4096},
                    Field{"Token", Start("01", "00 00 00 00 | 00 00 00 01 'a'"), 4096},
                    Field{"TimeZone", Start("06", upToTimeZone), 4096},
                    Field{"Key", Start("06", upToKey.c_str()), 16384},
                    Field{"KeyDigest", Start("06", upToDigest.c_str()), 32}, Field{"OsVersion", Start("02", ""), 4096},
                    Field{"AgentVersion", Start("02", "00 00 00 00"), 4096},
                    Field{"AutoCreation", Start("02", "00 00 00 00 00 00 00 00"), 0x100000},
                    Field{"Fingerprint", Start("04", ""), 128}, Field{"PatchNames", Start("05", ""), 65536}),
    [](const testing::TestParamInfo<Field>& test) { return test.param.name; });

}  // namespace
}  // namespace sorvex::configserver
