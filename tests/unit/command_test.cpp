// The synchronous commands: the requests and their connections, the refused arguments, and the values that the caller
// gets.
#include "library_test.h"
#include "nas_client.h"
#include "nas_messages.h"
#include "qmi_codec.h"
#include "sar_client.h"
#include "sar_messages.h"
#include "vs_client.h"

namespace {

using namespace scripted;

// --- every command, with arguments that differ ---

struct CommandRow {
  modem_api_client_type type;
  uint16_t msg_id;
  std::string wire;  // the request in hexadecimal; empty if it has no TLVs or the codec refuses it
  std::string name;
  std::function<int32_t(int32_t client_id)> call;
};

constexpr uint32_t kWord = 0xA4A3A2A1;

// The arguments of commands.
struct Arguments {
  const char* path;
  uint8_t* data;
  uint32_t* length;
  uint32_t size;
} item;
uint8_t data[513];
uint32_t length;
char path[151];
uint32_t ids[151];
modem_api_stats_registration registrations[150];
stats_para_data parameters[2];  // one entry, ten entries
uint32_t stats_client = kWord;

// The values that commands store.
struct Outputs {
  uint16_t intra_pci[8], intra_end, inter_earfcn[3], inter_pci[24], inter_end;
  uint8_t flag1, flag2;
  uint32_t word1, word2;
} out;

void set_arguments() {
  std::memset(data, 0xD1, sizeof(data));
  std::memset(path, 'p', sizeof(path) - 1);
  length = 256;
  item = {path, data, &length, 256};
  for (uint32_t i = 0; i < std::size(ids); ++i) ids[i] = 0xF0000001 + 300 * i;
  for (uint32_t i = 0; i < std::size(registrations); ++i) {
    modem_api_stats_registration& record = registrations[i];
    record.id = 0xE0000000 + i;
    record.para_num = i % 10;
    for (uint32_t k = 0; k < std::size(record.parameters); ++k) record.parameters[k] = 16 * i + k;
    record.flag = static_cast<uint8_t>(i + 1);
    record.block[0] = 0x0102030405060708 + i;
    record.block[1] = 0x1112131415161718 + i;
    record.trailer = static_cast<uint8_t>(i + 2);
  }
  parameters[1].para_num = 10;
  for (uint32_t i = 0; i < 10; ++i) {
    parameters[1].entries[i] = {.sub = 0xEEEEEEEE, .id = ids[i], .value_len = 70 * i, .value = {}};
    std::memset(parameters[1].entries[i].value, 0xD1, sizeof(parameters[1].entries[i].value));
  }
  parameters[0] = parameters[1];
  parameters[0].para_num = 1;
}

template <typename Integer>
std::string hex(Integer value) {
  char text[17] = "";
  for (size_t i = 0; i < sizeof(value); ++i)
    std::snprintf(text + 2 * i, 3, "%02X", static_cast<uint8_t>(value >> 8 * i));
  return text;
}

std::string repeated(size_t count, const std::function<std::string(uint32_t i)>& element) {
  std::string text;
  for (uint32_t i = 0; i < count; ++i) text += element(i);
  return text;
}

std::string counted(uint8_t count, const std::function<std::string(uint32_t i)>& element) {
  return hex(count) + repeated(count, element);
}

std::string sized_data(uint16_t size) {
  return hex(size) + repeated(size, [](uint32_t) { return "D1"; });
}

std::string tlv(uint8_t type, const std::string& value) {
  return hex(type) + hex(static_cast<uint16_t>(value.size() / 2)) + value;
}

constexpr auto kVs = MODEM_API_CLIENT_VS;
constexpr auto kNas0 = MODEM_API_CLIENT_NAS_0;
constexpr auto kNas1 = MODEM_API_CLIENT_NAS_1;

// The name of a command, and a call of it.
#define CALL(name, ...) "modem_api_" #name, [=](int32_t id) { return modem_api_##name(id __VA_OPT__(, ) __VA_ARGS__); }

// What is sent of registrations[i]: at most the first 5 parameters.
std::string registration(uint32_t i) {
  const auto parameter = [i](uint32_t k) { return hex(16 * i + k); };
  return hex(0xE0000000 + i) + counted(std::min<uint8_t>(i % 10, 5), parameter) + hex(static_cast<uint8_t>(i + 1)) +
         hex(0x0102030405060708 + i) + hex(0x1112131415161718 + i) + hex(static_cast<uint8_t>(i + 2));
}

std::string sent_id(uint32_t i) {
  return hex(0xF0000001 + 300 * i);
}

// The subscription of an entry is not sent.
std::string parameter(uint32_t i) {
  return "00000000" + sent_id(i) + sized_data(static_cast<uint16_t>(70 * i));
}

std::string locked_cell(uint32_t i) {
  return hex(static_cast<uint16_t>(1 + 300 * i)) + sent_id(i + 1);
}

CommandRow cell_info_row(modem_api_client_type type, int32_t sub) {
  return {type, 0x0043, "",
          CALL(get_cell_info, sub, out.intra_pci, out.inter_earfcn, out.inter_pci, &out.flag1, &out.word1, &out.flag2,
               &out.word2)};
}

std::vector<CommandRow> command_rows() {
  const std::string word = "010400A1A2A3A4 ";
  const std::string nv = word + "020100B1 030200C1C2 ";
  const std::string efs = word + "020200C1C2 ";
  // The path has 150 characters: what is sent of it ends after the 100th.
  const std::string file =
      tlv(1, repeated(MODEM_API_MAX_PATH_CHARACTERS, [](uint32_t) { return "70"; })) + "020200C1C2 030100B1 ";
  const std::string slot = "010200FEFF 0202000180 ";
  const std::string data_256 = sized_data(256);
  const std::string payload = sized_data(512);
  return {
      {kVs, 0x0000, tlv(1, payload), CALL(common_command, data, 512)},
      {kVs, 0x0000, tlv(1, sized_data(1)), CALL(common_command, data, 1)},
      {kVs, 0x0001, "10 0100 00 11 0100 00", CALL(set_vs_event_report)},
      {kVs, 0x0002, word, CALL(get_hydra_feature_status, kWord, &out.flag1, &out.flag2)},
      {kVs, 0x0003, word + "02 0100 11 10 0100 33", CALL(set_hydra_feature_status, kWord, 0x11, 0x22, 0x33)},
      {kVs, 0x0003, word + "02 0100 11", CALL(set_hydra_feature_status, kWord, 0x11, 0, 0x33)},
      {kVs, 0x0100, nv, CALL(read_nv, kWord, 0xB1, 0xC2C1, item.data, item.length)},
      {kVs, 0x0101, nv + tlv(4, data_256), CALL(write_nv, kWord, 0xB1, 0xC2C1, item.data, item.size)},
      {kVs, 0x0102, nv, CALL(delete_nv, kWord, 0xB1, 0xC2C1)},
      {kVs, 0x0103, efs, CALL(read_efs, kWord, 0xC2C1, item.data, item.length)},
      {kVs, 0x0104, efs + tlv(3, data_256), CALL(write_efs, kWord, 0xC2C1, item.data, item.size)},
      {kVs, 0x0105, efs, CALL(delete_efs, kWord, 0xC2C1)},
      {kVs, 0x0106, file, CALL(read_efs_path, item.path, 0xC2C1, 0xB1, item.data, item.length)},
      {kVs, 0x0107, file + tlv(4, data_256), CALL(write_efs_path, item.path, 0xC2C1, 0xB1, item.data, item.size)},
      {kVs, 0x0108, file, CALL(delete_efs_path, item.path, 0xC2C1, 0xB1)},
      {kVs, 0x0108, "010300702F70 020200C1C2 030100B1", CALL(delete_efs_path, "p/p", 0xC2C1, 0xB1)},
      {kVs, 0x0109, word, CALL(read_rfnv, kWord, item.data, item.length)},
      {kVs, 0x010A, word + tlv(2, data_256), CALL(write_rfnv, kWord, item.data, item.size)},
      {kVs, 0x010B, word, CALL(delete_rfnv, kWord)},
      // In other modes than 0 the arguments are sent as 0.
      {kVs, 0x010C, "010100 00 020400 A1A2A3A4 030200 C1C2", CALL(efs_sync, 0, kWord, 0xC2C1)},
      {kVs, 0x010C, "010100 FF 020400 00000000 030200 0000", CALL(efs_sync, -1, kWord, 0xC2C1)},
      {kVs, 0x0200, "010100 00 100400 A1A2A3A4", CALL(set_modem_stats_report_status, 0, &stats_client)},
      {kVs, 0x0200, "010100 FF", CALL(set_modem_stats_report_status, 0xFF, &stats_client)},
      // An option is sent only if its valid byte is not zero, and at most the first 100 records are sent.
      {kVs, 0x0201, word + tlv(2, counted(12, registration)) + "100200 CDAB",
       CALL(register_modem_stats_data, kWord, 0xFF, 0xABCD, 0, 0x1234, registrations, 12)},
      {kVs, 0x0201, word + tlv(2, counted(100, registration)) + "110200 3412",
       CALL(register_modem_stats_data, kWord, 0, 0xABCD, 1, 0x1234, registrations, 150)},
      {kVs, 0x0202, word + tlv(2, counted(1, sent_id)) + "100200 CDAB",
       CALL(deregister_modem_stats_data, kWord, 1, 0xABCD, 0, 0x1234, ids, 1)},
      {kVs, 0x0202, word + tlv(2, counted(100, sent_id)) + "110200 3412",
       CALL(deregister_modem_stats_data, kWord, 0, 0xABCD, 0x80, 0x1234, ids, 150)},
      {kVs, 0x0207, slot + tlv(3, counted(1, parameter)), CALL(get_stats_parameter, 0xFFFE, 0x8001, &parameters[0])},
      {kVs, 0x0207, slot + tlv(3, counted(10, parameter)), CALL(get_stats_parameter, 0xFFFE, 0x8001, &parameters[1])},
      {kVs, 0x0208, slot + tlv(3, counted(10, sent_id)), CALL(clear_stats_parameter, 0xFFFE, 0x8001, 10, ids)},
      {kVs, 0x0400, "", CALL(notify_shutdown)},
      {kVs, 0x0401, "", CALL(reset_modem)},
      {MODEM_API_CLIENT_SAR, 0x0001, word, CALL(set_sar_rf_state, kWord)},
      {kNas0, 0x0089, "", CALL(get_drx, &out.flag1, &out.word1)},
      {kNas0, 0x0003, "130100 00", CALL(util_enable_networking_indications, 0)},
      {kNas1, 0x0003, "130100 00", CALL(util_enable_networking_indications, 1)},
      cell_info_row(kNas0, 0),
      cell_info_row(kNas1, -9),
      {kNas1, 0x00D8, tlv(1, counted(60, locked_cell)) + "100100 01", CALL(set_lte_cell_lock, 1, 60, ids, ids + 1)},
      {kNas1, 0x00D8, "", CALL(set_lte_cell_lock, 1, 61, ids, ids)},
      {kNas1, 0x00D8, tlv(1, "00") + "100100 01", CALL(set_lte_cell_lock, 1, 0, nullptr, nullptr)},
      {kNas0, 0x0098, "010100 00", CALL(set_avoid_trm, 0, 0)},
      {kNas1, 0x0098, "010100 FF", CALL(set_avoid_trm, 2, 0xFF)},
      {kNas0, 0x0033, "330400 01000000", CALL(set_nr_disable_mode, 0, 1)},
      {kNas1, 0x0033, "330400 02000000", CALL(set_nr_disable_mode, 1, 2)},
      {kNas0, 0x0033, "330400 00000000", CALL(set_nr_disable_mode, 0, 3)},
  };
}

class Commands : public LibraryTest {
 protected:
  Commands() {
    set_arguments();
    open_all();
  }

