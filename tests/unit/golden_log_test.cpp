// The golden log: every exported function is called, with success and into each of its refusals, and what the library
// writes is compared line by line with a file in golden/. A line stands there with its level, source file and function;
// line numbers, addresses and process ids are left out.
//
// After an intended change of a text: PELMAR_GOLDEN=update ./test -R GoldenLog, then review the difference.
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <regex>

#include "modem_api_peripheral_mng.h"
#include "modem_hydra.h"
#include "nas_client.h"
#include "pelmar_ssr.h"
#include "pelmar_string.h"
#include "reconnect_test.h"
#include "scripted_files.h"
#include "settled_log.h"
#include "vs_client.h"

namespace {

using namespace scripted;

std::string normalised(const LogLine& line) {
  static const std::regex number(R"((\.(?:cpp|h)):\d+\])");
  static const std::regex address("(ptr_hydra_data = )0x[0-9a-f]+");
  static const std::regex process("\\b" + std::to_string(getpid()) + "\\b");
  std::string text = std::regex_replace(line.text, number, "$1]");
  text = std::regex_replace(text, address, "$1ADDRESS");
  text = std::regex_replace(text, process, "PID");
  text = std::regex_replace(text, std::regex("/proc/self/fd/\\d+"), "FILE");
  text = std::regex_replace(text, std::regex("errno = \\d+"), "errno = N");
  return (line.priority == 3 ? "E " : "D ") + text;
}

class GoldenLog : public testing::Test {
 protected:
  GoldenLog() { properties["persist.vendor.radio.adb_log_shell"] = "0"; }

  // Calls, and adds what is logged meanwhile under a title of its own: all lines, or those that match.
  template <typename Call>
  void log(const std::string& title, Call call) {
    clear_log();
    call();
    text_ += "== " + title + "\n";
    for (const LogLine& line : log_lines()) {
      const std::string text = normalised(line);
      if (std::regex_search(text, only_)) text_ += text + "\n";
    }
    clear_log();
  }

  void TearDown() override {
    const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
    const std::string path = std::string(GOLDEN_DIRECTORY) + "/" + name + ".log";
    const char* const mode = std::getenv("PELMAR_GOLDEN");
    if (mode != nullptr && std::string(mode) == "update") std::ofstream(path) << text_;
    std::ifstream file(path);
    std::istringstream actual(text_);
    std::string wanted_line, actual_line, title;
    while (std::getline(file, wanted_line)) {
      ASSERT_TRUE(std::getline(actual, actual_line)) << "missing, after " << title << ": " << wanted_line;
      if (wanted_line.starts_with("== ")) title = wanted_line;
      ASSERT_EQ(actual_line, wanted_line) << "in " << title;
    }
    ASSERT_FALSE(std::getline(actual, actual_line)) << "not in " << path << ": " << actual_line;
  }

  // A library that is set up, with a client of each type whose id is its type.
  static void open_clients() {
    modem_api_init();
    for (modem_api_client_type type = 0; type < MODEM_API_CLIENT_TYPES; ++type) {
      int32_t id = -1;
      ASSERT_EQ(modem_api_init_client(type, on_event, on_notice, &id), 0);
    }
  }

