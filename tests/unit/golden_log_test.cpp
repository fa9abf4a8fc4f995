// The golden log: every exported function is called, with success and into each of its refusals, and what the library
// writes is compared line by line with a file in golden/. A line stands there with its level, source file and function;
// line numbers, addresses and process ids are left out. The lines of entry and exit show who calls whom, and with which
// result.
//
// After an intended change of a text: PELMAR_GOLDEN=update ./test -R GoldenLog, then review the difference.
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "command_rows.h"
#include "modem_api_peripheral_mng.h"
#include "modem_hydra.h"
#include "pelmar_ssr.h"
#include "pelmar_string.h"
#include "reconnect_test.h"
#include "vs_client.h"

namespace {

using namespace scripted;

// Writes `replacement` for every occurrence of `start` with the characters of `rest` that follow it.
void replace(std::string& text, const std::string& start, const char* rest, const std::string& replacement) {
  for (size_t at = 0; (at = text.find(start, at)) != text.npos; at += replacement.size()) {
    const size_t end = std::min(text.find_first_not_of(rest, at + start.size()), text.size());
    text.replace(at, end - at, replacement);
  }
}

std::string normalised(const LogLine& line) {
  constexpr char kDigits[] = "0123456789";
  std::string text = (line.priority == 3 ? "E " : "D ") + line.text;
  replace(text, ".cpp:", kDigits, ".cpp");
  replace(text, ".h:", kDigits, ".h");
  replace(text, "ptr_hydra_data = 0x", "0123456789abcdef", "ptr_hydra_data = ADDRESS");
  replace(text, "/proc/self/fd/", kDigits, "FILE");
  replace(text, "errno = ", kDigits, "errno = N");
  const std::string id = std::to_string(getpid());
  replace(text, "/proc/" + id + "/", "", "/proc/PID/");
  replace(text, "p_id: " + id + ",", "", "p_id: PID,");
  return text;
}

class GoldenLog : public testing::Test {
 protected:
  GoldenLog() { properties["persist.vendor.radio.adb_log_shell"] = "0"; }

