// Pass-through commands and the result of every QMI exchange: what is refused, what is sent, who owns which block.
#include <iomanip>

#include "client_command.h"

namespace {

using namespace scripted;
using testing::ElementsAre;
using testing::IsEmpty;
using Bytes = std::vector<uint8_t>;

TEST(ResultMapping, IsComplete) {
  std::map<uint32_t, int> results = {{0, 0}, {4, 10}, {26, 0}, {52, 8}};
  for (const uint32_t error : {17, 19, 48, 49}) results[error] = MODEM_API_ERR_INVALID_PARAM;
  for (const uint32_t error : {24, 42, 77, 94}) results[error] = MODEM_API_ERR_NOT_SUPPORTED;
  const std::map<int32_t, int> transport = {{-1, 12}, {-3, 11}, {-4, 1}, {-5, 12}};
  for (const int32_t code : {INT32_MIN, -51, -18, -6, -5, -4, -3, -2, -1, 0, 1, INT32_MAX}) {
    for (const uint32_t result : {0U, 1U, 2U, 0xFFFFFFFFU}) {
      for (uint32_t error = 0xFFFFFFF0; error != 300; ++error) {
        int expected = 1;
        if (code == 0 || code == -2) {
          if (result == 0) expected = 0;
          if (result == 1 && results.contains(error)) expected = results[error];
        } else if (transport.contains(code)) {
          expected = transport.at(code);
        }
        const qmi_response_type_v01 response = {result, error};
        ASSERT_EQ(modem_api_map_qmi_error_to_modem_api(code, &response), expected)
            << code << ", " << result << ", " << error;
      }
    }
  }
}

// What the callback was told, one text a call: its data, or "-", and the result.
std::vector<std::string> told;
int g_user;

void on_response(const uint8_t* data, uint32_t length, void* user_data, uint32_t result) {
  EXPECT_EQ(user_data, &g_user);
  std::ostringstream text;
  for (uint32_t i = 0; i < length; ++i) text << std::hex << std::setw(2) << std::setfill('0') << int{data[i]};
  told.push_back((data == nullptr ? "-" : text.str()) + " " + std::to_string(result));
  if (data == nullptr) return;
  const Block block = live_blocks().back();  // the client's own, of the response's length
  EXPECT_EQ(block.address, data);
  EXPECT_EQ(block.size, length);
  EXPECT_EQ(block.function, "modem_api_common_command_cb_handler");
  hydra_free_adv(block.address, __func__, __LINE__);
}

class Command : public CommandTest {
 protected:
  static int32_t send_async(const Bytes& payload) {
    return modem_api_common_command_async(MODEM_API_CLIENT_VS, payload.data(), static_cast<int32_t>(payload.size()),
                                          &g_user, on_response);
  }

  // The blocks of exchanges under way.
  std::vector<Block> held_blocks() const {
    const std::vector<Block> blocks = live_blocks();
    return {blocks.begin() + static_cast<ptrdiff_t>(idle_blocks_), blocks.end()};
  }

