// The synchronous commands: what each sends and through which connection, what it refuses, and what the caller
// receives.
#include "command_rows.h"
#include "golden_log.h"
#include "nas_client.h"
#include "sar_client.h"
#include "vs_client.h"

namespace {

using namespace scripted;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

class Commands : public Golden<LibraryTest> {
 protected:
  Commands() {
    open_all();
    reset_golden_log();
  }
};

TEST_F(Commands, SendTheirRequestsThroughTheirConnections) {
  const qmi_client_type connections[] = {vs_client_info.client_handle, sar_client_info.client_handle,
                                         nas_0_client_info.client_handle, nas_1_client_info.client_handle};
  for (const CommandRow& row : command_rows()) {
    SCOPED_TRACE(row.name);
    forget();
    row.call(static_cast<int32_t>(row.type));
    EXPECT_THAT(calls(), ElementsAre(Call{"send_msg_sync", connections[row.type], row.msg_id, row.request,
                                          row.response_length, 30000}));
  }
}

TEST_F(Commands, ReturnTheirOutcome) {
  for (const CommandRow& row : command_rows()) {
    const auto id = static_cast<int32_t>(row.type);
    row.call(id);
    row.call(id ^ 1);
    for (const Outcome& failure : {Outcome{0, header(1, 52)}, {-3, {}}}) {
      on_send = [&](const Call&) { return failure; };
      row.call(id);
    }
    on_send = nullptr;
  }
}

// Nothing is sent, and the log has the reasons.
TEST_F(Commands, CheckTheClientThenPointersThenLengths) {
  uint8_t data[513] = {};
  uint32_t length = 256;
  for_each_command("_read_", [&](const CommandRow& row) {
    item = {nullptr, nullptr, nullptr, 257};
    row.call(1);
    item = {"/nv", nullptr, &length, 0};
    row.call(0);
    item = {"/nv", data, nullptr, 0};
    row.call(0);
  });
  for_each_command("_write_", [&](const CommandRow& row) {
    item = {nullptr, nullptr, nullptr, 257};
    row.call(1);
    row.call(0);
    item = {nullptr, data, nullptr, 257};
    row.call(0);
  });
  const modem_api_response_cb callback = [](const uint8_t*, uint32_t, void*, uint32_t) {};
  struct PassThrough {
    int32_t client;
    const uint8_t* payload;
    int32_t length;
    modem_api_response_cb callback;
  };
  for (const auto& [client, payload, size, function] : {PassThrough{1, nullptr, 513, nullptr},
                                                        {0, nullptr, 513, nullptr},
                                                        {0, nullptr, 513, callback},
                                                        {0, data, INT32_MAX, callback},
                                                        {0, nullptr, 1, callback}}) {
    modem_api_common_command(client, payload, size);
    modem_api_common_command_async(client, payload, size, nullptr, function);
  }
  uint8_t byte = 0;
  const uint32_t id = 0;
  const modem_api_stats_registration record = {};
  stats_para_data values = {};
  modem_api_get_hydra_feature_status(0, 1, nullptr, &byte);
  modem_api_set_modem_stats_report_status(0, 0, nullptr);
  modem_api_set_modem_stats_report_status(0, 1, nullptr);
  modem_api_register_modem_stats_data(0, 1, 0, 0, 0, 0, nullptr, 0);
  modem_api_register_modem_stats_data(0, 1, 0, 0, 0, 0, &record, 0);
  modem_api_deregister_modem_stats_data(0, 1, 0, 0, 0, 0, nullptr, 0);
  modem_api_deregister_modem_stats_data(0, 1, 0, 0, 0, 0, &id, 0);
  modem_api_get_stats_parameter(0, 1, 2, nullptr);
  modem_api_get_stats_parameter(0, 1, 2, &values);
  values.para_num = 11;
  modem_api_get_stats_parameter(0, 1, 2, &values);
  modem_api_clear_stats_parameter(0, 1, 2, 0, nullptr);
  modem_api_clear_stats_parameter(0, 1, 2, -1, &id);
  modem_api_clear_stats_parameter(0, 1, 2, 11, nullptr);
  modem_api_clear_stats_parameter(0, 1, 2, 1, nullptr);
}

// One command stands for all that share the check.
TEST_F(Commands, NeedAClientWhoseServiceIsUp) {
  const auto asynchronous = [](int32_t id) {
    return modem_api_common_command_async(id, nullptr, 0, nullptr, [](const uint8_t*, uint32_t, void*, uint32_t) {});
  };
  for (const std::function<int32_t(int32_t)> command : {modem_api_notify_shutdown, modem_api_set_vs_event_report}) {
    for (const int32_t id : {INT32_MIN, -1, 1, 2, 3, 4, 9, 10, INT32_MAX}) EXPECT_EQ(command(id), 7) << id;
    for (const uint32_t status : {0, 1, 2, 4, 5, 6, 7}) {
      modem_api_operational_status_cb(MODEM_API_CLIENT_VS, status);
      EXPECT_EQ(command(0), 7) << status;
      EXPECT_EQ(asynchronous(0), 7) << status;
    }
    modem_api_operational_status_cb(MODEM_API_CLIENT_VS, OPERATIONAL_STATUS_UP);
    EXPECT_EQ(command(0), 0);
    modem_api_operational_status_cb(MODEM_API_CLIENT_VS, OPERATIONAL_STATUS_DOWN);
  }
  EXPECT_THAT(call_names(), ElementsAre("send_msg_sync", "send_msg_sync"));
}

TEST_F(Commands, PassThrough512Bytes) {
  const Bytes payload(512, 0xA7);
  Bytes request = structure(516, "1:02");
  std::copy(payload.begin(), payload.end(), request.begin() + 4);
  EXPECT_EQ(modem_api_common_command(0, payload.data(), 512), 0);
  EXPECT_EQ(calls().at(0).request, request);
}

// Subscriptions alone send nothing.
TEST_F(Commands, ReportTheEventsThatAreSubscribed) {
  for (uint8_t subscribed = 0; subscribed < 8; ++subscribed) {
    forget();
    for (int event = 3; event <= 5; ++event) {
      const bool wanted = (subscribed >> (event - 3) & 1) != 0;
      wanted ? modem_api_add_modem_event(0, event) : modem_api_remove_modem_event(0, event);
    }
    EXPECT_EQ(modem_api_set_vs_event_report(0), 0);
    const Bytes request = {1, (subscribed & 3) != 0, 1, (subscribed & 4) != 0};
    EXPECT_THAT(calls(), ElementsAre(testing::Field(&Call::request, request)));
  }
}

TEST_F(Commands, SubscribeThreeEventsOfAClientWithACallback) {
  EXPECT_EQ(modem_api_free_client(0), 0);
  for (const auto edit : {modem_api_add_modem_event, modem_api_remove_modem_event}) {
    for (const int32_t event : {INT32_MIN, 2, 6}) EXPECT_EQ(edit(0, event), MODEM_API_ERR_NOT_SUPPORTED) << event;
    for (const int32_t id : {0, 1, 4, 10}) EXPECT_EQ(edit(id, 3), MODEM_API_ERR_NOT_INITIALIZED) << id;
    for (const int32_t id : {-1, INT32_MIN}) EXPECT_EQ(edit(id, 2), MODEM_API_ERR_INVALID_CLIENT) << id;
  }
  modem_api_init();
  int32_t id = -1;
  EXPECT_EQ(modem_api_init_client(MODEM_API_CLIENT_VS, nullptr, nullptr, &id), 0);
  EXPECT_EQ(modem_api_add_modem_event(id, 5), MODEM_API_ERR_NOT_INITIALIZED);
}

// --- items ---

TEST_F(Commands, ReadWhatFits) {
  const struct {
    const char* response;
    uint32_t size, capacity;
    int32_t result;
  } reads[] = {{"8:00", 0, 0, 0},
               {"8:03", 3, 3, 0},
               {"8:03", 3, 2, 3},
               {"9:01", 256, 256, 0},
               {"9:01", 256, 255, 3},
               {"8:2C01", 300, 300, 0},  // the stated length counts, also where a response cannot hold it
               {"8:FFFFFFFF", UINT32_MAX, 512, 3},
               {"0:01 4:32 8:03", 3, 256, 1}};
  for_each_command("_read_", [&](const CommandRow& row) {
    for (const auto& read : reads) {
      SCOPED_TRACE(testing::Message() << row.name << ": " << read.size << " bytes into " << read.capacity);
      Bytes buffer(512, 0xEE), expected = buffer;
      uint32_t length = read.capacity;
      item = {"/nv", buffer.data(), &length, 0};
      on_send = [&](const Call&) {
        Bytes response = structure(268, read.response);
        std::fill(response.begin() + 12, response.end(), 0x77);
        return Outcome{0, response};
      };
      EXPECT_EQ(row.call(0), read.result);
      EXPECT_EQ(length, read.result == 0 ? read.size : read.capacity);
      if (read.result == 0) {
        std::fill_n(expected.begin(), read.size, 0);
        std::fill_n(expected.begin(), std::min(read.size, 256U), 0x77);
      }
      EXPECT_EQ(buffer, expected);
    }
  });
}

TEST_F(Commands, WriteUpTo256Bytes) {
  Bytes data(256, 0xD1);
  for_each_command("_write_", [&](const CommandRow& row) {
    const size_t offset = row.request.size() - 260;  // of the length, which the data follows
    Bytes request = row.request;
    put(request, offset, 256);
    std::copy(data.begin(), data.end(), request.begin() + static_cast<ptrdiff_t>(offset) + 4);
    forget();
    item = {"/nv", data.data(), nullptr, 256};
    EXPECT_EQ(row.call(0), 0);
    EXPECT_EQ(calls().at(0).request, request) << row.name;
  });
}

TEST_F(Commands, CutPathsAfter100Characters) {
  for_each_command("_path", [&](const CommandRow& row) {
    for (const size_t length : {0, 99, 100, 101, 150}) {
      const std::string path(length, 'p');
      forget();
      item.path = path.c_str();
      row.call(0);
      Bytes request = row.request;
      std::fill_n(request.begin(), 100, 0);
      std::fill_n(request.begin(), std::min<size_t>(length, 100), 'p');
      EXPECT_EQ(calls().at(0).request, request) << row.name;
    }
  });
}

// --- what the modem responds ---

TEST_F(Commands, ReturnTheFeatureStatus) {
  uint8_t enabled = 0xEE, effective = 0xEE;
  for (const bool succeeds : {false, true}) {
    on_send = [succeeds](const Call&) { return Outcome{0, structure(12, succeeds ? "8:5AA5" : "0:01 4:03 8:5AA5")}; };
    EXPECT_EQ(modem_api_get_hydra_feature_status(0, 1, &enabled, &effective), succeeds ? 0 : 1);
    EXPECT_EQ(enabled, succeeds ? 0x5A : 0xEE);
    EXPECT_EQ(effective, succeeds ? 0xA5 : 0xEE);
  }
  EXPECT_EQ(modem_api_get_hydra_feature_status(0, 1, &enabled, nullptr), 0);
}

TEST_F(Commands, ReturnAStatisticsIdThatTheModemGrants) {
  constexpr uint32_t kUntouched = 0xEEEEEEEE;
  const struct {
    uint8_t flag;
    const char* response;
    int32_t result;
    uint32_t id;
  } rows[] = {{1, "8:00 12:05000080", 1, kUntouched},
              {1, "8:07 12:05000080", 0, 0x80000005},
              {2, "8:01 12:05000080", 0, 0x80000005},
              {0, "8:01 12:05000080", 0, kUntouched},
              {1, "0:01 4:03 8:01 12:05000080", 1, kUntouched}};
  for (const auto& row : rows) {
    on_send = [&](const Call&) { return Outcome{0, structure(16, row.response)}; };
    uint32_t id = kUntouched;
    EXPECT_EQ(modem_api_set_modem_stats_report_status(0, row.flag, &id), row.result) << row.response;
    EXPECT_EQ(id, row.id) << row.response;
  }
}

TEST_F(Commands, ReturnStatisticsUpToTheirCapacities) {
  const struct {
    uint8_t failure, valid;
    uint32_t count;
    int32_t result;
    uint32_t returned;
  } rows[] = {{0, 1, 0, 0, 0}, {0, 1, 2, 0, 2}, {0, 1, 12, 0, 10}, {0, 1, 0xFFFFFFFF, 0, 10},
              {0, 0, 2, 1, 1}, {0, 2, 2, 1, 1}, {1, 1, 2, 1, 1}};
  const uint32_t lengths[] = {700, 900, 3};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.count);
    Bytes response(7136, 0xAA);
    std::fill_n(response.begin(), 8, 0);
    response[0] = response[4] = row.failure;
    response[8] = row.valid;
    put(response, 12, row.count);
    Bytes expected(sizeof(stats_para_data), 0xEE);  // as the caller's record, where nothing is returned
    put(expected, offsetof(stats_para_data, para_num), row.returned);
    for (uint32_t k = 0; k < 10; ++k) {
      const uint32_t words[] = {0x10000 + k, 0xF0000000 + k, lengths[k % 3]};
      std::memcpy(&response[16 + 712 * k], words, sizeof(words));
      if (row.result != 0 || k >= row.returned) continue;
      stats_para_entry entry;
      std::memset(&entry, 0xEE, sizeof(entry));
      entry.sub = words[0];
      entry.id = words[1];
      entry.value_len = std::min(words[2], 700U);
      std::memset(entry.value, 0xAA, entry.value_len);
      std::memcpy(&expected[offsetof(stats_para_data, entries) + k * sizeof(entry)], &entry, sizeof(entry));
    }
    on_send = [&](const Call&) { return Outcome{0, response}; };
    stats_para_data data;
    std::memset(&data, 0xEE, sizeof(data));
    data.para_num = 1;
    EXPECT_EQ(modem_api_get_stats_parameter(0, 1, 2, &data), row.result);
    EXPECT_EQ(std::memcmp(&data, expected.data(), sizeof(data)), 0);
  }
}

