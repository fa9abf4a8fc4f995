// The errors of the QMI protocol: number, the name that the protocol gives it, and what it means in words.
#pragma once

#include <cstdint>

namespace pelmar::qmi {

struct ErrorName {
  uint16_t number;
  const char* name;
  const char* meaning;
};

inline constexpr ErrorName kErrorNames[] = {
    {0, "SUCCESS", "success"},
    {1, "MALFORMED_MSG", "malformed message"},
    {2, "NO_MEMORY", "no memory"},
    {3, "INTERNAL", "internal"},
    {4, "ABORTED", "aborted"},
    {5, "CLIENT_IDS_EXHAUSTED", "client ids exhausted"},
    {6, "UNABORTABLE_TRANSACTION", "transaction cannot be aborted"},
    {7, "INVALID_CLIENT_ID", "invalid client id"},
    {9, "INVALID_HANDLE", "invalid handle"},
    {10, "INVALID_PROFILE", "invalid profile"},
    {13, "NO_NETWORK_FOUND", "no network found"},
    {16, "NOT_PROVISIONED", "not provisioned"},
    {17, "MISSING_ARG", "missing argument"},
    {19, "ARG_TOO_LONG", "argument too long"},
    {22, "INVALID_TX_ID", "invalid transaction id"},
    {23, "DEVICE_IN_USE", "device in use"},
    {24, "OP_NETWORK_UNSUPPORTED", "operation not supported by the network"},
    {25, "OP_DEVICE_UNSUPPORTED", "operation not supported by the device"},
    {26, "NO_EFFECT", "no effect"},
    {37, "SIM_NOT_INITIALIZED", "SIM not initialised"},
    {41, "INVALID_ID", "invalid id"},
    {42, "REQUESTED_NUM_UNSUPPORTED", "requested number not supported"},
    {43, "INTERFACE_NOT_FOUND", "interface not found"},
    {45, "INVALID_DATA_FORMAT", "invalid data format"},
    {46, "GENERAL", "general error"},
    {47, "UNKNOWN", "unknown error"},
    {48, "INVALID_ARG", "invalid argument"},
    {49, "INVALID_INDEX", "invalid index"},
    {50, "NO_ENTRY", "no entry"},
    {51, "DEVICE_STORAGE_FULL", "storage full"},
    {52, "DEVICE_NOT_READY", "device not ready"},
    {53, "NETWORK_NOT_READY", "network not ready"},
    {57, "INVALID_MESSAGE_ID", "invalid message id"},
    {58, "ENCODING", "encoding"},
    {59, "AUTHENTICATION_LOCK", "authentication lock"},
    {60, "INVALID_TRANSITION", "invalid transition"},
    {69, "INSUFFICIENT_RESOURCES", "insufficient resources"},
    {70, "DISABLED", "disabled"},
    {71, "INVALID_QMI_CMD", "invalid command"},
    {74, "INFO_UNAVAILABLE", "information not available"},
    {77, "BUNDLING_NOT_SUPPORTED", "bundling not supported"},
    {78, "OP_PARTIAL_FAILURE", "operation partially failed"},
    {80, "SIM_FILE_NOT_FOUND", "SIM file not found"},
    {82, "ACCESS_DENIED", "access denied"},
    {83, "HARDWARE_RESTRICTED", "restricted by the hardware"},
    {90, "INCOMPATIBLE_STATE", "incompatible state"},
    {93, "NO_RADIO", "no radio"},
    {94, "NOT_SUPPORTED", "not supported"},
    {95, "NO_SUBSCRIPTION", "no subscription"},
    {97, "OP_NETWORK_ABORTED", "aborted by the network"},
    {98, "MESSAGE_BLOCKED", "message blocked"},
    {102, "NO_SIM", "no SIM"},
    {115, "NO_PERMISSION", "no permission"},
    {116, "TOO_SOON", "too soon"},
    {118, "OP_IN_PROGRESS", "operation in progress"},
};

// Null for an error without a name.
constexpr const ErrorName* find_error(uint32_t number) {
  for (const ErrorName& row : kErrorNames) {
    if (row.number == number) return &row;
  }
  return nullptr;
}

}  // namespace pelmar::qmi