  const size_t idle_blocks_ = live_blocks().size();
};

TEST_F(Command, SendsUpTo512Bytes) {
  Bytes payload(512, 0xA7);
  Bytes request = structure(516, "1:02");
  std::copy(payload.begin(), payload.end(), request.begin() + 4);
  const auto sync = [](const Bytes& bytes) {
    return [bytes](int32_t client) {
      return modem_api_common_command(client, bytes.data(), static_cast<int32_t>(bytes.size()));
    };
  };
  expect_exchange({"modem_api_common_command", sync(payload), MODEM_API_CLIENT_VS, 0, request, 524});
  expect_exchange({"modem_api_common_command", sync({}), MODEM_API_CLIENT_VS, 0, Bytes(516), 524});
  expect_mapped({"modem_api_common_command", sync({}), MODEM_API_CLIENT_VS, 0, Bytes(516), 524});

  forget();
  EXPECT_EQ(send_async(payload), 0);
  EXPECT_THAT(calls(), ElementsAre(Call{.name = "send_msg_async",
                                        .handle = vs_client_info.client_handle,
                                        .request = request,
                                        .response_length = 524}));
}

// The checks of both commands in their order; the asynchronous one checks its callback besides.
TEST_F(Command, RefusesAndSendsNothing) {
  const Bytes bytes(513);
  const struct {
    int32_t client;
    const uint8_t* payload;
    int32_t length;
    modem_api_response_cb callback;
    std::string refusal;
  } refused[] = {
      {MODEM_API_CLIENT_SAR, bytes.data(), 513, nullptr, "condition, return error 7!"},
      {MODEM_API_MAX_CLIENTS, bytes.data(), 1, on_response, "condition, return error 7!"},
      {INT32_MAX, bytes.data(), 1, on_response, "condition, return error 7!"},
      {MODEM_API_CLIENT_VS, bytes.data(), 513, nullptr, "NULL pointer, return error 5!"},
      {MODEM_API_CLIENT_VS, bytes.data(), 513, on_response, "condition, return error 5!"},
      {MODEM_API_CLIENT_VS, bytes.data(), INT32_MAX, on_response, "condition, return error 5!"},
      {MODEM_API_CLIENT_VS, nullptr, 1, on_response, "NULL pointer, return error 5!"},
  };
  for (const auto& call : refused) {
    const int32_t result = call.refusal.find('7') != std::string::npos ? 7 : 5;
    forget();
    EXPECT_EQ(modem_api_common_command_async(call.client, call.payload, call.length, &g_user, call.callback), result);
    EXPECT_THAT(messages(), ElementsAre("E modem_api_common_command_async: Unexpected " + call.refusal));
    if (call.client == MODEM_API_CLIENT_VS && call.callback == nullptr) continue;
    forget();
    EXPECT_EQ(modem_api_common_command(call.client, call.payload, call.length), result);
    EXPECT_THAT(messages(), ElementsAre("E modem_api_common_command: Unexpected " + call.refusal));
  }
  for (const uint32_t status : {0, 1, 2, 4, 5, 6, 7}) {
    modem_api_operational_status_cb(MODEM_API_CLIENT_VS, status);
    EXPECT_EQ(modem_api_common_command(MODEM_API_CLIENT_VS, bytes.data(), 1), 7);
    EXPECT_EQ(send_async({1}), 7);
  }
  EXPECT_THAT(calls(), IsEmpty());
  EXPECT_THAT(told, IsEmpty());
  EXPECT_THAT(held_blocks(), IsEmpty());
}

// --- asynchronous exchanges ---

TEST_F(Command, TellsTheCallbackHowItEnded) {
  Bytes longest = structure(524, "9:02");
  std::fill(longest.begin() + 12, longest.end(), 0x5A);
  std::string longest_text;
  for (int i = 0; i < 512; ++i) longest_text += "5a";
  Bytes beyond = longest;  // its length states a byte more than a response can hold
  beyond[8] = 1;
  const struct {
    int code;
    Bytes response;
    std::vector<std::string> told;
  } exchanges[] = {
      {0, structure(524, "8:03 12:070809"), {"070809 0", "- 2"}},
      {0, structure(524, "0:01 4:1A 8:01 12:07"), {"07 0", "- 2"}},
      {0, longest, {longest_text + " 0", "- 2"}},
      {0, beyond, {longest_text + "00 0", "- 2"}},
      {0, structure(524, ""), {" 0", "- 2"}},
      {0, structure(524, "0:01 4:34 8:01"), {"- 8"}},
      {-3, structure(524, "8:01"), {"- 11"}},
      {-46, structure(524, "8:01"), {"- 1"}},
  };
  for (const auto& exchange : exchanges) {
    told.clear();
    ASSERT_EQ(send_async({1, 2}), 0);
    EXPECT_THAT(held_blocks(), ElementsAre(testing::Field(&Block::size, 524), testing::Field(&Block::size, 16)));
    EXPECT_THAT(told, IsEmpty());
    complete_send(exchange.response, exchange.code);
    EXPECT_EQ(told, exchange.told);
    EXPECT_THAT(held_blocks(), IsEmpty());
  }
}

// What the framework hands over is freed whatever it is; other messages than the pass-through bring no data.
TEST_F(Command, EndsForeignExchanges) {
  const auto response = [] { return hydra_malloc_adv(524, "test", 0); };
  const auto record = [](modem_api_response_cb callback) {
    void* const block = hydra_malloc_adv(16, "test", 0);
    void* const fields[] = {reinterpret_cast<void*>(callback), &g_user};
    return std::memcpy(block, fields, sizeof(fields));
  };
  vs_client_command_cb(nullptr, 0x0101, response(), 524, record(on_response), 0);
  modem_api_process_response(0, nullptr, 524, record(on_response), 0);
  modem_api_process_response(0, response(), 0, record(on_response), -3);
  modem_api_process_response(0, response(), 524, nullptr, 0);
  modem_api_process_response(0, response(), 524, record(nullptr), 0);
  EXPECT_THAT(told, ElementsAre("- 2", "- 3", "- 3"));
  EXPECT_THAT(held_blocks(), IsEmpty());
}

// A framework that refuses a send never calls back; the two blocks of the exchange stay behind.
TEST_F(Command, KeepsTheBlocksOfARefusedSend) {
  for (const auto& [code, result] : std::map<int, int32_t>{{-1, 12}, {-2, 0}, {-3, 11}, {-18, 1}}) {
    on_send_async = [code = code](const Call&) { return code; };
    const size_t held = held_blocks().size();
    EXPECT_EQ(send_async({1}), result);
    EXPECT_EQ(held_blocks().size(), held + 2);
  }
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(Command, SurvivesALackOfMemory) {
  if (!FailAllocationOf::is_supported()) GTEST_SKIP() << "no allocation can be made to fail here";
  const auto expect_refused = [](size_t size, const std::vector<std::string>& log) {
    forget();
    EXPECT_EQ(
        [&] {
          const FailAllocationOf failing(size);
          return send_async({});
        }(),
        3);
    EXPECT_EQ(messages(), log);
    EXPECT_THAT(calls(), IsEmpty());
  };
  const std::string failure = "E hydra_malloc_adv: Fail to allocate memory";
  expect_refused(524, {failure, "E modem_api_common_command_async: Unexpected NULL pointer, return error 3!"});
  expect_refused(16, {failure});

  for (const auto& [length, response] : std::map<size_t, const char*>{{509, "8:FD01"}, {UINT32_MAX, "8:FFFFFFFF"}}) {
    told.clear();
    ASSERT_EQ(send_async({}), 0);
    {
      const FailAllocationOf failing(length);
      complete_send(structure(524, response));
    }
    EXPECT_THAT(told, ElementsAre("- 3", "- 2"));
    EXPECT_THAT(held_blocks(), IsEmpty());
  }
}

}  // namespace
