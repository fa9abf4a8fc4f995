#include "command_rows.h"

namespace scripted {
namespace {

constexpr uint32_t kItem = 0xA4A3A2A1;
constexpr uint32_t kStatsClient = 0xC4C3C2C1;

uint8_t g_data[256] = {0xD1, 0xD2, 0xD3};
uint32_t g_length = sizeof(g_data);

modem_api_client_type nas(int32_t sub) {
  return sub == 0 ? MODEM_API_CLIENT_NAS_0 : MODEM_API_CLIENT_NAS_1;
}

// A command of items: its request is a structure of a length with fields.
CommandRow row_of(const char* name, unsigned msg_id, size_t length, const std::string& fields,
                  int32_t (*call)(int32_t)) {
  const bool reads = std::string(name).starts_with("read");
  return {name, MODEM_API_CLIENT_VS, msg_id, reads ? 268U : 8U, structure(length, fields), call};
}

const std::string kNv = "0:A1A2A3A4 4:B1 6:C1C2 ";
const std::string kEfs = "0:A1A2A3A4 4:C1C2 ";
const std::string kPath = "0:2F6E76 102:C1C2 104:B1 ";
const std::string kRfnv = "0:A1A2A3A4 ";

// In any other mode than 0 the arguments of efs_sync stay behind.
#define ITEM(name, msg_id, length, fields, ...) \
  row_of(#name, msg_id, length, fields, [](int32_t id) { return modem_api_##name(id, __VA_ARGS__); })

void add_items(std::vector<CommandRow>& rows) {
  const std::vector<CommandRow> items = {
      ITEM(read_nv, 0x0100, 8, kNv, kItem, 0xB1, 0xC2C1, item.data, item.length),
      ITEM(write_nv, 0x0101, 268, kNv + "8:03 12:D1D2D3", kItem, 0xB1, 0xC2C1, item.data, item.size),
      ITEM(delete_nv, 0x0102, 8, kNv, kItem, 0xB1, 0xC2C1),
      ITEM(read_efs, 0x0103, 8, kEfs, kItem, 0xC2C1, item.data, item.length),
      ITEM(write_efs, 0x0104, 268, kEfs + "8:03 12:D1D2D3", kItem, 0xC2C1, item.data, item.size),
      ITEM(delete_efs, 0x0105, 8, kEfs, kItem, 0xC2C1),
      ITEM(read_efs_path, 0x0106, 106, kPath, item.path, 0xC2C1, 0xB1, item.data, item.length),
      ITEM(write_efs_path, 0x0107, 368, kPath + "108:03 112:D1D2D3", item.path, 0xC2C1, 0xB1, item.data, item.size),
      ITEM(delete_efs_path, 0x0108, 106, kPath, item.path, 0xC2C1, 0xB1),
      ITEM(read_rfnv, 0x0109, 4, kRfnv, kItem, item.data, item.length),
      ITEM(write_rfnv, 0x010A, 264, kRfnv + "4:03 8:D1D2D3", kItem, item.data, item.size),
      ITEM(delete_rfnv, 0x010B, 4, kRfnv, kItem),
      ITEM(efs_sync, 0x010C, 12, "4:A1A2A3A4 8:C1C2", 0, kItem, 0xC2C1),
      ITEM(efs_sync, 0x010C, 12, "0:01", 1, kItem, 0xC2C1),
      ITEM(efs_sync, 0x010C, 12, "0:FF", -1, kItem, 0xC2C1)};
  rows.insert(rows.end(), items.begin(), items.end());
}

#undef ITEM

void add_controls(std::vector<CommandRow>& rows) {
  static const uint8_t payload[] = {0xD1, 0xD2, 0xD3};
  rows.push_back({"common_command", MODEM_API_CLIENT_VS, 0x0000, 524, structure(516, "0:03 4:D1D2D3"),
                  [](int32_t id) { return modem_api_common_command(id, payload, 3); }});
  rows.push_back(
      {"set_vs_event_report", MODEM_API_CLIENT_VS, 0x0001, 8, bytes("01 00 01 00"), modem_api_set_vs_event_report});
  rows.push_back({"notify_shutdown", MODEM_API_CLIENT_VS, 0x0400, 8, {0}, modem_api_notify_shutdown});
  rows.push_back({"reset_modem", MODEM_API_CLIENT_VS, 0x0401, 8, {0}, modem_api_reset_modem});
  rows.push_back({"set_sar_rf_state", MODEM_API_CLIENT_SAR, 0x0001, 8, structure(32, "0:A1A2A3A4"),
                  [](int32_t id) { return modem_api_set_sar_rf_state(id, kItem); }});
  rows.push_back({"get_drx", MODEM_API_CLIENT_NAS_0, 0x0089, 16, {0}, [](int32_t id) {
                    uint8_t valid;
                    uint32_t drx;
                    return modem_api_get_drx(id, &valid, &drx);
                  }});
  for (const int32_t sub : {0, 1, -9}) {
    rows.push_back({"util_enable_networking_indications", nas(sub), 0x0003, 8, structure(175, "4:01"),
                    [=](int32_t id) { return modem_api_util_enable_networking_indications(id, sub); }});
    rows.push_back({"get_cell_info", nas(sub), 0x0043, 3784, {0}, [=](int32_t id) {
                      uint16_t pci[24];
                      uint32_t word;
                      uint8_t byte;
                      return modem_api_get_cell_info(id, sub, pci, pci, pci, &byte, &word, &byte, &word);
                    }});
  }
  // A count beyond 60 goes out as it is, the cells beyond do not.
  for (const auto& [sub, count] : {std::pair<int32_t, uint32_t>{0, 3}, {1, 0}, {-1, 61}}) {
    std::vector<uint32_t> values, parameters;
    Bytes request = structure(488, "484:0101");
    put(request, 0, count);
    for (uint32_t i = 0; i < std::min(count, 60U); ++i) {
      values.push_back(0xA5010000 + 300 * i);
      parameters.push_back(0xB0C0D001 + i);
      put(request, 4 + 8 * i, 300 * i);
      put(request, 8 + 8 * i, parameters[i]);
    }
    rows.push_back({"set_lte_cell_lock", nas(sub), 0x00D8, 8, request, [=, sub = sub, count = count](int32_t id) {
                      return modem_api_set_lte_cell_lock(id, static_cast<uint32_t>(sub), count, values.data(),
                                                         parameters.data());
                    }});
  }
  for (const auto& [sub, value] : {std::pair<int32_t, uint8_t>{0, 0}, {1, 0xFF}, {2, 1}}) {
    rows.push_back({"set_avoid_trm", nas(sub), 0x0098, 8, {value}, [sub = sub, value = value](int32_t id) {
                      return modem_api_set_avoid_trm(id, sub, value);
                    }});
  }
  for (const auto& [sub, mode] : {std::pair{0, 1}, {1, 2}, {0, 3}, {7, -1}, {-1, 0}}) {
    Bytes request = structure(792, "488:01");
    put(request, 492, mode == 1 || mode == 2 ? static_cast<uint32_t>(mode) : 0);
    rows.push_back({"set_nr_disable_mode", nas(sub), 0x0033, 8, request,
                    [sub = sub, mode = mode](int32_t id) { return modem_api_set_nr_disable_mode(id, sub, mode); }});
  }
}

// The two options of a registration as they go out: a value only beside a valid byte.
std::string options_at(size_t offset, uint8_t valid1, uint8_t valid2) {
  const auto option = [](size_t at, uint8_t valid, const char* value) {
    char text[32];
    std::snprintf(text, sizeof(text), " %zu:%02X00%s", at, valid, valid != 0 ? value : "0000");
    return std::string(text);
  };
  return option(offset, valid1, "CDAB") + option(offset + 4, valid2, "3412");
}

// Of more than 100 records the first 100 go out, of more than 5 parameters the first 5.
CommandRow register_row(uint32_t count, uint8_t valid1, uint8_t valid2) {
  std::vector<modem_api_stats_registration> records(count);
  const uint32_t sent = std::min(count, 100U);
  Bytes request = structure(5616, "0:C1C2C3C4" + options_at(5608, valid1, valid2));
  put(request, 4, sent);
  for (uint32_t i = 0; i < count; ++i) {
    modem_api_stats_registration& record = records[i];
    std::memset(&record, 0xEE, sizeof(record));
    record.id = 0xF0000000 + i;
    record.para_num = i % 10;
    for (uint32_t k = 0; k < std::size(record.parameters); ++k) record.parameters[k] = 16 * i + k;
    if (i >= sent) continue;
    const size_t at = 8 + 56 * i;
    const uint32_t parameters = std::min(i % 10, 5U);
    put(request, at, record.id);
    put(request, at + 4, parameters);
    for (uint32_t k = 0; k < parameters; ++k) put(request, at + 8 + 4 * k, record.parameters[k]);
    request[at + 28] = record.flag = static_cast<uint8_t>(i + 1);
    record.block[0] = 0x0102030405060708 + i;
    record.block[1] = 0x1112131415161718 + i;
    put(request, at + 32, record.block[0]);
    put(request, at + 40, record.block[1]);
    request[at + 48] = record.trailer = static_cast<uint8_t>(i + 2);
  }
  return {"register_modem_stats_data", MODEM_API_CLIENT_VS, 0x0201, 8, request, [=](int32_t id) {
            return modem_api_register_modem_stats_data(id, kStatsClient, valid1, 0xABCD, valid2, 0x1234, records.data(),
                                                       count);
          }};
}

std::vector<uint32_t> ids_into(Bytes& request, size_t offset, uint32_t count, uint32_t sent) {
  std::vector<uint32_t> ids;
  for (uint32_t i = 0; i < count; ++i) {
    ids.push_back(0xF0000001 + i);
    if (i < sent) put(request, offset + 4 * i, ids[i]);
  }
  return ids;
}

CommandRow deregister_row(uint32_t count, uint8_t valid1, uint8_t valid2) {
  Bytes request = structure(416, "0:C1C2C3C4" + options_at(408, valid1, valid2));
  put(request, 4, std::min(count, 100U));
  const std::vector<uint32_t> ids = ids_into(request, 8, count, 100);
  return {"deregister_modem_stats_data", MODEM_API_CLIENT_VS, 0x0202, 8, request, [=](int32_t id) {
            return modem_api_deregister_modem_stats_data(id, kStatsClient, valid1, 0xABCD, valid2, 0x1234, ids.data(),
                                                         count);
          }};
}

CommandRow get_parameter_row(uint32_t count) {
  stats_para_data data = {};
  data.para_num = count;
  Bytes request = structure(7128, "0:FEFF 2:0180");
  put(request, 4, count);
  for (uint32_t k = 0; k < count; ++k) {
    stats_para_entry& entry = data.entries[k];
    entry.sub = 0xEEEEEEEE;  // is not sent
    entry.id = 0xF0000000 + k;
    entry.value_len = 100 * k;
    for (size_t i = 0; i < sizeof(entry.value); ++i) entry.value[i] = static_cast<uint8_t>(16 * (i + k) + 7);
    const size_t at = 8 + 712 * k;
    put(request, at + 4, entry.id);
    put(request, at + 8, entry.value_len);
    std::memcpy(&request[at + 12], entry.value, sizeof(entry.value));
  }
  return {"get_stats_parameter", MODEM_API_CLIENT_VS, 0x0207, 7136, request, [=](int32_t id) {
            auto in_out = data;
            return modem_api_get_stats_parameter(id, 0xFFFE, 0x8001, &in_out);
          }};
}

CommandRow clear_parameter_row(uint32_t count) {
  Bytes request = structure(48, "0:FEFF 2:0180");
  put(request, 4, count);
  const std::vector<uint32_t> ids = ids_into(request, 8, count, count);
  return {"clear_stats_parameter", MODEM_API_CLIENT_VS, 0x0208, 8, request, [=](int32_t id) {
            return modem_api_clear_stats_parameter(id, 0xFFFE, 0x8001, static_cast<int32_t>(count), ids.data());
          }};
}

void add_statistics(std::vector<CommandRow>& rows) {
  rows.push_back({"get_hydra_feature_status", MODEM_API_CLIENT_VS, 0x0002, 12, bytes("A1A2A3A4"), [](int32_t id) {
                    uint8_t on;
                    return modem_api_get_hydra_feature_status(id, kItem, &on, &on);
                  }});
  rows.push_back({"set_hydra_feature_status", MODEM_API_CLIENT_VS, 0x0003, 8, bytes("A1A2A3A4 11223300"),
                  [](int32_t id) { return modem_api_set_hydra_feature_status(id, kItem, 0x11, 0x22, 0x33); }});
  for (const auto& [report, request] : {std::pair{0, "1:01 4:C1C2C3C4"}, {1, "0:01"}, {0xFF, "0:FF"}}) {
    rows.push_back({"set_modem_stats_report_status", MODEM_API_CLIENT_VS, 0x0200, 16, structure(8, request),
                    [flag = static_cast<uint8_t>(report)](int32_t id) {
                      uint32_t stats_client = kStatsClient;
                      return modem_api_set_modem_stats_report_status(id, flag, &stats_client);
                    }});
  }
  const std::vector<CommandRow> lists = {register_row(12, 0xFF, 0),    register_row(150, 0, 1), deregister_row(1, 1, 0),
                                         deregister_row(150, 0, 0x80), get_parameter_row(1),    get_parameter_row(10),
                                         clear_parameter_row(1),       clear_parameter_row(10)};
  rows.insert(rows.end(), lists.begin(), lists.end());
}

}  // namespace

ItemArguments item = {"/nv", g_data, &g_length, 3};

const std::vector<CommandRow>& command_rows() {
  static const std::vector<CommandRow> rows = [] {
    std::vector<CommandRow> all;
    add_controls(all);
    add_items(all);
    add_statistics(all);
    for (CommandRow& row : all) row.name.insert(0, "modem_api_");
    return all;
  }();
  return rows;
}

void for_each_command(const std::string& part, const std::function<void(const CommandRow&)>& use) {
  for (const CommandRow& row : command_rows()) {
    if (row.name.find(part) != row.name.npos) use(row);
  }
}

}  // namespace scripted
