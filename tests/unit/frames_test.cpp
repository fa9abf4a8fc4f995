// Every operation of the client table, the pass-through commands and the vendor-specific connection logs that it was
// entered and left, and with what result.
#include "library_test.h"
#include "vs_client.h"

namespace {

using namespace scripted;

class Frames : public LibraryTest {};

TEST_F(Frames, EveryOperationIsLoggedInAndOut) {
  static int32_t id;
  static uint8_t bytes[8];
  const std::string plain = "function exit <-------------";
  const auto ret = [](int result) { return "function exit, ret(" + std::to_string(result) + ") <-------------"; };
  const std::tuple<std::string, void (*)(), std::string> operations[] = {
      {"modem_api_init", [] { modem_api_init(); }, ret(0)},
      {"modem_api_check_white_list", [] { modem_api_check_white_list(); }, ret(1)},
      {"modem_api_init_client", [] { modem_api_init_client(4, nullptr, nullptr, &id); }, ret(4)},
      {"modem_api_free_client", [] { modem_api_free_client(-1); }, ret(7)},
      {"modem_api_operational_status_cb", [] { modem_api_operational_status_cb(1, 3); }, plain},
      {"modem_api_release", [] { modem_api_release(); }, ret(0)},
      {"modem_api_map_qmi_error_to_modem_api", [] { modem_api_map_qmi_error_to_modem_api(-3, nullptr); }, ret(11)},
      {"modem_api_common_command_async", [] { modem_api_common_command_async(0, bytes, 0, &id, nullptr); }, ret(7)},
      {"modem_api_process_response", [] { modem_api_process_response(0, nullptr, 0, nullptr, 0); }, plain},
      {"vs_get_service_object_internal_v01", [] { vs_get_service_object_internal_v01(1, 2, 6); }, plain},
      {"vs_init", [] { vs_init(); }, plain},
      {"vs_client_set_operational_status_callback", [] { vs_client_set_operational_status_callback(nullptr); }, plain},
      {"vs_client_init", [] { vs_client_init(nullptr); }, "function exit, ret(1)"},
      {"vs_client_send_msg_sync", [] { vs_client_send_msg_sync(0, bytes, 8, bytes, 8); }, ret(0)},
      {"vs_client_send_msg_async", [] { vs_client_send_msg_async(0, bytes, 8, bytes, 8, nullptr); }, ret(0)},
      {"vs_client_command_cb", [] { vs_client_command_cb(nullptr, 0, nullptr, 0, nullptr, 0); }, plain},
      {"vs_client_unsol_ind_cb", [] { vs_client_unsol_ind_cb(nullptr, 0, bytes, 0, nullptr); }, plain},
      {"vs_client_service_down_event", [] { vs_client_service_down_event(nullptr, -2, nullptr); }, plain},
      {"vs_client_release", [] { vs_client_release(); }, ret(1)},
  };
  for (const auto& [name, call, exit] : operations) {
    forget();
    call();
    ASSERT_FALSE(log_bodies().empty()) << name;
    EXPECT_EQ(log_bodies().front(), "D " + name + ": function entry ------------->");
    EXPECT_EQ(log_bodies().back(), "D " + name + ": " + exit);
  }
}

}  // namespace
