// Writes, reads and measures records, from each one's list of fields.
#pragma once

#include <CommunicationAPI/SSLConfigServerProtocolDefinition.h>
#include <host/Exceptions.h>

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

namespace SSLConfigServerProto {

/// Does nothing before a field.
struct ReadOn {
  void operator()(std::string_view) const {}
};

/// Logs at Debug which field of which record was not moved. `operation` is "ReadRecord" or "WriteRecord".
void LogFailedField(const char* operation, const char* record, const char* field);

/// Moves one field. Logs the field and rethrows what the serializer throws.
template <class Move>
void MoveField(const char* operation, const char* record, const char* field, Move move) {
  try {
    move();
  } catch (const WindowsAgentCommon::SocketException&) {
    LogFailedField(operation, record, field);
    throw;
  }
}

/// Writes each field that it visits.
class RecordWriter {
 public:
  RecordWriter(WindowsAgentCommon::ISerializer& serializer, const char* record)
      : m_serializer(serializer), m_record(record) {}

  void operator()(const char* name, std::uint32_t field) {
    Write(name, [&] { m_serializer.WriteLong(field); });
  }
  void operator()(const char* name, std::int64_t field) {
    Write(name, [&] { m_serializer.WriteInt64(field); });
  }
  void operator()(const char* name, const WireString& field, std::uint32_t) {
    Write(name, [&] { SerializeWireStringToWire(m_serializer, field); });
  }
  void operator()(const char* name, const WireBinary& field, bool bWithDigest, std::uint32_t) {
    Write(name, [&] { SerializeWireBinaryToWire(m_serializer, field, bWithDigest); });
  }

 private:
  template <class Move>
  void Write(const char* name, Move move) {
    MoveField("WriteRecord", m_record, name, move);
  }

  WindowsAgentCommon::ISerializer& m_serializer;
  const char* m_record;
};

/// Calls `beforeField` with the name of each field that it visits, and reads it.
template <class BeforeField>
class RecordReader {
 public:
  RecordReader(WindowsAgentCommon::ISerializer& serializer, const char* record, BeforeField beforeField)
      : m_serializer(serializer), m_record(record), m_beforeField(std::move(beforeField)) {}

  void operator()(const char* name, std::uint32_t& field) {
    Read(name, [&] { m_serializer.ReadLong(field); });
  }
  void operator()(const char* name, std::int64_t& field) {
    Read(name, [&] { m_serializer.ReadInt64(field); });
  }
  void operator()(const char* name, WireString& field, std::uint32_t clampLength) {
    Read(name, [&] { SerializeWireStringFromWire(m_serializer, field, clampLength); });
  }
  void operator()(const char* name, WireBinary& field, bool bWithDigest, std::uint32_t clampLength) {
    Read(name, [&] { SerializeWireBinaryFromWire(m_serializer, field, bWithDigest, clampLength); });
  }

 private:
  template <class Move>
  void Read(const char* name, Move move) {
    m_beforeField(std::string_view(name));
    MoveField("ReadRecord", m_record, name, move);
  }

  WindowsAgentCommon::ISerializer& m_serializer;
  const char* m_record;
  BeforeField m_beforeField;
};

/// Adds up the wire size of each field that it visits.
class RecordMeter {
 public:
  void operator()(const char*, std::uint32_t) { m_bytes += sizeof(std::uint32_t); }
  void operator()(const char*, std::int64_t) { m_bytes += sizeof(std::int64_t); }
  void operator()(const char*, const WireString& field, std::uint32_t) { AddText(field); }
  /// Counts the stored digest, even of empty data, for which it is not written.
  void operator()(const char*, const WireBinary& field, bool bWithDigest, std::uint32_t) {
    m_bytes += sizeof(std::uint32_t) + field.size_in_bytes;
    if (bWithDigest) AddText(field.digest);
  }

  std::size_t Bytes() const { return m_bytes; }

 private:
  void AddText(const WireString& text) { m_bytes += sizeof(std::uint32_t) + text.size_in_bytes; }

  std::size_t m_bytes = 0;
};

/// Returns the record's `recordSize`: the number of bytes after that field.
template <class Record>
std::uint32_t MeasureRecord(const Record& record) {
  RecordMeter meter;
  Record::VisitFields(record, meter);
  return static_cast<std::uint32_t>(meter.Bytes() - sizeof record.requestType - sizeof record.recordSize);
}

/// Sets the header of a request whose own fields are set.
template <class Request>
void CompleteRequest(Request& request, WireProtocol protocol) {
  request.requestType = Request::type;
  SetWireString(request.recordVersion, WireVersionText(protocol));
  request.recordSize = MeasureRecord(request);
}

/// Throws what the serializer throws; for a `SocketException` the field is logged first.
template <class Record>
void WriteRecord(WindowsAgentCommon::ISerializer& serializer, const Record& record) {
  Record::VisitFields(record, RecordWriter(serializer, Record::name));
}

/// Reads field after field into `record`, and throws as `WriteRecord` does. `beforeField` gets the name of each field
/// before a byte of it is read. After an exception, even from `beforeField`, the record is filled up to there.
template <class Record, class BeforeField = ReadOn>
void ReadRecord(WindowsAgentCommon::ISerializer& serializer, Record& record, BeforeField beforeField = {}) {
  Record::VisitFields(record, RecordReader<BeforeField>(serializer, Record::name, std::move(beforeField)));
}

}  // namespace SSLConfigServerProto
