// Single fields and whole records, read from any bytes and written again. The first byte chooses what is read, a letter
// from 'a' on.
#include "support/AllRecords.h"
#include "support/FakeRawSocket.h"

#include "wire/RecordIo.h"
#include "wire/SocketSerializer.h"

#include <host/Digest.h>
#include <host/Exceptions.h>
#include <host/LoggerFactory.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>

namespace {

using namespace SSLConfigServerProto;
using sorvex::test::AllRecords;
using sorvex::test::FakeRawSocket;
using VaroCommunicationAPI::SocketSerializer;

/// The size requested from the socket was allocated before: never more than the bound, apart from the numbers.
void CheckReads(const FakeRawSocket& socket, std::uint32_t bound) {
  for (const FakeRawSocket::Call& call : socket.Calls()) {
    if (call.kind == FakeRawSocket::Call::Kind::Receive && call.length > std::max(bound, 8u)) std::abort();
  }
}

/// Whether `read` finishes. Otherwise it throws `SocketException`.
template <class Read>
bool ReadsWhole(Read read) {
  try {
    read();
  } catch (const WindowsAgentCommon::SocketException&) {
    return false;
  }
  return true;
}

template <std::uint32_t clampLength>
void ReadString(std::string_view input) {
  const auto socket = std::make_shared<FakeRawSocket>(input);
  SocketSerializer serializer(socket);
  WireString string;
  SetWireString(string, "stale");
  std::uint32_t moved = 0;
  const bool bWhole = ReadsWhole([&] { moved = SerializeWireStringFromWire(serializer, string, clampLength); });
  CheckReads(*socket, clampLength);
  if (!bWhole) {
    if (string.size_in_bytes != 0 || string.data) std::abort();
    return;
  }
  if (moved != input.size() - socket->Unread() || string.size_in_bytes > clampLength) std::abort();
  if (SerializeWireStringToWire(serializer, string) != moved) std::abort();
  if (socket->Sent() != input.substr(0, moved)) std::abort();
}

template <bool bWithDigest, std::uint32_t clampLength>
void ReadBinary(std::string_view input) {
  const auto socket = std::make_shared<FakeRawSocket>(input);
  SocketSerializer serializer(socket);
  WireBinary binary;
  std::uint32_t moved = 0;
  const bool bWhole =
      ReadsWhole([&] { moved = SerializeWireBinaryFromWire(serializer, binary, bWithDigest, clampLength); });
  CheckReads(*socket, bWithDigest ? std::max(clampLength, maxWireDigestBytes) : clampLength);
  if (!bWhole) {
    if (binary.size_in_bytes != 0 || binary.data) std::abort();
    return;
  }
  if (moved != input.size() - socket->Unread() || binary.size_in_bytes > clampLength) std::abort();
  if ((binary.size_in_bytes == 0) != (binary.data == nullptr)) std::abort();
  std::string expected(input.substr(0, moved));
  if (binary.size_in_bytes == 0) {
    // Its digest is not written.
    expected.resize(4);
  } else if (bWithDigest && binary.digest.size_in_bytes == 0) {
    // A missing digest is computed.
    expected.insert(8, WindowsAgentCommon::MD5Sum(binary.data->rd_ptr(), binary.data->length()));
    expected[7] = 32;
  }
  if (SerializeWireBinaryToWire(serializer, binary, bWithDigest) != expected.size()) std::abort();
  if (socket->Sent() != expected) std::abort();
}

/// Examines the fields of a record.
struct FieldLook {
  void operator()(const char*, std::uint32_t) {}
  void operator()(const char*, std::int64_t) {}
  void operator()(const char*, const WireString&, std::uint32_t clampLength) {
    m_bound = std::max(m_bound, clampLength);
  }
  void operator()(const char*, const WireBinary& field, bool bWithDigest, std::uint32_t clampLength) {
    m_bound = std::max(m_bound, clampLength);
    if (bWithDigest && (field.size_in_bytes == 0 || field.digest.size_in_bytes == 0)) m_bWrittenAsRead = false;
  }

  std::uint32_t m_bound = 0;
  bool m_bWrittenAsRead = true;  ///< not where the digest of empty data is left out, or a missing one computed
};

template <class Form>
void ReadAndWrite(std::string_view input) {
  using Record = typename Form::Record;
  Record record = Form::Make();
  const auto socket = std::make_shared<FakeRawSocket>(input);
  SocketSerializer serializer(socket);
  const bool bWhole = ReadsWhole([&] { ReadRecord(serializer, record); });
  FieldLook look;
  Record::VisitFields(record, look);
  CheckReads(*socket, look.m_bound);
  if (!bWhole) return;
  WriteRecord(serializer, record);
  if (!look.m_bWrittenAsRead) return;
  const std::string_view read = input.substr(0, input.size() - socket->Unread());
  if (socket->Sent() != read || MeasureRecord(record) != read.size() - 8) std::abort();
}

constexpr void (*fieldReadings[])(std::string_view) = {
    ReadString<0>,                        // a
    ReadString<maxWireDigestBytes>,       // b
    ReadString<maxWireStringBytes>,       // c
    ReadBinary<false, 16>,                // d
    ReadBinary<false, maxWireDataBytes>,  // e
    ReadBinary<true, 16>,                 // f
    ReadBinary<true, maxWireDataBytes>,   // g
};

/// The records follow: h, i and so on.
void Read(std::size_t choice, std::string_view input) {
  if (choice < std::size(fieldReadings)) return fieldReadings[choice](input);
  std::size_t next = std::size(fieldReadings);
  AllRecords::ForEach([&]<class Form>(Form) {
    if (next++ == choice) ReadAndWrite<Form>(input);
  });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  WindowsAgentCommon::LoggerFactory::SetSink(nullptr);
  Read(static_cast<std::uint8_t>(data[0] - 'a') % (std::size(fieldReadings) + AllRecords::size),
       {reinterpret_cast<const char*>(data) + 1, size - 1});
  return 0;
}