  std::regex only_{""};
  std::string text_;
};

TEST_F(GoldenLog, FirstLine) {
  log("the first line of a process", [] { pelmar_check_sub_id(1); });
  log("the property echo", [] { pelmar_print_property_value("ro.unset"); });
  g_pelmar_qcril_ril_process_instance_id = 1;
  log("an instance of the radio daemon", [] { pelmar_get_qcril_process_instance_id(); });
}

TEST_F(GoldenLog, ClientTable) {
  settle_log();
  int32_t id = -1;
  log("init", [] { modem_api_init(); });
  log("init_client", [&] { modem_api_init_client(MODEM_API_CLIENT_NAS_0, on_event, on_notice, &id); });
  log("init_client: open", [&] { modem_api_init_client(MODEM_API_CLIENT_NAS_0, on_event, on_notice, &id); });
  modem_api_operational_status_cb(MODEM_API_CLIENT_NAS_0, 4);
  log("init_client: pending", [&] { modem_api_init_client(MODEM_API_CLIENT_NAS_0, on_event, on_notice, &id); });
  log("init_client: type", [&] { modem_api_init_client(4, on_event, on_notice, &id); });
  on_init_instance = [](int) { return QMI_TIMEOUT_ERR; };
  log("init_client: no service", [&] { modem_api_init_client(MODEM_API_CLIENT_SAR, on_event, on_notice, &id); });
  log("operational_status_cb", [] { modem_api_operational_status_cb(MODEM_API_CLIENT_NAS_0, 3); });
  log("free_client", [] { modem_api_free_client(0); });
  log("free_client: freed", [] { modem_api_free_client(0); });
  log("free_client: id", [] { modem_api_free_client(-1); });
  log("release", [] { modem_api_release(); });
}

TEST_F(GoldenLog, Commands) {
  settle_log();
  open_clients();
  static const uint8_t payload[513] = {};
  const modem_api_response_cb callback = [](const uint8_t* data, uint32_t, void*, uint32_t) {
    if (data != nullptr) hydra_free_adv(const_cast<uint8_t*>(data), "test", 0);
  };
  log("common_command", [] { modem_api_common_command(0, payload, 3); });
  log("common_command: client", [] { modem_api_common_command(1, payload, 3); });
  log("common_command: length", [] { modem_api_common_command(0, payload, 513); });
  log("common_command: null", [] { modem_api_common_command(0, nullptr, 1); });
  log("common_command_async", [&] { modem_api_common_command_async(0, payload, 3, nullptr, callback); });
  log("its response", [] { complete_send(structure(524, "8:03 12:070809")); });
  modem_api_common_command_async(0, payload, 3, nullptr, callback);
  log("its failure", [] { complete_send({}, -3); });
  log("common_command_async: client", [&] { modem_api_common_command_async(1, payload, 3, nullptr, callback); });
  log("common_command_async: callback", [] { modem_api_common_command_async(0, payload, 3, nullptr, nullptr); });
  log("common_command_async: length", [&] { modem_api_common_command_async(0, payload, 513, nullptr, callback); });
  log("common_command_async: null", [&] { modem_api_common_command_async(0, nullptr, 1, nullptr, callback); });
  log("map", [] { modem_api_map_qmi_error_to_modem_api(-3, nullptr); });
  log("process_response: nothing", [] { modem_api_process_response(0, nullptr, 0, nullptr, 0); });
}

TEST_F(GoldenLog, Events) {
  settle_log();
  open_clients();
  log("add", [] { modem_api_add_modem_event(0, 3); });
  log("add: again", [] { modem_api_add_modem_event(0, 3); });
  log("add: event", [] { modem_api_add_modem_event(0, 2); });
  log("add: client", [] { modem_api_add_modem_event(1, 3); });
  log("add: id", [] { modem_api_add_modem_event(-1, 3); });
  log("report", [] { modem_api_set_vs_event_report(0); });
  log("report: client", [] { modem_api_set_vs_event_report(1); });
  log("remove", [] { modem_api_remove_modem_event(0, 3); });
  log("remove: again", [] { modem_api_remove_modem_event(0, 3); });
  log("remove: event", [] { modem_api_remove_modem_event(0, 6); });
  log("remove: client", [] { modem_api_remove_modem_event(1, 3); });
  log("networking indications", [] { modem_api_util_enable_networking_indications(2, 0); });
  log("networking indications: client", [] { modem_api_util_enable_networking_indications(2, 1); });
}

TEST_F(GoldenLog, Items) {
  settle_log();
  open_clients();
  static uint8_t data[256];
  static uint32_t length;
  const std::pair<const char*, modem_api_result (*)(int32_t, uint8_t*, uint32_t*)> reads[] = {
      {"read_nv", [](int32_t id, uint8_t* to, uint32_t* size) { return modem_api_read_nv(id, 1, 2, 3, to, size); }},
      {"read_efs", [](int32_t id, uint8_t* to, uint32_t* size) { return modem_api_read_efs(id, 1, 2, to, size); }},
      {"read_efs_path",
       [](int32_t id, uint8_t* to, uint32_t* size) { return modem_api_read_efs_path(id, "/a", 1, 2, to, size); }},
      {"read_rfnv", [](int32_t id, uint8_t* to, uint32_t* size) { return modem_api_read_rfnv(id, 1, to, size); }}};
  for (const auto& [name, read] : reads) {
    length = sizeof(data);
    log(name, [read = read] { read(0, data, &length); });
    log(name + std::string(": client"), [read = read] { read(1, data, &length); });
    log(name + std::string(": null"), [read = read] { read(0, nullptr, &length); });
    on_send = [](const Call&) { return Answer{0, structure(268, "8:03")}; };
    length = 2;
    log(name + std::string(": capacity"), [read = read] { read(0, data, &length); });
    on_send = [](const Call&) { return Answer{0, header(1, 50)}; };
    log(name + std::string(": failure"), [read = read] { read(0, data, &length); });
    on_send = nullptr;
  }
  const std::pair<const char*, modem_api_result (*)(int32_t, const uint8_t*, uint32_t)> writes[] = {
      {"write_nv",
       [](int32_t id, const uint8_t* from, uint32_t n) { return modem_api_write_nv(id, 1, 2, 3, from, n); }},
      {"write_efs", [](int32_t id, const uint8_t* from, uint32_t n) { return modem_api_write_efs(id, 1, 2, from, n); }},
      {"write_efs_path",
       [](int32_t id, const uint8_t* from, uint32_t n) { return modem_api_write_efs_path(id, "/a", 1, 2, from, n); }},
      {"write_rfnv", [](int32_t id, const uint8_t* from, uint32_t n) { return modem_api_write_rfnv(id, 1, from, n); }}};
  for (const auto& [name, write] : writes) {
    log(name, [write = write] { write(0, data, 3); });
    log(name + std::string(": client"), [write = write] { write(1, data, 3); });
    log(name + std::string(": null"), [write = write] { write(0, nullptr, 3); });
    log(name + std::string(": length"), [write = write] { write(0, data, 257); });
  }
  for (const int32_t id : {0, 1}) {
    log("delete_nv", [id] { modem_api_delete_nv(id, 1, 2, 3); });
    log("delete_efs", [id] { modem_api_delete_efs(id, 1, 2); });
    log("delete_efs_path", [id] { modem_api_delete_efs_path(id, "/a", 1, 2); });
    log("delete_rfnv", [id] { modem_api_delete_rfnv(id, 1); });
    log("efs_sync", [id] { modem_api_efs_sync(id, 0, 1, 2); });
  }
}

TEST_F(GoldenLog, RadioControls) {
  settle_log();
  open_clients();
  static const uint32_t cells[] = {1};
  static uint16_t pci[24];
  static uint32_t word;
  static uint8_t byte;
  for (const int32_t id : {0, 1, 2, 3}) {  // of which one is a client of each control's type
    log("notify_shutdown", [id] { modem_api_notify_shutdown(id); });
    log("reset_modem", [id] { modem_api_reset_modem(id); });
    log("set_sar_rf_state", [id] { modem_api_set_sar_rf_state(id, 5); });
    log("get_drx", [id] { modem_api_get_drx(id, &byte, &word); });
    log("get_cell_info", [id] { modem_api_get_cell_info(id, 1, pci, pci, pci, &byte, &word, &byte, &word); });
    log("set_lte_cell_lock", [id] { modem_api_set_lte_cell_lock(id, 0, 1, cells, cells); });
    log("set_avoid_trm", [id] { modem_api_set_avoid_trm(id, 1, 1); });
    log("set_nr_disable_mode", [id] { modem_api_set_nr_disable_mode(id, 0, 2); });
  }
}

TEST_F(GoldenLog, Statistics) {
  settle_log();
  open_clients();
  static const uint32_t ids[] = {0x52};
  static const modem_api_stats_registration records[1] = {};
  static stats_para_data data = {};
  static uint8_t on;
  static uint32_t granted;
  data.para_num = 1;
  std::fill(std::begin(data.entries[0].value), std::end(data.entries[0].value), 0x5A);
  for (const int32_t id : {0, 1}) {
    log("get_hydra_feature_status", [id] { modem_api_get_hydra_feature_status(id, 2, &on, &on); });
    log("set_hydra_feature_status", [id] { modem_api_set_hydra_feature_status(id, 2, 1, 1, 1); });
    log("set_modem_stats_report_status", [id] { modem_api_set_modem_stats_report_status(id, 1, &granted); });
    log("register_modem_stats_data", [id] { modem_api_register_modem_stats_data(id, 1, 0, 0, 0, 0, records, 1); });
    log("deregister_modem_stats_data", [id] { modem_api_deregister_modem_stats_data(id, 1, 0, 0, 0, 0, ids, 1); });
    log("get_stats_parameter", [id] { modem_api_get_stats_parameter(id, 1, 2, &data); });
    log("clear_stats_parameter", [id] { modem_api_clear_stats_parameter(id, 1, 2, 1, ids); });
  }
  log("refusals", [] {
    modem_api_get_hydra_feature_status(0, 1, nullptr, &on);
    modem_api_set_modem_stats_report_status(0, 1, nullptr);
    modem_api_register_modem_stats_data(0, 1, 0, 0, 0, 0, nullptr, 1);
    modem_api_register_modem_stats_data(0, 1, 0, 0, 0, 0, records, 0);
    modem_api_deregister_modem_stats_data(0, 1, 0, 0, 0, 0, nullptr, 1);
    modem_api_deregister_modem_stats_data(0, 1, 0, 0, 0, 0, ids, 0);
    modem_api_get_stats_parameter(0, 1, 2, nullptr);
    data.para_num = 11;
    modem_api_get_stats_parameter(0, 1, 2, &data);
    modem_api_clear_stats_parameter(0, 1, 2, 11, ids);
    modem_api_clear_stats_parameter(0, 1, 2, 1, nullptr);
  });
}

TEST_F(GoldenLog, VendorSpecificClient) {
  settle_log();
  static uint8_t bytes_8[8];
  log("init", [] { vs_init(); });
  log("service object", [] { vs_get_service_object_internal_v01(1, 2, 5); });
  log("status callback", [] { vs_client_set_operational_status_callback(nullptr); });
  log("indication: nobody", [] { vs_client_unsol_ind_cb(nullptr, 0x0601, bytes_8, 0, nullptr); });
  on_init_instance = [](int) { return QMI_TIMEOUT_ERR; };
  log("client_init: no service", [] { vs_client_init(on_event); });
  on_init_instance = nullptr;
  log("client_init", [] { vs_client_init(on_event); });
  log("send", [] { vs_client_send_msg_sync(0x0400, bytes_8, 1, bytes_8, 8); });
  log("send_async", [] { vs_client_send_msg_async(0x0400, bytes_8, 1, bytes_8, 8, nullptr); });
  log("response", [] { vs_client_command_cb(nullptr, 0, nullptr, 0, nullptr, 0); });
  const std::pair<unsigned, const char*> indications[] = {{0x0004, "01 0400 A1A2A3A4 02 0100 00 03 0100 07"},
                                                          {0x0203, "01 0400 A1A2A3A4 02 0100 00"},
                                                          {0x0204, "01 0100 B1"},
                                                          {0x0601, "01 0100 B1"},
                                                          {0x0777, ""}};
  for (const auto& [id, wire] : indications) {
    log("indication", [id = id, wire = wire] { indicate(last_connection(), id, bytes(wire)); });
  }
  log("service down", [] { lose_service(last_connection()); });
  log("release", [] { vs_client_release(); });
}

TEST_F(GoldenLog, ReconnectingClients) {
  settle_log();
  static uint8_t bytes_8[8];
  for (const Connection& connection : kConnections) {
    log(connection.name + " init", [&] { connection.init(); });
    log("status callback", [&] { connection.set_status_callback(nullptr); });
    on_init_instance = [](int) { return QMI_TIMEOUT_ERR; };
    log("client_init: no service", [&] { connection.open(on_event); });
    on_init_instance = nullptr;
    log("client_init_client_handles", [&] { connection.attempt(); });
    connection.release();
    connection.init();
    log("client_init", [&] { connection.open(on_event); });
    log("send", [&] { connection.send(1, bytes_8, 8, bytes_8, 8); });
    void* const response = hydra_malloc_adv(8, "test", 0);
    log("send_async", [&] { connection.send_async(1, bytes_8, 8, response, 8, nullptr); });
    log("response", [] { complete_send({}, -1); });
    connection.context->service_object = vs_get_service_object_internal_v01(1, 2, 6);
    for (const char* const wire : {"01 0100 07", "01 0200 0707"}) {
      log("indication", [&] { indicate(last_connection(), 0x0601, bytes(wire)); });
    }
    connection.context->event_cb = nullptr;
    log("indication: nobody", [&] { indicate(last_connection(), 0x0601, {}); });
    connection.release();
    connection.init();
    connection.open(on_event);
    set_threads(Threads::kHold);
    log("service down", [] { lose_service(last_connection()); });
    notifier_init_result = -1;
    log("released: no notifier", [] { run_held(); });
    notifier_init_result = 0;
    log("released", [&] { connection.release_thread(nullptr); });
    log("service up: gone", [] { announce_service(last_notifier(), QMI_CLIENT_SERVICE_COUNT_DEC); });
    log("service up", [] { announce_service(last_notifier()); });
    log("resumed", [] { run_held(); });
    set_threads(Threads::kRun);
    log("release", [&] { connection.release(); });
  }
  nas_0_init();
  log("networking indications", [] { nas_0_client_set_networking_indications(); });
  log("networking indications", [] { nas_1_client_set_networking_indications(); });
}

TEST_F(GoldenLog, Hydra) {
  settle_log();
  static const uint32_t ids[] = {0x52};
  const auto statistics = [this] {
    log("is_started", [] { modem_hydra_stats_is_started(); });
    log("start", [] { modem_hydra_stats_start(); });
    log("stop", [] { modem_hydra_stats_stop(); });
    log("id_alloc", [] { modem_hydra_stats_id_alloc(); });
    log("register", [] { modem_hydra_register_modem_stats_data(0, 0, 0, 0, nullptr, 0); });
    log("deregister", [] { modem_hydra_deregister_modem_stats_data(0, 0, 0, 0, ids, 1); });
    log("get", [] { modem_hydra_get_stats_parameter(0, 1, nullptr); });
    log("clear", [] { modem_hydra_clear_stats_parameter(0, 1, 1, ids); });
    log("id_free", [] { modem_hydra_stats_id_free(); });
  };
  statistics();
  on_send = [](const Call& call) {
    if (call.msg_id == 0x0200) return Answer{0, structure(16, "8:01 12:0C000000")};
    return Answer{0, call.msg_id == 0x0002 ? structure(12, "8:01") : header(0, 0)};
  };
  log("init", [] { modem_hydra_api_init(); });
  statistics();
  log("id_alloc", [] { modem_hydra_stats_id_alloc(); });
  log("id_free", [] { modem_hydra_stats_id_free(); });
  log("id_free: again", [] { modem_hydra_stats_id_free(); });
  on_send = [](const Call&) { return Answer{0, header(1, 52)}; };
  log("id_alloc: refused", [] { modem_hydra_stats_id_alloc(); });
  log("is_inited", [] { modem_hydra_api_is_inited(); });
  log("stats_client_is_inited", [] { modem_hydra_stats_client_is_inited(); });
  log("callbacks", [] { indicate(last_connection(), 0x0601, bytes("01 0100 07")); });
  log("deinit", [] { modem_hydra_api_deinit(); });
  on_init_instance = [](int) { return QMI_SERVICE_ERR; };
  log("init: no service", [] { modem_hydra_api_init(); });
}

TEST_F(GoldenLog, Decoders) {
  settle_log();
  on_init_instance = [](int) { return QMI_SERVICE_ERR; };
  modem_hydra_mcs_trm_asdiv value = {};
  log("no service", [&] { modem_hydra_mcs_trm_asdiv_get(0, &value); });
  on_init_instance = nullptr;
  modem_hydra_api_init();
  only_ = R"(hydra_mgr_(fetch|metrics|tx_power))";  // what is below is in Hydra.log and Statistics.log
  static uint32_t length = 0;
  on_send = [](const Call& call) {  // a value of that many bytes: zero but for the first two
    std::vector<uint8_t> response(7136);
    response[8] = response[12] = 1;
    std::memcpy(&response[16], &call.request[0], 2);   // the subscription
    std::memcpy(&response[20], &call.request[12], 4);  // the identifier
    std::memcpy(&response[24], &length, sizeof(length));
    response[28] = 1;
    response[29] = call.request[12] == 0x2c ? 9 : 0;
    return Answer{0, response};
  };
  const auto decoders = [this](auto... decoder) { (log("decoder", decoder), ...); };
#define DECODER(function, Record) \
  [] {                            \
    Record record = {};           \
    function(1, &record);         \
  }
#define LTE(carrier) DECODER(modem_hydra_lte_srv_meas_info_get_for_##carrier, modem_hydra_lte_srv_meas_info)
#define NR(carrier) DECODER(modem_hydra_nr5g_srv_meas_info_get_for_##carrier, modem_hydra_nr5g_srv_meas_info)
#define PLAIN(Record) DECODER(Record##_get, Record)
  for (const uint32_t bytes : {80u, 1u}) {
    length = bytes;
    decoders(LTE(pcc), LTE(scc1), LTE(scc2), LTE(scc3), LTE(scc4), LTE(scc5), LTE(scc6), NR(pcc), NR(scc1), NR(scc2),
             PLAIN(modem_hydra_nr5g_ll1_fw_rx_control_agc), PLAIN(modem_hydra_nr5g_ll1_fw_serving_ftl),
             PLAIN(modem_hydra_nr5g_ml1_antenna_switch_diversity), PLAIN(modem_hydra_wcdma_pn_search_edition2),
             PLAIN(modem_hydra_gsm_l1_rx_diversity_metrics), PLAIN(modem_hydra_mcs_trm_asdiv),
             PLAIN(modem_hydra_lte_pusch_power_info), PLAIN(modem_hydra_nr5g_mac_ul_phy_ch_power_info));
    log("sys_mode", [] { modem_sys_mode_get(0); });
    log("tx_power", [] { modem_tx_power_get_by_sub(0); });
    log("tx_power of the data subscription", [] { modem_tx_power_get_for_dds_sub(); });
    log("tx_power of both", [] { modem_tx_power_get_for_max_sub(); });
  }
#undef DECODER
#undef LTE
#undef NR
#undef PLAIN
  log("null", [] { modem_hydra_mcs_trm_asdiv_get(0, nullptr); });
  log("subscription", [&] { modem_hydra_mcs_trm_asdiv_get(2, &value); });
  for (const size_t at : {12, 16, 20, 24}) {  // no value, another subscription, another identifier, no length
    const auto whole = on_send;
    length = 8;
    on_send = [&](const Call& call) {
      Answer answer = whole(call);
      answer.response[at] = at == 12 || at == 24 ? 0 : 0x33;
      return answer;
    };
    log("fetch", [&] { modem_hydra_mcs_trm_asdiv_get(1, &value); });
    on_send = whole;
  }
  on_send = [](const Call&) { return Answer{-3, {}}; };
  log("no response", [&] { modem_hydra_mcs_trm_asdiv_get(1, &value); });
}

TEST_F(GoldenLog, PeripheralManager) {
  settle_log();
  log("init", [] { modem_api_peripheral_mng_init("modem"); });
  log("vote", [] { modem_api_peripheral_mng_vote(); });
  log("release_vote", [] { modem_api_peripheral_mng_release_vote(); });
  for (int event = 0; event < 5; ++event) {
    log("event", [event] { pm_callback(pm_callback_data, static_cast<pm_event>(event)); });
  }
  pm_results = {{"connect", -2}, {"disconnect", -1}, {"register", -1}};
  log("vote: failed", [] { modem_api_peripheral_mng_vote(); });
  log("release_vote: failed", [] { modem_api_peripheral_mng_release_vote(); });
  log("init: failed", [] { modem_api_peripheral_mng_init("modem"); });
  log("deinit", [] { modem_api_peripheral_mng_deinit(); });
}

constexpr bool (*kTraits[])() = {pelmar_is_factory_version, pelmar_is_ct_cert_version, pelmar_is_cm_cert_version,
                                 pelmar_is_cu_cert_version, pelmar_is_cert_version,    pelmar_is_china_version,
                                 pelmar_is_test_build,      pelmar_is_native_version,  pelmar_is_factory_version_ex,
                                 pelmar_is_root_version,    pelmar_is_mp_version,      pelmar_is_orbo_version,
                                 pelmar_is_user_version,    pelmar_is_pre_version,     pelmar_is_dev_version,
                                 pelmar_is_stable_version,  pelmar_get_single_sim_flag};

TEST_F(GoldenLog, IdentityOfABuild) {
  settle_log();
  for (const auto& [name, value] : {std::pair{"ro.boot.factorybuild", "1"},
                                    {"ro.cust.test", "ct"},
                                    {"ro.vendor.radio.build_region", "cn"},
                                    {"ro.build.tags", "release-keys"},
                                    {"ro.vendor.radio.build_profile", "native_factory"},
                                    {"ro.debuggable", "1"},
                                    {"ro.boot.hwlevel", "MP"},
                                    {"ro.orbo.build.region", "eu"},
                                    {"persist.radio.multisim.config", "ssss"}}) {
    properties[name] = value;
  }
  only_ = "version|MODEM|BUILD";
  log("traits", [] {
    for (const auto trait : kTraits) trait();
  });
}

TEST_F(GoldenLog, Identity) {
  settle_log();
  for (int round = 0; round < 2; ++round) {  // what is kept, and what only the first call reads
    log("traits", [] {
      for (const auto trait : kTraits) trait();
      pelmar_vendor_build_region_is_cfged();
    });
    log("names and numbers", [] {
      pelmar_build_type_get();
      pelmar_device_name_get();
      pelmar_build_region_get();
      pelmar_vendor_build_region_get();
      pelmar_get_pelmar_manufacturer_id();
      pelmar_get_pelmar_device_type();
      pelmar_set_pelmar_manufacturer_id(5);
    });
  }
  log("subscriptions", [] {
    pelmar_check_sub_mask(3);
    pelmar_check_sub_id(2);
    pelmar_get_sub_mask_by_id(1);
    pelmar_update_default_data_sub(1);
    pelmar_get_default_data_sub();
    pelmar_update_active_call_sub(0);
    pelmar_get_active_call_sub();
  });
  log("properties", [] {
    char value[PELMAR_PROPERTY_BUFFER_BYTES];
    int32_t number = 0;
    pelmar_get_property_value("ro.unset", value, "fallback");
    pelmar_get_property_value(nullptr, value, "");
    pelmar_get_property_value("ro.unset", nullptr, "");
    pelmar_get_property_value("ro.unset", value, nullptr);
    pelmar_set_property_value("persist.p", "v");
    pelmar_set_property_value(nullptr, "v");
    pelmar_set_property_value("persist.p", nullptr);
    pelmar_set_property_value("persist.p", std::string(93, 'v').c_str());
    pelmar_set_property_value_to_int("persist.p", -7);
    pelmar_get_property_value_from_int("persist.p", &number, 3);
    pelmar_get_property_value_from_int(nullptr, &number, 3);
    pelmar_get_property_value_from_int("persist.p", nullptr, 3);
  });
  log("lists", [] {
    const char* const names[] = {"x1", "ly"};
    const int8_t types[] = {PELMAR_BUILD_TYPE_PRE};
    const uint64_t numbers[] = {3};
    pelmar_string_list_contain(names, 2, "lynx");
    pelmar_string_list_contain(names, 1, "lynx");
    pelmar_string_list_contain(nullptr, 1, "lynx");
    pelmar_string_list_contain(names, 1, nullptr);
    pelmar_string_list_contain(names, 0, "lynx");
    pelmar_device_name_list_contain(names, 2);
    pelmar_build_region_list_contain(names, 2);
    pelmar_build_type_list_contain(types, 1);
    pelmar_int8_list_contain(nullptr, 1, 1);
    pelmar_int16_list_contain(nullptr, 1, 1);
    pelmar_int32_list_contain(nullptr, 1, 1);
    pelmar_int64_list_contain(numbers, 1, 3);
    pelmar_int64_list_contain(numbers, 1, 4);
    pelmar_int64_list_contain(numbers, 0, 4);
  });
  log("restart type", [] {
    char name[16];
    uint32_t room = sizeof(name);
    for (const int32_t type : {0, 1, 1, 2, 0, 3}) {
      pelmar_set_modem_ssr_type(type);
      pelmar_get_modem_ssr_type();
    }
    pelmar_get_modem_ssr_type_name(name, &room);
    room = 0;
    pelmar_get_modem_ssr_type_name(name, &room);
    pelmar_get_modem_ssr_type_name(nullptr, &room);
    pelmar_get_modem_ssr_type_name(name, nullptr);
    pelmar_modem_ssr_wait_s(0);
    pelmar_modem_ssr_wait_s(2);
  });
  prctl(PR_SET_NAME, "golden_log");
  log("process", [] {
    pelmar_pid_info info;
    pelmar_get_current_pid_info(&info);
    pelmar_get_current_pid_info(nullptr);
    pelmar_utils_get_pid_name();
    pelmar_utils_get_pid_number();
    pelmar_get_current_pid_name_ex();
    pelmar_get_pid_by_name(nullptr, "mtb");
    pelmar_get_pid_by_name(&info.p_id, nullptr);
  });
}

TEST_F(GoldenLog, StringsFilesAndMemory) {
  settle_log();
  log("trim", [] {
    for (const auto& [text, max] : {std::pair<std::string, uint32_t>{" a ", 16},
                                    {"", 16},
                                    {"  ", 16},
                                    {"    ", 3},
                                    {"abcdef", 4},
                                    {"   x", 4},
                                    {"a", 1}}) {
      std::string copy = text;
      pelmar_str_trim(copy.data(), max);
    }
    pelmar_str_trim(nullptr, 8);
  });
  log("compare", [] {
    pelmar_str_cmp("ab", "ab");
    pelmar_str_cmp(nullptr, "ab");
    pelmar_str_cmp("ab", nullptr);
    pelmar_str_cmp("ab", "abc");
    pelmar_str_cmp("ab", "ac");
  });
  log("replace, prefix", [] {
    char in[] = "abc";
    char empty[] = "";
    char out[8];
    pelmar_str_rpl(out, in, 8, "b", "xy");
    pelmar_str_rpl(out, in, 4, "x", "y");
    pelmar_str_rpl(out, in, 4, "b", "123");
    pelmar_str_rpl(nullptr, in, 8, "b", "x");
    pelmar_str_rpl(out, nullptr, 8, "b", "x");
    pelmar_str_rpl(out, in, 8, nullptr, "x");
    pelmar_str_rpl(out, in, 8, "b", nullptr);
    pelmar_str_rpl(out, empty, 8, "b", "x");
    pelmar_str_rpl(out, in, 8, "", "x");
    pelmar_str_add_prefix("in", out, 8, "pre");
    pelmar_str_add_prefix("in", out, 5, "pre");
    pelmar_str_add_prefix(nullptr, out, 8, "pre");
    pelmar_str_add_prefix("in", nullptr, 8, "pre");
    pelmar_str_add_prefix("in", out, 8, nullptr);
  });
  log("find, print, hexadecimal", [] {
    char text[] = "a/b";
    const uint8_t data[] = {0x1A, 0x2B};
    pelmar_str_find_right(text, '/');
    pelmar_str_find_right(nullptr, '/');
    pelmar_str_print(text);
    pelmar_str_print(nullptr);
    pelmar_get_hex_str(text, 4, data);
    pelmar_get_hex_str(nullptr, 4, data);
    pelmar_get_hex_str(text, 3, data);
    pelmar_get_hex_str(text, 4, nullptr);
  });
  const std::string source = file_with("content");
  const std::string target = file_with("");
  log("copy", [&] {
    int reads = 0;
    int writes = 0;
    on_read = [&](long asked) { return reads++ == 0 ? (errno = EINTR, -1L) : asked; };
    on_write = [&](long asked) { return writes++ == 0 ? (errno = EINTR, -1L) : asked; };
    pelmar_copy_file(source.c_str(), target.c_str());
    on_read = [](long) { return errno = EIO, -1L; };
    pelmar_copy_file(source.c_str(), target.c_str());
    on_read = nullptr;
    for (const long outcome : {-1L, 0L}) {
      on_write = [outcome](long) { return errno = EIO, outcome; };
      pelmar_copy_file(source.c_str(), target.c_str());
    }
    on_write = nullptr;
    pelmar_copy_file(nullptr, target.c_str());
    pelmar_copy_file(source.c_str(), nullptr);
    pelmar_copy_file("/nonexistent/file", target.c_str());
    pelmar_copy_file(source.c_str(), "/nonexistent/file");
  });
  log("threads and memory", [] {
    set_threads(Threads::kFail);
    pelmar_create_pthread(
        "worker", [](void* argument) { return argument; }, nullptr);
    pelmar_create_pthread(nullptr, nullptr, nullptr);
    set_threads(Threads::kRun);
    void* block = pelmar_mem_malloc(8);
    pelmar_mem_free(&block);
    hydra_free_adv(hydra_malloc_adv(8, "test", 1), "test", 1);
    char dump[8];
    hydra_mem_trace_dump(dump, sizeof(dump));
  });
}

}  // namespace
