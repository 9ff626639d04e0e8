// The records that agent and configuration server exchange over a direct TLS connection: every field once, in wire
// order, with its bound. docs/protocol.md shows the bytes.
#pragma once

#include <host/ISerializer.h>

#include <ace/Message_Block.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace SSLConfigServerProto {

/// Versions of the wire protocol and of its records. Code that depends on them uses a `switch` without a default, so
/// that the compiler names every place that has to handle a new version.
enum class WireProtocol { Version1, Version2 };

/// Returns "1.0" or "2.0".
const char* WireVersionText(WireProtocol protocol);

enum RequestType : std::uint32_t {
  WIRE_REQ_TYPE_CONNECTION_ESTABLISHMENT = 1,
  WIRE_REQ_TYPE_REGISTER_INSTANCE = 2,
  WIRE_REQ_TYPE_UPDATE_STATUS = 3,
  WIRE_REQ_TYPE_CONFIGURATION_UPDATE = 4,
  WIRE_REQ_TYPE_CODE_UPDATE = 5,
  WIRE_REQ_TYPE_CONNECTION_ESTABLISHMENT_2 = 6,
};

enum ConnectionFlags : std::uint32_t {
  CONNECTION_FLAG_NONE = 0,
  CONNECTION_FLAG_DIAGNOSTIC = 1,  ///< the connection only tests that it can reach the server
};

/// Bounds on what is read, in bytes. A length equal to its bound is accepted.
constexpr std::uint32_t maxWireStringBytes = 0x100000;
constexpr std::uint32_t maxWireDigestBytes = 32;
constexpr std::uint32_t maxWireDataBytes = 0x6400000;

/// Returns the fixed description of a result code from a response or a local failure.
const char* ResultText(std::uint32_t resultCode);

/// Wipes an array before it frees it: the application token travels as a wire string.
struct WipingArrayDelete {
  std::size_t sizeInBytes = 0;

  void operator()(char* array) const;
};

/// A text preceded by its length.
struct WireString {
  std::uint32_t size_in_bytes = 0;
  /// `size_in_bytes` bytes without a terminator; null when that is 0.
  std::unique_ptr<char[], WipingArrayDelete> data;

  std::string_view View() const { return {data.get(), size_in_bytes}; }
};

/// Data preceded by their length and, in some records, by their MD5.
struct WireBinary {
  std::uint32_t size_in_bytes = 0;
  WireString digest;
  std::shared_ptr<ACE_Message_Block> data;  ///< its unread bytes, `size_in_bytes` of them; null when that is 0
};

/// Reads a text. A length above `clampLength` is logged and thrown as `SocketException` before anything is allocated;
/// the string is then empty. Like the three operations below, it returns the number of bytes moved.
std::uint32_t SerializeWireStringFromWire(WindowsAgentCommon::ISerializer& serializer, WireString& string,
                                          std::uint32_t clampLength);

/// Reads data, in the form with a digest when `bWithDigest`. The digest is read even without data, deliberately: the
/// writer below then sends none. A length above `clampLength` is logged and thrown as `SocketException`.
std::uint32_t SerializeWireBinaryFromWire(WindowsAgentCommon::ISerializer& serializer, WireBinary& binary,
                                          bool bWithDigest, std::uint32_t clampLength);

std::uint32_t SerializeWireStringToWire(WindowsAgentCommon::ISerializer& serializer, const WireString& string);

/// Writes data, in the form with a digest when `bWithDigest`: the stored one, or else the MD5 of the data. For empty
/// data only the length is written, deliberately without a digest. Throws `SocketException` and writes nothing when
/// `size_in_bytes` differs from the number of unread bytes.
std::uint32_t SerializeWireBinaryToWire(WindowsAgentCommon::ISerializer& serializer, const WireBinary& binary,
                                        bool bWithDigest);

/// Copies `text`, at most 4 GiB - 1, into `string`, replacing its content.
void SetWireString(WireString& string, std::string_view text);

/// Copies the unread bytes of `block`, at most 4 GiB - 1, and computes their MD5 as the digest.
void SetWireBinary(WireBinary& binary, const ACE_Message_Block& block);

