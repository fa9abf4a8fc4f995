// What belongs to the phone's platform besides the QMI framework: the service objects of NAS and SAR, and the common
// table of the standard response.
#include <iterator>

#include "nas_tables.h"
#include "platform_export.h"
#include "qmi_codec.h"
#include "sar_tables.h"

// The common table has one type, the standard response: result and error, 2 bytes each on the wire.
static constexpr uint8_t kStandardResponse[] = {
    QMI_IDL_KIND_ENUM_2_BYTES, 0, QMI_IDL_KIND_ENUM_2_BYTES, 4, QMI_IDL_TYPE_END,
};
static constexpr qmi_idl_type_table_entry kCommonTypes[] = {{8, kStandardResponse}};

extern "C" PELMAR_PLATFORM_EXPORT constexpr qmi_idl_type_table_object common_qmi_idl_type_table_object_v01 = {
    std::size(kCommonTypes), 0, 0, kCommonTypes, nullptr, nullptr, nullptr,
};

extern "C" PELMAR_PLATFORM_EXPORT int32_t qmi_idl_get_message_c_struct_len(qmi_idl_service_object_type service,
                                                                           qmi_idl_type_of_message_type type,
                                                                           uint16_t msg_id, uint32_t* length) {
  if (length == nullptr) return QMI_IDL_LIB_PARAMETER_ERR;
  pelmar::qmi::MessageSize size;
  const int32_t error = pelmar::qmi::message_size(service, type, msg_id, &size);
  if (error == QMI_IDL_LIB_NO_ERR) *length = size.structure_length;
  return error;
}

extern "C" PELMAR_PLATFORM_EXPORT qmi_idl_service_object_type
nas_get_service_object_internal_v01(int32_t idl_maj_version, int32_t idl_min_version, int32_t library_version) {
  const bool matches = idl_maj_version == NAS_V01_IDL_MAJOR_VERS && idl_min_version == NAS_V01_IDL_MINOR_VERS &&
                       library_version == NAS_V01_IDL_TOOL_VERS;
  return matches ? &pelmar::nas::kService : nullptr;
}

extern "C" PELMAR_PLATFORM_EXPORT qmi_idl_service_object_type
sar_get_service_object_internal_v01(int32_t idl_maj_version, int32_t idl_min_version, int32_t library_version) {
  const bool matches = idl_maj_version == SAR_V01_IDL_MAJOR_VERS && idl_min_version == SAR_V01_IDL_MINOR_VERS &&
                       library_version == SAR_V01_IDL_TOOL_VERS;
  return matches ? &pelmar::sar::kService : nullptr;
}