  // Calls the commands whose names contain `part`.
  static void call_each(const std::string& part, const Arguments& arguments, int32_t client_id = 0) {
    item = arguments;
    for (const CommandRow& row : command_rows()) {
      if (row.name.find(part) != row.name.npos) row.call(client_id);
    }
  }

  static void respond(const std::string& content, int code = 0) {
    on_send = [=](const Call& call) { return Outcome{code, structure(call.response_length, content)}; };
  }
};

TEST_F(Commands, AreSentThroughTheirConnections) {
  namespace codec = pelmar::qmi;
  const std::pair<qmi_client_type, qmi_idl_service_object_type> services[] = {
      {vs_client_info.client_handle, vs_get_service_object_internal_v01(1, 2, 6)},
      {sar_client_info.client_handle, sar_get_service_object_internal_v01(1, 15, 6)},
      {nas_0_client_info.client_handle, nas_get_service_object_internal_v01(1, 388, 6)},
      {nas_1_client_info.client_handle, nas_get_service_object_internal_v01(1, 388, 6)}};
  for (const CommandRow& row : command_rows()) {
    SCOPED_TRACE(row.name);
    clear_records();
    row.call(static_cast<int32_t>(row.type));
    const auto& [connection, service] = services[row.type];
    codec::MessageSize response = {};
    codec::message_size(service, QMI_IDL_RESPONSE, row.msg_id, &response);
    ASSERT_EQ(calls().size(), 1U);
    const Bytes request = calls()[0].request;
    EXPECT_EQ(calls()[0], (Call{"send_msg_sync", connection, row.msg_id, request, response.structure_length, 30000}));
    Bytes wire(16384);
    size_t wire_length = 0;
    codec::encode(service, QMI_IDL_REQUEST, row.msg_id, request.data(), request.size(), wire.data(), wire.size(),
                  &wire_length);
    wire.resize(wire_length);
    EXPECT_EQ(wire, bytes(row.wire));
  }
}

class CommandLog : public Golden<Commands> {
 protected:
  CommandLog() { words_ = {"modem_api_"}; }
};

TEST_F(CommandLog, OfEveryCommand) {
  std::string previous;
  for (const CommandRow& row : command_rows()) {
    if (row.name == std::exchange(previous, row.name)) continue;
    const auto id = static_cast<int32_t>(row.type);
    row.call(id);
    row.call(id ^ 1);
    for (const int code : {0, -3}) {
      respond("0:01 4:34", code);
      row.call(id);
    }
    on_send = nullptr;
  }
}

// The checks run in the order client, pointers, lengths.
TEST_F(CommandLog, OfRefusedArguments) {
  call_each("_read_", {nullptr, nullptr, nullptr, 257}, 1);
  call_each("_read_", {path, nullptr, &length, 0});
  call_each("_read_", {path, data, nullptr, 0});
  call_each("_write_", {nullptr, nullptr, nullptr, 257}, 1);
  call_each("_write_", {path, nullptr, nullptr, 257});
  call_each("_write_", {nullptr, data, nullptr, 257});
  const modem_api_response_cb callback = [](const uint8_t*, uint32_t, void*, uint32_t) {};
  const std::tuple<int32_t, const uint8_t*, int32_t, modem_api_response_cb> pass_through[] = {
      {1, nullptr, 513, nullptr},
      {0, nullptr, 513, nullptr},
      {0, nullptr, 513, callback},
      {0, data, INT32_MAX, callback},
      {0, nullptr, 1, callback}};
  for (const auto& [client, payload, size, function] : pass_through) {
    modem_api_common_command(client, payload, size);
    modem_api_common_command_async(client, payload, size, nullptr, function);
  }
  modem_api_get_hydra_feature_status(0, 1, nullptr, &out.flag2);
  modem_api_set_modem_stats_report_status(0, 0, nullptr);
  modem_api_set_modem_stats_report_status(0, 1, nullptr);
  modem_api_register_modem_stats_data(0, 1, 0, 0, 0, 0, nullptr, 0);
  modem_api_register_modem_stats_data(0, 1, 0, 0, 0, 0, registrations, 0);
  modem_api_deregister_modem_stats_data(0, 1, 0, 0, 0, 0, nullptr, 0);
  modem_api_deregister_modem_stats_data(0, 1, 0, 0, 0, 0, ids, 0);
  modem_api_get_stats_parameter(0, 1, 2, nullptr);
  for (const uint32_t count : {0, 11}) {
    parameters[0].para_num = count;
    modem_api_get_stats_parameter(0, 1, 2, &parameters[0]);
  }
  for (const int32_t count : {0, -1, 11, 1}) modem_api_clear_stats_parameter(0, 1, 2, count, nullptr);
  EXPECT_TRUE(calls().empty());
}

// All commands share the check, so the test uses one of each kind.
TEST_F(Commands, NeedAClientWhoseServiceIsUp) {
  const auto asynchronous = [](int32_t id) {
    return modem_api_common_command_async(id, nullptr, 0, nullptr, [](const uint8_t*, uint32_t, void*, uint32_t) {});
  };
  for (const uint32_t status : {2, 4, 3}) {
    modem_api_operational_status_cb(MODEM_API_CLIENT_VS, status);
    for (const auto command : {+asynchronous, modem_api_notify_shutdown, modem_api_set_vs_event_report}) {
      EXPECT_EQ(command(0), status == OPERATIONAL_STATUS_UP ? 0 : 7) << status;
      for (const int32_t id : {-1, 1, 10}) EXPECT_EQ(command(id), 7) << id;
    }
  }
  EXPECT_THAT(call_names(), ElementsAre("send_msg_async", "send_msg_sync", "send_msg_sync"));
}

// A subscription alone sends nothing.
TEST_F(Commands, RequestReportsOfTheSubscribedEvents) {
  for (uint8_t subscribed = 0; subscribed < 8; ++subscribed) {
    clear_records();
    for (int event = 3; event <= 5; ++event) {
      const bool wanted = (subscribed >> (event - 3) & 1) != 0;
      wanted ? modem_api_add_modem_event(0, event) : modem_api_remove_modem_event(0, event);
    }
    EXPECT_EQ(modem_api_set_vs_event_report(0), 0);
    const Bytes request = {1, (subscribed & 3) != 0, 1, (subscribed & 4) != 0};
    EXPECT_THAT(calls(), ElementsAre(testing::Field(&Call::request, request)));
  }
}

TEST_F(CommandLog, OfSubscriptions) {
  for (const int32_t id : {0, 1, 10, -1}) {
    for (const int32_t event : {2, 3, 3, 5, 6}) modem_api_add_modem_event(id, event);
    for (const int32_t event : {2, 3, 3, 5, 6}) {
      pelmar_utils_syslog_dbg("modem_api_remove_modem_event, result %d", modem_api_remove_modem_event(id, event));
    }
  }
  modem_api_free_client(0);
  modem_api_init();  // makes the service object that the release cleared
  int32_t client = -1;
  modem_api_init_client(MODEM_API_CLIENT_VS, nullptr, nullptr, &client);
  modem_api_add_modem_event(0, 5);
}

// --- what the modem responds ---

TEST_F(Commands, ReadOnlyWhatFits) {
  const std::tuple<const char*, uint32_t, uint32_t, int32_t> reads[] = {
      {"8:00", 0, 0, 0},
      {"9:01", 256, 256, 0},
      {"9:01", 256, 255, 3},
      {"8:2C01", 300, 300, 0},  // the response's length is used even if a response cannot hold so much
      {"8:FFFFFFFF", UINT32_MAX, 512, 3},
      {"0:01 4:32 8:03", 3, 256, 1}};
  for (const auto& [content, size, capacity, result] : reads) {
    SCOPED_TRACE(testing::Message() << size << " bytes into " << capacity);
    Bytes buffer(512, 0xEE), expected = buffer, response = structure(268, content);
    length = capacity;
    std::fill(response.begin() + 12, response.end(), 0x77);
    on_send = [&](const Call&) { return Outcome{0, response}; };
    EXPECT_EQ(modem_api_read_nv(0, 1, 2, 3, buffer.data(), &length), result);
    EXPECT_EQ(length, result == 0 ? size : capacity);
    if (result == 0) {
      std::fill_n(expected.begin(), size, 0);
      std::fill_n(expected.begin(), std::min(size, 256U), 0x77);
    }
    EXPECT_EQ(buffer, expected);
  }
}

TEST_F(Commands, ReturnTheFeatureStatusAndTheStatisticsId) {
  for (const auto& [response, status] : {std::pair{"0:01 4:03 8:5AA5", 0}, {"8:5AA5", 0x5AA5}}) {
    respond(response);
    EXPECT_EQ(modem_api_get_hydra_feature_status(0, 1, &out.flag1, &out.flag2), status == 0 ? 1 : 0);
    EXPECT_EQ(out.flag1 << 8 | out.flag2, status);
  }
  EXPECT_EQ(modem_api_get_hydra_feature_status(0, 1, &out.flag1, nullptr), 0);
  const std::tuple<uint8_t, const char*, int32_t, uint32_t> rows[] = {{1, "8:00 12:05000080", 1, kWord},
                                                                      {2, "8:07 12:05000080", 0, 0x80000005},
                                                                      {0, "8:01 12:05000080", 0, kWord},
                                                                      {1, "0:01 4:03 8:01 12:05000080", 1, kWord}};
  for (const auto& [flag, response, result, granted] : rows) {
    respond(response);
    uint32_t id = kWord;
    EXPECT_EQ(modem_api_set_modem_stats_report_status(0, flag, &id), result) << response;
    EXPECT_EQ(id, granted) << response;
  }
}

TEST_F(CommandLog, OfStatisticsThatAreReturnedUpToTheirCapacities) {
  const std::tuple<const char*, int32_t, uint32_t> rows[] = {{"8:01", 0, 0},        {"8:01 12:02", 0, 2},
                                                             {"8:01 12:0C", 0, 10}, {"12:02", 1, 1},
                                                             {"8:02 12:02", 1, 1},  {"0:01 4:01 8:01 12:02", 1, 1}};
  for (const auto& [content, result, returned] : rows) {
    Bytes response = structure(7136, content);
    std::fill(response.begin() + 16, response.end(), 0xAA);
    stats_para_data stored, expected;
    std::memset(&stored, 0xEE, sizeof(stored));
    stored.para_num = 1;
    expected = stored;
    expected.para_num = returned;
    for (uint32_t k = 0; k < 10; ++k) {
      const uint32_t size = k % 2 == 0 ? 900 : 70 * k;
      put(response, 16 + 712 * k, 0x10000 + k);
      put(response, 20 + 712 * k, ids[k]);
      put(response, 24 + 712 * k, size);
      if (result != 0 || k >= returned) continue;
      stats_para_entry& entry = expected.entries[k];
      entry.sub = 0x10000 + k;
      entry.id = ids[k];
      entry.value_len = std::min(size, 700U);
      std::memset(entry.value, 0xAA, entry.value_len);
    }
    on_send = [&](const Call&) { return Outcome{0, response}; };
    EXPECT_EQ(modem_api_get_stats_parameter(0, 1, 2, &stored), result);
    EXPECT_EQ(std::memcmp(&stored, &expected, sizeof(stored)), 0) << content;
  }
}

TEST_F(CommandLog, OfTheDrxThatIsReturnedWhateverTheOutcome) {
  const std::tuple<int, const char*, uint8_t, uint32_t> rows[] = {
      {0, "8:FE777777 12:01000080", 0xFE, 0x80000001}, {0, "0:01 4:5E", 0, 0}, {-3, "8:01", 1, 0}};
  for (const auto& [code, response, valid, drx] : rows) {
    respond(response, code);
    EXPECT_EQ(modem_api_get_drx(MODEM_API_CLIENT_NAS_0, &out.flag1, &out.word1), 0);
    EXPECT_EQ(out.flag1, valid);
    EXPECT_EQ(out.word1, drx);
  }
}

// Only the result word decides the result; the fields are copied in any case.
TEST_F(CommandLog, OfTheCellInfoThatIsReturned) {
  const std::tuple<int, uint32_t, int32_t> outcomes[] = {{0, 0, 0}, {0, 0x10000, 1}, {-3, 0, 0}};
  for (const auto& [code, word, result] : outcomes) {
    Bytes response(3784);
    for (size_t i = 8; i < response.size(); ++i) response[i] = static_cast<uint8_t>(i * i >> 3);
    put(response, 0, word);
    on_send = [&, code = code](const Call&) { return Outcome{code, response}; };
    EXPECT_EQ(cell_info_row(kNas1, 1).call(kNas1), result);
    const auto expect_at = [&](size_t offset, auto value) {
      EXPECT_EQ(std::memcmp(&response[offset], &value, sizeof(value)), 0) << "at " << offset;
    };
    EXPECT_EQ(out.intra_end | out.inter_end, 0) << "behind the caller's arrays";
    for (size_t j = 0; j < 8; ++j) expect_at(452 + 10 * j, out.intra_pci[j]);
    for (size_t i = 0; i < 24; ++i) expect_at(556 + 92 * (i / 8) + 10 * (i % 8), out.inter_pci[i]);
    for (size_t i = 0; i < 3; ++i) expect_at(544 + 92 * i, out.inter_earfcn[i]);
    expect_at(3132, out.flag1);
    expect_at(3136, out.word1);
    expect_at(3148, out.flag2);
    expect_at(3152, out.word2);
  }
}

}  // namespace