std::string GetText(const WireString& string);

/// Returns the data in a block that the caller owns, empty when there are none. With `bRelease` the binary and its
/// digest are empty afterwards.
std::shared_ptr<ACE_Message_Block> GetMessageBlock(WireBinary& binary, bool bRelease);

/// The start of every request and response.
///
/// Each record derived from it has its `name`, and `VisitFields(record, visit)`, which calls `visit` for each field in
/// wire order with its name and itself, then for a string its bound, for data whether they carry a digest and their
/// bound. Writing, reading and measuring are such visits (src/wire/RecordIo.h).
struct RecordHeader {
  RecordHeader() = default;
  virtual ~RecordHeader();

  std::uint32_t requestType = 0;  ///< a response carries that of its request
  std::uint32_t recordSize = 0;   ///< number of bytes after this field; receivers store but do not check it
  WireString recordVersion;

  template <class Record, class Visitor>
  static void VisitFields(Record& record, Visitor&& visit) {
    visit("requestType", record.requestType);
    visit("recordSize", record.recordSize);
    visit("recordVersion", record.recordVersion, maxWireStringBytes);
  }
};

/// Identifies the agent and its protocol version.
struct IdentityRecord : RecordHeader {
  WireString wireProtocolVersion;
  WireString applicationIdentifier;
  WireString applicationToken;

  template <class Record, class Visitor>
  static void VisitFields(Record& record, Visitor&& visit) {
    RecordHeader::VisitFields(record, visit);
    visit("wireProtocolVersion", record.wireProtocolVersion, maxWireStringBytes);
    visit("applicationIdentifier", record.applicationIdentifier, maxWireStringBytes);
    visit("applicationToken", record.applicationToken, maxWireStringBytes);
  }
};

/// Protocol 1.0.
struct ConnectionEstablishmentRequest : IdentityRecord {
  static constexpr const char* name = "ConnectionEstablishmentRequest";
  static constexpr RequestType type = WIRE_REQ_TYPE_CONNECTION_ESTABLISHMENT;
};

/// Protocol 2.0.
struct ConnectionEstablishmentRequest2 : IdentityRecord {
  static constexpr const char* name = "ConnectionEstablishmentRequest2";
  static constexpr RequestType type = WIRE_REQ_TYPE_CONNECTION_ESTABLISHMENT_2;

  std::uint32_t connection_flags = CONNECTION_FLAG_NONE;
  std::int64_t timestamp = 0;  ///< whole seconds since 1970-01-01 00:00 UTC, when the record is sent
  WireString timeZone;         ///< UTF-8
  WireBinary public_key;       ///< the agent's, as `Platform::ExportPublicKey` gives it

  template <class Record, class Visitor>
  static void VisitFields(Record& record, Visitor&& visit) {
    IdentityRecord::VisitFields(record, visit);
    visit("connection_flags", record.connection_flags);
    visit("timestamp", record.timestamp);
    visit("timeZone", record.timeZone, maxWireStringBytes);
    visit("public_key", record.public_key, true, maxWireDataBytes);
  }
};

struct RegisterInstanceRequest : RecordHeader {
  static constexpr const char* name = "RegisterInstanceRequest";
  static constexpr RequestType type = WIRE_REQ_TYPE_REGISTER_INSTANCE;

  WireString osVersion;
  WireString agentVersion;
  WireString autoCreationParameters;

  template <class Record, class Visitor>
  static void VisitFields(Record& record, Visitor&& visit) {
    RecordHeader::VisitFields(record, visit);
    visit("osVersion", record.osVersion, maxWireStringBytes);
    visit("agentVersion", record.agentVersion, maxWireStringBytes);
    visit("autoCreationParameters", record.autoCreationParameters, maxWireStringBytes);
  }
};

struct UpdateStatusRequest : RecordHeader {
  static constexpr const char* name = "UpdateStatusRequest";
  static constexpr RequestType type = WIRE_REQ_TYPE_UPDATE_STATUS;

  std::uint32_t status = 0;
  std::uint32_t statusTime = 0;  ///< whole seconds, truncated to 32 bits

