// Every record of the wire protocol, for tests, fuzz targets and benchmarks of all of them.
#pragma once

#include <CommunicationAPI/SSLConfigServerProtocolDefinition.h>

#include <cstddef>
#include <type_traits>

namespace sorvex::test {

using SSLConfigServerProto::WireProtocol;

/// One of a record's forms on the wire.
template <class RecordType, WireProtocol version>
struct RecordForm {
  using Record = RecordType;
  static constexpr WireProtocol protocol = version;
  /// Whether the record has different fields in the other version of the protocol.
  static constexpr bool bVersionTellsFields = std::is_constructible_v<Record, WireProtocol>;

  static Record Make() {
    if constexpr (bVersionTellsFields) {
      return Record(protocol);
    } else {
      return Record();
    }
  }
};

template <class... Elements>
struct TypeList {
  static constexpr std::size_t size = sizeof...(Elements);

  /// Calls `visit` with an object of each.
  template <class Visitor>
  static void ForEach(Visitor visit) {
    (visit(Elements{}), ...);
  }
};

template <class Record>
using RecordOfVersion1 = RecordForm<Record, WireProtocol::Version1>;
template <class Record>
using RecordOfVersion2 = RecordForm<Record, WireProtocol::Version2>;

/// Each record in each form; one that is the same in both versions is listed in only one of them. New ones come last:
/// the corpora of the fuzz targets depend on the order.
using AllRecords = TypeList<RecordOfVersion1<SSLConfigServerProto::ConnectionEstablishmentRequest>,
                            RecordOfVersion2<SSLConfigServerProto::ConnectionEstablishmentRequest2>,
                            RecordOfVersion2<SSLConfigServerProto::RegisterInstanceRequest>,
                            RecordOfVersion2<SSLConfigServerProto::UpdateStatusRequest>,
                            RecordOfVersion2<SSLConfigServerProto::ConfigurationUpdateRequest>,
                            RecordOfVersion2<SSLConfigServerProto::CodeUpdateRequest>,
                            RecordOfVersion1<SSLConfigServerProto::ConnectionEstablishmentResponse>,
                            RecordOfVersion2<SSLConfigServerProto::ConnectionEstablishmentResponse2>,
                            RecordOfVersion1<SSLConfigServerProto::ConfigurationUpdateResponse>,
                            RecordOfVersion2<SSLConfigServerProto::ConfigurationUpdateResponse>,
                            RecordOfVersion1<SSLConfigServerProto::CodeUpdateResponse>,
                            RecordOfVersion2<SSLConfigServerProto::CodeUpdateResponse>,
                            RecordOfVersion2<SSLConfigServerProto::RegisterInstanceResponse>,
                            RecordOfVersion2<SSLConfigServerProto::UpdateStatusResponse>>;

}  // namespace sorvex::test
