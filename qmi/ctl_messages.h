// The messages of the CTL service (0x00), which every QMUX connection has: versions, client ids, and a proxy's first
// message. No code decodes into these structures: the rows of ctl_tables.h describe the bytes on the wire with them.
#pragma once

#include <cstdint>

#include "common_v01.h"

namespace pelmar::ctl {

enum MessageId : uint16_t {
  kGetVersionInfo = 0x0021,
  kAllocateClientId = 0x0022,
  kReleaseClientId = 0x0023,
  kRevokeClientId = 0x0024,
  kSetDataFormat = 0x0026,
  kSync = 0x0027,
  kOpenProxy = 0xFF00,
};

struct ServiceVersion {
  uint8_t service;
  uint16_t major;
  uint16_t minor;
};

struct ClientId {
  uint8_t service;
  uint8_t client;
};

struct Response {
  qmi_response_type_v01 header;
};

struct VersionInfo {
  uint32_t service_count;
  ServiceVersion services[UINT8_MAX];
};

struct Allocation {
  uint8_t service;
  ClientId allocated;
};

struct Release {
  ClientId released;
};

struct Revocation {
  ClientId revoked;
};

struct DataFormat {
  uint8_t format;
  uint16_t link_protocol;
};

struct Device {
  char path[UINT8_MAX + 1];
};

}  // namespace pelmar::ctl
