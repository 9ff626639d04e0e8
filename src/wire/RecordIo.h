// Writes, reads and measures records, from each one's list of fields.
#pragma once

#include <CommunicationAPI/SSLConfigServerProtocolDefinition.h>

#include <cstddef>
#include <cstdint>
#include <utility>

namespace SSLConfigServerProto {

/// Writes each field that it visits.
class RecordWriter {
 public:
  explicit RecordWriter(WindowsAgentCommon::ISerializer& serializer) : m_serializer(serializer) {}

  void operator()(std::uint32_t field) { m_serializer.WriteLong(field); }
  void operator()(std::int64_t field) { m_serializer.WriteInt64(field); }
  void operator()(const WireString& field, std::uint32_t) { SerializeWireStringToWire(m_serializer, field); }
  void operator()(const WireBinary& field, bool bWithDigest, std::uint32_t) {
    SerializeWireBinaryToWire(m_serializer, field, bWithDigest);
  }

 private:
  WindowsAgentCommon::ISerializer& m_serializer;
};

/// Calls `beforeField` with the address of each field that it visits, and reads it.
template <class BeforeField>
class RecordReader {
 public:
  RecordReader(WindowsAgentCommon::ISerializer& serializer, BeforeField beforeField)
      : m_serializer(serializer), m_beforeField(std::move(beforeField)) {}

  void operator()(std::uint32_t& field) {
    m_beforeField(&field);
    m_serializer.ReadLong(field);
  }
  void operator()(std::int64_t& field) {
    m_beforeField(&field);
    m_serializer.ReadInt64(field);
  }
  void operator()(WireString& field, std::uint32_t clampLength) {
    m_beforeField(&field);
    SerializeWireStringFromWire(m_serializer, field, clampLength);
  }
  void operator()(WireBinary& field, bool bWithDigest, std::uint32_t clampLength) {
    m_beforeField(&field);
    SerializeWireBinaryFromWire(m_serializer, field, bWithDigest, clampLength);
  }

 private:
  WindowsAgentCommon::ISerializer& m_serializer;
  BeforeField m_beforeField;
};

/// Adds up the wire size of each field that it visits.
class RecordMeter {
 public:
  void operator()(std::uint32_t) { m_bytes += sizeof(std::uint32_t); }
  void operator()(std::int64_t) { m_bytes += sizeof(std::int64_t); }
  void operator()(const WireString& field, std::uint32_t) { m_bytes += sizeof(std::uint32_t) + field.size_in_bytes; }
  /// Counts the stored digest, even of empty data, for which it is not written.
  void operator()(const WireBinary& field, bool bWithDigest, std::uint32_t clampLength) {
    m_bytes += sizeof(std::uint32_t) + field.size_in_bytes;
    if (bWithDigest) (*this)(field.digest, clampLength);
  }

  std::size_t Bytes() const { return m_bytes; }

 private:
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

/// Throws what the serializer throws.
template <class Record>
void WriteRecord(WindowsAgentCommon::ISerializer& serializer, const Record& record) {
  Record::VisitFields(record, RecordWriter(serializer));
}

/// Does nothing before a field.
struct ReadOn {
  void operator()(const void*) const {}
};

/// Reads field after field into `record`. `beforeField` gets the address of each field before a byte of it is read.
/// After an exception, even from `beforeField`, the record is filled up to there.
template <class Record, class BeforeField = ReadOn>
void ReadRecord(WindowsAgentCommon::ISerializer& serializer, Record& record, BeforeField beforeField = {}) {
  Record::VisitFields(record, RecordReader<BeforeField>(serializer, std::move(beforeField)));
}

}  // namespace SSLConfigServerProto