  // Calls, and adds what is logged meanwhile under a title of its own: all lines, or those with one of the words.
  template <typename Call>
  void log(const std::string& title, Call call) {
    clear_log();
    call();
    text_ += "== " + title + "\n";
    for (const LogLine& line : log_lines()) {
      const std::string text = normalised(line);
      const auto has = [&](const std::string& word) { return text.find(word) != text.npos; };
      if (words_.empty() || std::any_of(words_.begin(), words_.end(), has)) text_ += text + "\n";
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
    settle_log();
    modem_api_init();
    for (modem_api_client_type type = 0; type < MODEM_API_CLIENT_TYPES; ++type) ASSERT_EQ(init_client(type), 0);
  }

  static int32_t init_client(modem_api_client_type type) {
    int32_t id = -1;
    return modem_api_init_client(type, on_event, on_notice, &id);
  }

  Lines words_;
  std::string text_;
};

TEST_F(GoldenLog, FirstLine) {
  log("the first line of a process", [] { pelmar_check_sub_id(1); });
  log("the property echo", [] { pelmar_print_property_value("ro.unset"); });
  testing::internal::CaptureStdout();
  g_pelmar_qcril_ril_process_instance_id = 1;
  log("an instance of the radio daemon", [] { pelmar_get_qcril_process_instance_id(); });
  log("both sinks", [] {
    pelmar_hal_add_shell_print_mask(0xFFFF);
    pelmar_str_find_right(nullptr, 'x');
  });
  text_ += "== standard output\n" + normalised({7, testing::internal::GetCapturedStdout()});
}

TEST_F(GoldenLog, ClientTable) {
  settle_log();
  for (const char* const title : {"init", "init: again"}) log(title, [] { modem_api_init(); });
  for (modem_api_client_type type = 0; type <= MODEM_API_CLIENT_TYPES; ++type) {
    log("init_client", [type] { init_client(type); });
    log("init_client: open", [type] { init_client(type); });
    log("operational_status_cb", [type] { modem_api_operational_status_cb(type, 4); });
    log("init_client: pending", [type] { init_client(type); });
  }
  log("free_client", [] { modem_api_free_client(0); });
  log("free_client: freed", [] { modem_api_free_client(0); });
  log("free_client: id", [] { modem_api_free_client(-1); });
  on_init_instance = [](int) { return QMI_TIMEOUT_ERR; };
  log("init_client: no service", [] { init_client(MODEM_API_CLIENT_VS); });
  log("release", [] { modem_api_release(); });
}

TEST_F(GoldenLog, Commands) {
  open_clients();
  for (const CommandRow& row : command_rows()) {
    const auto id = static_cast<int32_t>(row.type);
    log(row.name, [&] { row.call(id); });
    log(row.name + ": client", [&] { row.call(id ^ 1); });
    on_send = [](const Call&) { return Answer{0, header(1, 52)}; };
    log(row.name + ": refused", [&] { row.call(id); });
    on_send = [](const Call&) { return Answer{-3, {}}; };
    log(row.name + ": no response", [&] { row.call(id); });
    on_send = nullptr;
  }
}

// The client is checked first, then pointers, then lengths.
TEST_F(GoldenLog, Refusals) {
  open_clients();
  uint8_t data[513] = {};
  uint32_t length = 256;
  for_each_command("_read_", [&](const CommandRow& row) {
    item = {nullptr, nullptr, nullptr, 257};
    log(row.name + ": client", [&] { row.call(1); });
    item = {"/nv", nullptr, &length, 0};
    log(row.name + ": data", [&] { row.call(0); });
    item = {"/nv", data, nullptr, 0};
    log(row.name + ": length", [&] { row.call(0); });
  });
  for_each_command("_write_", [&](const CommandRow& row) {
    item = {nullptr, nullptr, nullptr, 257};
    log(row.name + ": client", [&] { row.call(1); });
    log(row.name + ": data", [&] { row.call(0); });
    item = {nullptr, data, nullptr, 257};
    log(row.name + ": length", [&] { row.call(0); });
  });
  const modem_api_response_cb callback = [](const uint8_t*, uint32_t, void*, uint32_t) {};
  struct PassThrough {
    const char* title;
    int32_t client;
    const uint8_t* payload;
    int32_t length;
    modem_api_response_cb callback;
  };
  for (const PassThrough& call : {PassThrough{"client", 1, nullptr, 513, nullptr},
                                  {"callback", 0, nullptr, 513, nullptr},
                                  {"length", 0, nullptr, 513, callback},
                                  {"largest length", 0, data, INT32_MAX, callback},
                                  {"null", 0, nullptr, 1, callback}}) {
    const auto& [title, client, payload, size, function] = call;
    log("common_command: " + std::string(title), [&] { modem_api_common_command(client, payload, size); });
    log("common_command_async: " + std::string(title),
        [&] { modem_api_common_command_async(client, payload, size, nullptr, function); });
  }
  log("statistics", [] {
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
  });
}

TEST_F(GoldenLog, AsynchronousCommands) {
  open_clients();
  static const uint8_t payload[3] = {};
  const modem_api_response_cb callback = [](const uint8_t* data, uint32_t, void*, uint32_t) {
    if (data != nullptr) hydra_free_adv(const_cast<uint8_t*>(data), "test", 0);
  };
  log("common_command_async", [&] { modem_api_common_command_async(0, payload, 3, nullptr, callback); });
  log("its response", [] { complete_send(structure(524, "8:03 12:070809")); });
  modem_api_common_command_async(0, payload, 3, nullptr, callback);
  log("its failure", [] { complete_send({}, -3); });
  log("map", [] { modem_api_map_qmi_error_to_modem_api(-3, nullptr); });
  log("process_response: nothing", [] { modem_api_process_response(0, nullptr, 0, nullptr, 0); });
}

TEST_F(GoldenLog, Events) {
  open_clients();
  for (const auto& [name, edit] :
       {std::pair{"add", &modem_api_add_modem_event}, {"remove", &modem_api_remove_modem_event}}) {
    for (const char* const title : {"", ": again"}) log(name + std::string(title), [&] { edit(0, 3); });
    log(name + std::string(": event"), [&] { edit(1, 2); });
    log(name + std::string(": event"), [&] { edit(0, 6); });
    log(name + std::string(": client"), [&] { edit(1, 3); });
    log(name + std::string(": id"), [&] { edit(-1, 2); });
  }
  log("report", [] { modem_api_set_vs_event_report(0); });
  log("report: client", [] { modem_api_set_vs_event_report(1); });
  log("networking indications", [] { modem_api_util_enable_networking_indications(2, 0); });
  log("networking indications: client", [] { modem_api_util_enable_networking_indications(2, 1); });
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
    connection.context->service_object = vs_get_service_object_internal_v01(1, 2, 6);  // whose indications have a size
    log("client_init", [&] { connection.open(on_event); });
    log("send", [&] { connection.send(1, bytes_8, 8, bytes_8, 8); });
    void* const response = hydra_malloc_adv(8, "test", 0);
    log("send_async", [&] { connection.send_async(1, bytes_8, 8, response, 8, nullptr); });
    log("response", [] { complete_send({}, -1); });
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
  log("init: again", [] { modem_hydra_api_init(); });
  statistics();
  log("id_alloc", [] { modem_hydra_stats_id_alloc(); });
  log("id_free", [] { modem_hydra_stats_id_free(); });
  log("id_free: again", [] { modem_hydra_stats_id_free(); });
  on_send = [](const Call&) { return Answer{0, header(1, 52)}; };
  statistics();
  log("is_inited", [] { modem_hydra_api_is_inited(); });
  log("stats_client_is_inited", [] { modem_hydra_stats_client_is_inited(); });
  log("callbacks", [] { indicate(last_connection(), 0x0601, bytes("01 0100 07")); });
  on_init_instance = [](int) { return QMI_SERVICE_ERR; };
  log("init: no service", [] { modem_hydra_api_init(); });
  on_init_instance = nullptr;
  modem_hydra_api_init();
  log("deinit", [] { modem_hydra_api_deinit(); });
}

TEST_F(GoldenLog, Decoders) {
  settle_log();
  on_init_instance = [](int) { return QMI_SERVICE_ERR; };
  modem_hydra_mcs_trm_asdiv value = {};
  log("no service", [&] { modem_hydra_mcs_trm_asdiv_get(0, &value); });
  on_init_instance = nullptr;
  modem_hydra_api_init();
  words_ = {"hydra_mgr_fetch", "hydra_mgr_metrics", "hydra_mgr_tx_power"};  // what is below is in Hydra.log
  uint32_t length = 0;
  uint8_t mode = 9;
  on_send = [&](const Call& call) {  // a value of that many bytes: zero but for the first two
    Bytes response = structure(7136, "8:01 12:01 28:01");
    std::copy_n(call.request.begin(), 2, response.begin() + 16);       // the subscription
    std::copy_n(call.request.begin() + 12, 4, response.begin() + 20);  // the identifier
    put(response, 24, length);
    response[29] = call.request[12] == 0x2c ? mode : 0;
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
  length = 8;
  for (const uint8_t technology : {12, 5}) {
    mode = technology;
    log("tx_power", [] { modem_tx_power_get_by_sub(0); });
  }
  // No value, none and several values, another identifier before another subscription, lengths; then what is taken.
  const auto whole = on_send;
  for (const char* const change : {"8:00", "12:00", "12:02", "12:FFFFFFFF", "16:33 20:33", "16:33", "24:00", "24:BC02",
                                   "24:BD02", "24:FFFFFFFF", "18:09"}) {
    on_send = [&](const Call& call) {
      Answer answer = whole(call);
      std::istringstream fields(change);
      for (std::string field; fields >> field;) {
        const Bytes changed = bytes(field.substr(field.find(':') + 1));
        std::copy(changed.begin(), changed.end(), answer.response.begin() + std::stol(field));
      }
      return answer;
    };
    log("fetch", [&] { modem_hydra_mcs_trm_asdiv_get(1, &value); });
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
  words_ = {"version", "MODEM", "BUILD"};
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
