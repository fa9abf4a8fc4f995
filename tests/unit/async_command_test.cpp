// The result of an exchange, and the asynchronous pass-through command: the owners of its blocks, and the arguments of
// the callback.
#include <optional>

#include "library_test.h"
#include "vs_client.h"

namespace {

using namespace scripted;

TEST(ResultMapping, IsComplete) {
  const std::map<uint32_t, int> results = {{0, 0},  {4, 10}, {17, 5}, {19, 5}, {24, 4}, {26, 0},
                                           {42, 4}, {48, 5}, {49, 5}, {52, 8}, {77, 4}, {94, 4}};
  const std::map<int32_t, int> transport = {{-1, 12}, {-3, 11}, {-5, 12}};
  const auto find = [](const auto& map, auto code) {
    return map.contains(code) ? map.at(code) : MODEM_API_ERR_GENERIC;
  };
  for (const int32_t code : {-18, -6, -5, -4, -3, -2, -1, 0, 1}) {
    for (const uint32_t result : {0U, 1U, 2U}) {
      for (uint32_t error = 0; error < 300; ++error) {
        const bool by_response = code == 0 || code == -2;
        const int by_result = result == 0 ? 0 : result == 1 ? find(results, error) : MODEM_API_ERR_GENERIC;
        const int expected = by_response ? by_result : find(transport, code);
        const qmi_response_type_v01 response = {result, error};
        ASSERT_EQ(modem_api_map_qmi_error_to_modem_api(code, &response), expected)
            << code << ", " << result << ", " << error;
      }
    }
  }
}

// The arguments of a callback: the data, if any, and the result.
using Response = std::pair<std::optional<Bytes>, uint32_t>;
std::vector<Response> received;
int g_user;

Response without_data(uint32_t result) {
  return {std::nullopt, result};
}
const Response kEnd = without_data(MODEM_API_RESP_END);

void on_response(const uint8_t* data, uint32_t length, void* user_data, uint32_t result) {
  EXPECT_EQ(user_data, &g_user);
  if (data == nullptr) return received.push_back({std::nullopt, result});
  received.push_back({Bytes(data, data + length), result});
  const Block block = live_blocks().back();  // the client's own, of the response's length
  EXPECT_EQ(block.address, data);
  EXPECT_EQ(block.size, length);
  EXPECT_STREQ(block.function, "modem_api_common_command_cb_handler");
  hydra_free_adv(block.address, __func__, __LINE__);
}

class AsynchronousCommand : public LibraryTest {
 protected:
  AsynchronousCommand() {
    open();
    clear_records();
  }

  static int32_t send(const Bytes& payload = {1}) {
    received.clear();
    return modem_api_common_command_async(0, payload.data(), static_cast<int32_t>(payload.size()), &g_user,
                                          on_response);
  }

  // The sizes of the blocks of pending exchanges: all blocks but the client's.
  static std::vector<size_t> held_blocks() {
    std::vector<size_t> sizes;
    for (const Block& block : live_blocks()) sizes.push_back(block.size);
    sizes.erase(sizes.begin());
    return sizes;
  }
};

TEST_F(AsynchronousCommand, CallsBackWithDataAndAnEndOrWithAFailure) {
  const Bytes longest_data(512, 0x5A);
  Bytes longest = structure(524, "9:02");
  std::copy(longest_data.begin(), longest_data.end(), longest.begin() + 12);
  Bytes beyond = longest, beyond_data = longest_data;  // its length is more than a response can hold
  put(beyond, 8, 768);
  beyond_data.resize(768);
  const std::tuple<int, Bytes, std::vector<Response>> exchanges[] = {
      {0, structure(524, "8:03 12:070809"), {{Bytes{7, 8, 9}, 0}, kEnd}},
      {0, longest, {{longest_data, 0}, kEnd}},
      {0, beyond, {{beyond_data, 0}, kEnd}},
      {0, structure(524, ""), {{Bytes(), 0}, kEnd}},
      {0, structure(524, "0:01 4:34 8:01"), {without_data(8)}},
      {-3, structure(524, "8:01"), {without_data(11)}},
  };
  for (const auto& [code, response, wanted] : exchanges) {
    clear_records();
    EXPECT_EQ(send(longest_data), 0);
    Bytes request = structure(516, "1:02");
    std::copy(longest_data.begin(), longest_data.end(), request.begin() + 4);
    EXPECT_THAT(calls(), ElementsAre(Call{"send_msg_async", vs_client_info.client_handle, 0, request, 524}));
    EXPECT_THAT(held_blocks(), ElementsAre(524, 16));
    EXPECT_THAT(received, IsEmpty());
    complete_send(vs_client_info.client_handle, response, code);
    EXPECT_EQ(received, wanted);
    EXPECT_THAT(held_blocks(), IsEmpty());
  }
}

// Every block that the framework passes is freed; only the pass-through message has data.
TEST_F(AsynchronousCommand, EndsUnknownExchanges) {
  const auto response = [] { return hydra_malloc_adv(524, "test", 0); };
  const auto record = [](modem_api_response_cb callback) { return callback_record(callback, &g_user); };
  vs_client_command_cb(nullptr, 0x0101, response(), 524, record(on_response), 0);
  modem_api_process_response(0, nullptr, 524, record(on_response), 0);
  modem_api_process_response(0, response(), 0, record(on_response), -3);
  modem_api_process_response(0, response(), 524, nullptr, 0);
  modem_api_process_response(0, response(), 524, record(nullptr), 0);
  EXPECT_THAT(received, ElementsAre(kEnd, without_data(3), without_data(3)));
  EXPECT_THAT(held_blocks(), IsEmpty());
}

// A framework that refuses a send never calls back, so nothing frees the two blocks of the exchange.
TEST_F(AsynchronousCommand, LeaksTheBlocksOfARefusedSend) {
  size_t held = 0;
  for (const auto& [code, result] : std::map<int, int32_t>{{-1, 12}, {-2, 0}, {-3, 11}, {-18, 1}}) {
    on_call["send_msg_async"] = returns(code);
    EXPECT_EQ(send(), result);
    EXPECT_EQ(held_blocks().size(), held += 2);
  }
  on_call["send_msg_async"] = [](const Call&) { return Outcome(-2, bytes("01000000 34000000")); };
  EXPECT_EQ(send(), MODEM_API_ERR_NOT_READY);
  EXPECT_THAT(received, IsEmpty());
}

}  // namespace