TEST_F(Commands, ReturnTheDrxWhateverTheOutcome) {
  const std::tuple<int, const char*, uint8_t, uint32_t> rows[] = {
      {0, "8:FE777777 12:01000080", 0xFE, 0x80000001}, {0, "0:01 4:5E", 0, 0}, {-3, "", 0, 0}};
  for (const auto& [code, response, expected_valid, expected_drx] : rows) {
    on_send = [code = code, response = response](const Call&) { return Outcome{code, structure(16, response)}; };
    uint8_t valid = 0xEE;
    uint32_t drx = 0xEEEEEEEE;
    EXPECT_EQ(modem_api_get_drx(MODEM_API_CLIENT_NAS_0, &valid, &drx), 0);
    EXPECT_EQ(valid, expected_valid);
    EXPECT_EQ(drx, expected_drx);
  }
}

// The result word alone decides the result; the fields are copied whatever it is.
TEST_F(Commands, ReturnTheCellInfo) {
  const std::tuple<int, uint32_t, int32_t> outcomes[] = {{0, 0, 0}, {0, 1, 1}, {0, 0x10000, 1}, {-3, 0, 0}, {-3, 2, 1}};
  for (const auto& [code, word, result] : outcomes) {
    Bytes response(3784);
    for (size_t i = 8; i < response.size(); ++i) response[i] = static_cast<uint8_t>(i * i >> 3);
    put(response, 0, word);
    on_send = [&, code = code](const Call&) { return Outcome{code, response}; };
    uint16_t intra_pci[8], inter_earfcn[3], inter_pci[24];
    uint8_t ta_valid, nr_valid;
    uint32_t ta, nr_arfcn;
    EXPECT_EQ(modem_api_get_cell_info(MODEM_API_CLIENT_NAS_1, 1, intra_pci, inter_earfcn, inter_pci, &ta_valid, &ta,
                                      &nr_valid, &nr_arfcn),
              result);
    const auto at = [&](size_t offset, auto value) {
      std::memcpy(&value, &response[offset], sizeof(value));
      return value;
    };
    for (size_t j = 0; j < 8; ++j) EXPECT_EQ(intra_pci[j], at(452 + 10 * j, uint16_t{}));
    for (size_t i = 0; i < 3; ++i) {
      EXPECT_EQ(inter_earfcn[i], at(544 + 92 * i, uint16_t{}));
      for (size_t j = 0; j < 8; ++j) EXPECT_EQ(inter_pci[8 * i + j], at(556 + 92 * i + 10 * j, uint16_t{}));
    }
    EXPECT_EQ(ta_valid, at(3132, uint8_t{}));
    EXPECT_EQ(ta, at(3136, uint32_t{}));
    EXPECT_EQ(nr_valid, at(3148, uint8_t{}));
    EXPECT_EQ(nr_arfcn, at(3152, uint32_t{}));
  }
}

}  // namespace