  template <class Record, class Visitor>
  static void VisitFields(Record& record, Visitor&& visit) {
    RecordHeader::VisitFields(record, visit);
    visit("status", record.status);
    visit("statusTime", record.statusTime);
  }
};

struct ConfigurationUpdateRequest : RecordHeader {
  static constexpr const char* name = "ConfigurationUpdateRequest";
  static constexpr RequestType type = WIRE_REQ_TYPE_CONFIGURATION_UPDATE;

  WireString currentMD5;  ///< of the configuration that the agent has; 32 times "F" when it has none

  template <class Record, class Visitor>
  static void VisitFields(Record& record, Visitor&& visit) {
    RecordHeader::VisitFields(record, visit);
    visit("currentMD5", record.currentMD5, maxWireStringBytes);
  }
};

struct CodeUpdateRequest : RecordHeader {
  static constexpr const char* name = "CodeUpdateRequest";
  static constexpr RequestType type = WIRE_REQ_TYPE_CODE_UPDATE;

  WireString currentVersion;  ///< of the agent's code

  template <class Record, class Visitor>
  static void VisitFields(Record& record, Visitor&& visit) {
    RecordHeader::VisitFields(record, visit);
    visit("currentVersion", record.currentVersion, maxWireStringBytes);
  }
};

/// The start of every response; some responses have nothing else.
struct ResponseRecord : RecordHeader {
  std::uint32_t resultCode = 0;

  template <class Record, class Visitor>
  static void VisitFields(Record& record, Visitor&& visit) {
    RecordHeader::VisitFields(record, visit);
    visit("resultCode", record.resultCode);
  }
};

struct ConnectionEstablishmentResponse : ResponseRecord {
  static constexpr const char* name = "ConnectionEstablishmentResponse";
};

struct RegisterInstanceResponse : ResponseRecord {
  static constexpr const char* name = "RegisterInstanceResponse";
};

struct UpdateStatusResponse : ResponseRecord {
  static constexpr const char* name = "UpdateStatusResponse";
};

struct ConnectionEstablishmentResponse2 : ResponseRecord {
  static constexpr const char* name = "ConnectionEstablishmentResponse2";

  WireString wireProtocolVersion;  ///< the server's

  template <class Record, class Visitor>
  static void VisitFields(Record& record, Visitor&& visit) {
    ResponseRecord::VisitFields(record, visit);
    visit("wireProtocolVersion", record.wireProtocolVersion, maxWireStringBytes);
  }
};

/// A response whose fields depend on the version.
struct DataResponseRecord : ResponseRecord {
  explicit DataResponseRecord(WireProtocol version) : protocol(version) {}

  const WireProtocol protocol;  ///< not sent
};

struct ConfigurationUpdateResponse : DataResponseRecord {
  static constexpr const char* name = "ConfigurationUpdateResponse";

  using DataResponseRecord::DataResponseRecord;

  WireBinary serverPublicKey;  ///< protocol 2.0
  WireBinary configurationData;

  template <class Record, class Visitor>
  static void VisitFields(Record& record, Visitor&& visit) {
    ResponseRecord::VisitFields(record, visit);
    switch (record.protocol) {
      case WireProtocol::Version1: visit("configurationData", record.configurationData, false, maxWireDataBytes); break;
      case WireProtocol::Version2:
        visit("serverPublicKey", record.serverPublicKey, true, maxWireDataBytes);
        visit("configurationData", record.configurationData, true, maxWireDataBytes);
        break;
    }
  }
};

struct CodeUpdateResponse : DataResponseRecord {
  static constexpr const char* name = "CodeUpdateResponse";

  using DataResponseRecord::DataResponseRecord;

  WireBinary codeData;

  template <class Record, class Visitor>
  static void VisitFields(Record& record, Visitor&& visit) {
    ResponseRecord::VisitFields(record, visit);
    switch (record.protocol) {
      case WireProtocol::Version1: visit("codeData", record.codeData, false, maxWireDataBytes); break;
      case WireProtocol::Version2: visit("codeData", record.codeData, true, maxWireDataBytes); break;
    }
  }
};

}  // namespace SSLConfigServerProto
