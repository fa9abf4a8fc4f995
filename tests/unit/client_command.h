// What tests of commands share: clients of all four types, and one way to ask of a command what it sends, through whose
// connection, whom it refuses and what it logs.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "library_test.h"
#include "nas_client.h"
#include "sar_client.h"
#include "vs_client.h"

namespace scripted {

// A little-endian integer of `width` bytes.
struct Field {
  size_t offset;
  size_t width;
  uint64_t value;
};

// A structure in memory, zero but for its fields.
inline std::vector<uint8_t> fields(size_t size, const std::vector<Field>& values) {
  std::vector<uint8_t> result(size);
  for (const Field& field : values) std::memcpy(&result.at(field.offset), &field.value, field.width);
  return result;
}

// One command with its arguments, and what must go out.
struct CommandRow {
  std::string name;  // of the exported function
  std::function<modem_api_result(int32_t client_id)> call;
  modem_api_client_type type;  // whose connection it takes
  unsigned msg_id;
  std::vector<uint8_t> request;
  unsigned response_length = 8;
  std::string outcome_line = {};  // what is logged before the mapped result; empty: nothing is
};

class CommandTest : public LibraryTest {
 protected:
  // The id of each client is its type.
  CommandTest() {
    for (modem_api_client_type type = 0; type < MODEM_API_CLIENT_TYPES; ++type) {
      EXPECT_EQ(open(type), static_cast<int32_t>(type));
    }
    forget();
  }

  static qmi_client_type connection(modem_api_client_type type) {
    const qmi_client_type connections[] = {vs_client_info.client_handle, sar_client_info.client_handle,
                                           nas_0_client_info.client_handle, nas_1_client_info.client_handle};
    return connections[type];
  }

  // Between entry and exit lines, with only its own lines and calls on record.
  static modem_api_result run(const CommandRow& row, int32_t client_id) {
    forget();
    const modem_api_result result = row.call(client_id);
    const auto lines = log_bodies();
    EXPECT_EQ(lines.front(), "D " + row.name + ": function entry ------------->");
    EXPECT_EQ(lines.back(), "D " + row.name + ": function exit, ret(" + std::to_string(result) + ") <-------------");
    return result;
  }

  static void expect_refused(const CommandRow& row, int32_t client_id) {
    EXPECT_EQ(run(row, client_id), MODEM_API_ERR_INVALID_CLIENT) << client_id;
    EXPECT_TRUE(calls().empty());
    EXPECT_EQ(messages().back(), "E " + row.name + ": Unexpected condition, return error 7!");
  }

  static void expect_exchange(const CommandRow& row) {
    SCOPED_TRACE(row.name);
    run(row, static_cast<int32_t>(row.type));
    EXPECT_EQ(calls(), std::vector<Call>({{.name = "send_msg_sync",
                                           .handle = connection(row.type),
                                           .msg_id = row.msg_id,
                                           .request = row.request,
                                           .response_length = row.response_length,
                                           .timeout = 30000}}));
    for (int32_t id : {-1, 0, 1, 2, 3, 4}) {
      if (id != static_cast<int32_t>(row.type)) expect_refused(row, id);
    }
    modem_api_operational_status_cb(row.type, OPERATIONAL_STATUS_DOWN);
    expect_refused(row, static_cast<int32_t>(row.type));
    modem_api_operational_status_cb(row.type, OPERATIONAL_STATUS_UP);
  }

  static void expect_mapped(const CommandRow& row) {
    SCOPED_TRACE(row.name);
    const std::pair<Answer, modem_api_result> outcomes[] = {{{0, header(1, 52)}, MODEM_API_ERR_NOT_READY},
                                                            {{-2, header(1, 4)}, MODEM_API_ERR_ABORTED},
                                                            {{-3, {}}, MODEM_API_ERR_TIMEOUT}};
    for (const auto& outcome : outcomes) {
      const modem_api_result result = outcome.second;
      on_send = [&](const Call&) { return outcome.first; };
      EXPECT_EQ(run(row, static_cast<int32_t>(row.type)), result);
      const std::string line = "D " + row.name + ": " + row.outcome_line + std::to_string(result);
      EXPECT_EQ(logged(line), !row.outcome_line.empty()) << line;
    }
    on_send = nullptr;
  }
};

}  // namespace scripted
