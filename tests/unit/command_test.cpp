// Pass-through commands and the result of every QMI exchange: what is refused, what is sent, who owns which block.
#include "library_test.h"
#include "vs_client.h"

namespace {

using namespace scripted;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Bytes = std::vector<uint8_t>;

TEST(ResultMapping, IsComplete) {
  std::map<uint32_t, int> results = {{0, 0}, {4, 10}, {26, 0}, {52, 8}};
  for (const uint32_t error : {17, 19, 48, 49}) results[error] = MODEM_API_ERR_INVALID_PARAM;
  for (const uint32_t error : {24, 42, 77, 94}) results[error] = MODEM_API_ERR_NOT_SUPPORTED;
  std::vector<uint32_t> errors = {0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
  for (uint32_t error = 0; error < 300; ++error) errors.push_back(error);
  const std::map<int32_t, int> transport = {{-1, 12}, {-3, 11}, {-4, 1}, {-5, 12}};
  for (const int32_t code : {INT32_MIN, -51, -18, -6, -5, -4, -3, -2, -1, 0, 1, INT32_MAX}) {
    for (const uint32_t result : {0U, 1U, 2U, 0xFFFFFFFFU}) {
      for (const uint32_t error : errors) {
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

// --- what a callback was told ---

struct Told {
  Bytes data;
  bool is_block;
  uint32_t length;
  void* user_data;
  uint32_t result;
  bool operator==(const Told&) const = default;
};
std::vector<Told> told;

void on_response(const uint8_t* data, uint32_t length, void* user_data, uint32_t result) {
  told.push_back({Bytes(data, data + length), data != nullptr, length, user_data, result});
  if (data != nullptr) {
    const Block block = live_blocks().back();
    EXPECT_EQ(block.address, data);
    EXPECT_EQ(block.size, length);
    EXPECT_EQ(block.function, "modem_api_common_command_cb_handler");
    hydra_free_adv(const_cast<uint8_t*>(data), __func__, __LINE__);
  }
}

int g_user;
Told data_of(const Bytes& data) {
  return {data, true, static_cast<uint32_t>(data.size()), &g_user, 0};
}
Told no_data(uint32_t result) {
  return {{}, false, 0, &g_user, result};
}

class Command : public LibraryTest {
 protected:
  Command() {
    forget();
    idle_blocks_ = live_blocks().size();
  }

  int32_t send_async(const Bytes& payload) const {
    return modem_api_common_command_async(id_, payload.data(), static_cast<int32_t>(payload.size()), &g_user,
                                          on_response);
  }

  // How many blocks the exchanges hold.
  size_t held_blocks() const { return live_blocks().size() - idle_blocks_; }

  const int32_t sar_ = open(MODEM_API_CLIENT_SAR);
  const int32_t id_ = open();
  size_t idle_blocks_ = 0;
};

// Both commands, of which the asynchronous one checks its callback besides.
TEST_F(Command, RefusesInOrderAndSendsNothing) {
  const Bytes payload(513);
  const uint8_t* const data = payload.data();
  const struct {
    int32_t client;
    const uint8_t* payload;
    int32_t length;
    modem_api_response_cb callback;
    int32_t result;
    const char* reason;
  } calls_made[] = {
      {-1, data, 513, nullptr, 7, "condition"},          {sar_, data, 513, nullptr, 7, "condition"},
      {id_ + 1, data, 1, on_response, 7, "condition"},   {MODEM_API_MAX_CLIENTS, data, 1, on_response, 7, "condition"},
      {INT32_MAX, data, 1, on_response, 7, "condition"}, {id_, data, 513, nullptr, 5, "NULL pointer"},
      {id_, data, 513, on_response, 5, "condition"},     {id_, data, INT32_MAX, on_response, 5, "condition"},
      {id_, nullptr, 1, on_response, 5, "NULL pointer"},
  };
  for (const auto& call : calls_made) {
    SCOPED_TRACE(testing::Message() << "client " << call.client << ", " << call.length << " bytes");
    forget();
    EXPECT_EQ(modem_api_common_command_async(call.client, call.payload, call.length, nullptr, call.callback),
              call.result);
    const std::string line =
        ": Unexpected " + std::string(call.reason) + ", return error " + std::to_string(call.result) + "!";
    EXPECT_THAT(messages(), ElementsAre("E modem_api_common_command_async" + line));
    if (call.callback == nullptr && call.result == 5) continue;
    forget();
    EXPECT_EQ(modem_api_common_command(call.client, call.payload, call.length), call.result);
    EXPECT_THAT(messages(), ElementsAre("E modem_api_common_command" + line));
  }
  for (const uint32_t status : {0, 1, 2, 4, 5, 6, 7}) {
    modem_api_operational_status_cb(MODEM_API_CLIENT_VS, status);
    EXPECT_EQ(modem_api_common_command(id_, data, 1), 7);
    EXPECT_EQ(send_async({1}), 7);
  }
  EXPECT_THAT(calls(), IsEmpty());
  EXPECT_THAT(told, IsEmpty());
  EXPECT_EQ(held_blocks(), 0U);
}

TEST_F(Command, SendsUpTo512Bytes) {
  for (const size_t length : {0, 1, 512}) {
    forget();
    const Bytes payload(length, 0xA7);
    Bytes request = structure(516, length == 512 ? "1:02" : length == 1 ? "0:01" : "");
    std::copy(payload.begin(), payload.end(), request.begin() + 4);
    EXPECT_EQ(modem_api_common_command(id_, length == 0 ? nullptr : payload.data(), static_cast<int32_t>(length)), 0);
    EXPECT_EQ(send_async(payload), 0);
    EXPECT_THAT(calls(), ElementsAre(Call{.name = "send_msg_sync",
                                          .handle = vs_client_info.client_handle,
                                          .msg_id = 0,
                                          .request = request,
                                          .response_length = 524,
                                          .timeout = 30000},
                                     Call{.name = "send_msg_async",
                                          .handle = vs_client_info.client_handle,
                                          .msg_id = 0,
                                          .request = request,
                                          .response_length = 524}));
  }
}

TEST_F(Command, MapsTheOutcome) {
  const struct {
    int code;
    Bytes response;
    int32_t result;
  } outcomes[] = {{0, header(0, 0), 0}, {0, header(1, 26), 0}, {0, header(1, 94), 4},
                  {-3, {}, 11},         {-2, {}, 0},           {-2, header(1, 4), 10}};
  for (const auto& outcome : outcomes) {
    on_send = [&](const Call&) { return Answer{outcome.code, outcome.response}; };
    EXPECT_EQ(modem_api_common_command(id_, nullptr, 0), outcome.result);
  }
}

// --- asynchronous exchanges ---

TEST_F(Command, TellsTheCallbackHowItEnded) {
  const Bytes data(512, 0x5A);
  const auto answer = [](uint32_t result, uint32_t error, const Bytes& content) {
    Bytes response = header(result, error);
    const auto length = static_cast<uint32_t>(content.size());
    response.insert(response.end(), reinterpret_cast<const uint8_t*>(&length),
                    reinterpret_cast<const uint8_t*>(&length + 1));
    response.insert(response.end(), content.begin(), content.end());
    return response;
  };
  const struct {
    int code;
    Bytes response;
    std::vector<Told> told;
  } exchanges[] = {
      {0, answer(0, 0, {7, 8, 9}), {data_of({7, 8, 9}), no_data(MODEM_API_RESP_END)}},
      {0, answer(0, 0, data), {data_of(data), no_data(MODEM_API_RESP_END)}},
      {0, answer(0, 0, {}), {data_of({}), no_data(MODEM_API_RESP_END)}},
      {0, answer(1, 26, {7}), {data_of({7}), no_data(MODEM_API_RESP_END)}},
      {0, answer(1, 52, {7}), {no_data(MODEM_API_ERR_NOT_READY)}},
      {-3, answer(0, 0, {7}), {no_data(MODEM_API_ERR_TIMEOUT)}},
      {-46, answer(0, 0, {7}), {no_data(MODEM_API_ERR_GENERIC)}},
  };
  for (const auto& exchange : exchanges) {
    told.clear();
    ASSERT_EQ(send_async({1, 2}), 0);
    EXPECT_EQ(held_blocks(), 2U);
    EXPECT_EQ(live_blocks()[idle_blocks_].size, 524U);
    EXPECT_EQ(live_blocks()[idle_blocks_ + 1].size, 16U);
    EXPECT_THAT(told, IsEmpty());
    complete_send(exchange.response, exchange.code);
    EXPECT_EQ(told, exchange.told);
    EXPECT_EQ(held_blocks(), 0U);
  }
}

// What the framework hands over is freed whatever it is; other messages than the pass-through bring no data.
TEST_F(Command, EndsForeignExchanges) {
  const auto block = [](const Bytes& content) {
    auto* const memory = static_cast<uint8_t*>(hydra_malloc_adv(content.size(), "test", 0));
    std::memcpy(memory, content.data(), content.size());
    return memory;
  };
  const auto callback_record = [&](modem_api_response_cb callback) {
    Bytes record(16);
    void* const user = &g_user;
    std::memcpy(record.data(), &callback, sizeof(callback));
    std::memcpy(record.data() + 8, &user, sizeof(user));
    return block(record);
  };
  const Bytes success(524);
  vs_client_command_cb(nullptr, 0x0101, block(success), 524, callback_record(on_response), 0);
  EXPECT_EQ(told, std::vector<Told>{no_data(MODEM_API_RESP_END)});
  told.clear();
  modem_api_process_response(0, nullptr, 524, callback_record(on_response), 0);
  modem_api_process_response(0, block(success), 0, callback_record(on_response), -3);
  EXPECT_EQ(told, (std::vector<Told>{no_data(MODEM_API_ERR_NO_MEMORY), no_data(MODEM_API_ERR_NO_MEMORY)}));
  told.clear();
  modem_api_process_response(0, block(success), 524, nullptr, 0);
  modem_api_process_response(0, block(success), 524, callback_record(nullptr), 0);
  EXPECT_THAT(told, IsEmpty());
  EXPECT_EQ(held_blocks(), 0U);
}

// A framework that refuses a send never calls back; the two blocks of the exchange stay behind.
TEST_F(Command, KeepsTheBlocksOfARefusedSend) {
  const std::map<int, int32_t> outcomes = {{-1, 12}, {-2, 0}, {-3, 11}, {-18, 1}};
  for (const auto& [code, result] : outcomes) {
    on_send_async = [code = code](const Call&) { return code; };
    const size_t held = held_blocks();
    EXPECT_EQ(send_async({1}), result);
    EXPECT_EQ(held_blocks(), held + 2);
  }
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(Command, SurvivesALackOfMemory) {
  if (!FailAllocationOf::is_supported()) GTEST_SKIP() << "no allocation can be made to fail here";
  const auto send_without = [&](size_t size) {
    forget();
    const FailAllocationOf failing(size);
    return modem_api_common_command_async(id_, nullptr, 0, &g_user, on_response);
  };
  EXPECT_EQ(send_without(524), 3);
  EXPECT_EQ(messages().back(), "E modem_api_common_command_async: Unexpected NULL pointer, return error 3!");
  EXPECT_EQ(send_without(16), 3);
  EXPECT_THAT(messages(), ElementsAre("E hydra_malloc_adv: Fail to allocate memory"));
  EXPECT_THAT(calls(), IsEmpty());

  ASSERT_EQ(send_async({}), 0);
  {
    const FailAllocationOf failing(509);
    complete_send(structure(12, "8:FD01"));
  }
  EXPECT_EQ(told, (std::vector<Told>{no_data(MODEM_API_ERR_NO_MEMORY), no_data(MODEM_API_RESP_END)}));
  EXPECT_EQ(held_blocks(), 0U);
}

}  // namespace
