// NV items, EFS items and files, RF NV items: one table over the thirteen calls.
#include "client_command.h"

namespace {

using namespace scripted;
using testing::ElementsAre;
using testing::IsEmpty;
using Bytes = std::vector<uint8_t>;

// What a call is given besides its client, its item and its qualifiers.
struct Data {
  const char* path;
  uint8_t* bytes;
  uint32_t* length;
  uint32_t size;  // of a write
};

enum class Kind { kRead, kWrite, kOther };

struct Operation {
  const char* name;
  Kind kind;
  bool logs_result;
  uint32_t msg_id;
  size_t request_length;
  const char* request;   // without data
  size_t length_offset;  // of a write's data length, which its data follows
  modem_api_result (*call)(int32_t client, const Data& d);
};

constexpr uint32_t kItem = 0xA4A3A2A1;

// clang-format off
const Operation kOperations[] = {
    {"modem_api_read_nv", Kind::kRead, true, 0x0100, 8, "0:A1A2A3A4 4:B1 6:C1C2", 0,
     [](int32_t client, const Data& d) { return modem_api_read_nv(client, kItem, 0xB1, 0xC2C1, d.bytes, d.length); }},
    {"modem_api_write_nv", Kind::kWrite, true, 0x0101, 268, "0:A1A2A3A4 4:B1 6:C1C2", 8,
     [](int32_t client, const Data& d) { return modem_api_write_nv(client, kItem, 0xB1, 0xC2C1, d.bytes, d.size); }},
    {"modem_api_delete_nv", Kind::kOther, false, 0x0102, 8, "0:A1A2A3A4 4:B1 6:C1C2", 0,
     [](int32_t client, const Data&) { return modem_api_delete_nv(client, kItem, 0xB1, 0xC2C1); }},
    {"modem_api_read_efs", Kind::kRead, true, 0x0103, 8, "0:A1A2A3A4 4:C1C2", 0,
     [](int32_t client, const Data& d) { return modem_api_read_efs(client, kItem, 0xC2C1, d.bytes, d.length); }},
    {"modem_api_write_efs", Kind::kWrite, true, 0x0104, 268, "0:A1A2A3A4 4:C1C2", 8,
     [](int32_t client, const Data& d) { return modem_api_write_efs(client, kItem, 0xC2C1, d.bytes, d.size); }},
    {"modem_api_delete_efs", Kind::kOther, false, 0x0105, 8, "0:A1A2A3A4 4:C1C2", 0,
     [](int32_t client, const Data&) { return modem_api_delete_efs(client, kItem, 0xC2C1); }},
    {"modem_api_read_efs_path", Kind::kRead, true, 0x0106, 106, "0:2F6E76 102:C1C2 104:B1", 0,
     [](int32_t client, const Data& d) { return modem_api_read_efs_path(client, d.path, 0xC2C1, 0xB1, d.bytes, d.length); }},
    {"modem_api_write_efs_path", Kind::kWrite, true, 0x0107, 368, "0:2F6E76 102:C1C2 104:B1", 108,
     [](int32_t client, const Data& d) { return modem_api_write_efs_path(client, d.path, 0xC2C1, 0xB1, d.bytes, d.size); }},
    {"modem_api_delete_efs_path", Kind::kOther, false, 0x0108, 106, "0:2F6E76 102:C1C2 104:B1", 0,
     [](int32_t client, const Data& d) { return modem_api_delete_efs_path(client, d.path, 0xC2C1, 0xB1); }},
    {"modem_api_read_rfnv", Kind::kRead, false, 0x0109, 4, "0:A1A2A3A4", 0,
     [](int32_t client, const Data& d) { return modem_api_read_rfnv(client, kItem, d.bytes, d.length); }},
    {"modem_api_write_rfnv", Kind::kWrite, false, 0x010A, 264, "0:A1A2A3A4", 4,
     [](int32_t client, const Data& d) { return modem_api_write_rfnv(client, kItem, d.bytes, d.size); }},
    {"modem_api_delete_rfnv", Kind::kOther, false, 0x010B, 4, "0:A1A2A3A4", 0,
     [](int32_t client, const Data&) { return modem_api_delete_rfnv(client, kItem); }},
    {"modem_api_efs_sync", Kind::kOther, false, 0x010C, 12, "4:A1A2A3A4 8:C1C2", 0,
     [](int32_t client, const Data&) { return modem_api_efs_sync(client, 0, kItem, 0xC2C1); }},
};
// clang-format on

class Nv : public CommandTest {
 protected:
  // Runs a test for each call of a kind.
  template <typename Test>
  static void for_each(Kind kind, Test test) {
    for (const Operation& operation : kOperations) {
      SCOPED_TRACE(operation.name);
      if (operation.kind == kind) test(operation);
    }
  }

  CommandRow row(const Operation& operation, const Bytes& request) {
    return {.name = operation.name,
            .call = [this, &operation](int32_t client) { return operation.call(client, data_); },
            .type = MODEM_API_CLIENT_VS,
            .msg_id = operation.msg_id,
            .request = request,
            .response_length = operation.kind == Kind::kRead ? 268U : 8U,
            .outcome_line = operation.logs_result ? "result " : ""};
  }

  static void expect_refused(const Operation& operation, int32_t client, const Data& data, int32_t result,
                             const std::string& reason) {
    forget();
    EXPECT_EQ(operation.call(client, data), result);
    EXPECT_THAT(messages(), ElementsAre(std::string("E ") + operation.name + ": Unexpected " + reason +
                                        ", return error " + std::to_string(result) + "!"));
    EXPECT_THAT(calls(), IsEmpty());
  }

  Bytes buffer_ = Bytes(512, 0xEE);
  uint32_t length_ = 256;
  Data data_ = {"/nv", buffer_.data(), &length_, 0};
};

TEST_F(Nv, EveryCallIsOneExchange) {
  for (const Operation& operation : kOperations) {
    const CommandRow exchange = row(operation, structure(operation.request_length, operation.request));
    expect_exchange(exchange);
    expect_mapped(exchange);
    EXPECT_EQ(run(exchange, MODEM_API_CLIENT_VS), 0);
    const std::vector<std::string> result = {std::string("D ") + operation.name + ": result 0"};
    EXPECT_EQ(messages(), operation.logs_result ? result : std::vector<std::string>());
  }
}

// What comes after a check that fails is not looked at.
TEST_F(Nv, ChecksClientThenPointersThenLength) {
  for (const Operation& operation : kOperations) {
    for (const int32_t client : {INT32_MIN, 10, INT32_MAX}) {
      expect_refused(operation, client, {nullptr, nullptr, nullptr, 257}, 7, "condition");
    }
  }
  for_each(Kind::kRead, [&](const Operation& operation) {
    expect_refused(operation, 0, {nullptr, nullptr, &length_, 0}, 3, "NULL pointer");
    expect_refused(operation, 0, {nullptr, buffer_.data(), nullptr, 0}, 3, "NULL pointer");
  });
  for_each(Kind::kWrite, [&](const Operation& operation) {
    for (const uint32_t size : {0, 257}) {
      expect_refused(operation, 0, {nullptr, nullptr, nullptr, size}, 3, "NULL pointer");
    }
    for (const uint32_t size : {257U, UINT32_MAX}) {
      expect_refused(operation, 0, {nullptr, buffer_.data(), nullptr, size}, 5, "condition");
    }
  });
}

TEST_F(Nv, ReadsBringWhatFits) {
  const struct {
    const char* response;
    uint32_t size, capacity;
    int32_t result;
  } reads[] = {{"8:00", 0, 0, 0},
               {"8:03", 3, 3, 0},
               {"8:03", 3, 2, 3},
               {"8:03", 3, 0, 3},
               {"9:01", 256, 256, 0},
               {"9:01", 256, 255, 3},
               {"8:2C01", 300, 300, 0},  // what is stated counts, also where a response cannot hold it
               {"8:2C01", 300, 299, 3},
               {"8:FFFFFFFF", UINT32_MAX, 512, 3},
               {"0:01 4:32 8:03", 3, 256, 1}};
  for_each(Kind::kRead, [&](const Operation& operation) {
    for (const auto& read : reads) {
      SCOPED_TRACE(testing::Message() << read.size << " bytes into " << read.capacity);
      std::fill(buffer_.begin(), buffer_.end(), 0xEE);
      length_ = read.capacity;
      on_send = [&](const Call&) {
        Bytes response = structure(268, read.response);
        std::fill(response.begin() + 12, response.end(), 0x77);
        return Answer{.response = response};
      };
      EXPECT_EQ(operation.call(MODEM_API_CLIENT_VS, data_), read.result);
      EXPECT_EQ(length_, read.result == 0 ? read.size : read.capacity);
      Bytes expected(512, 0xEE);
      if (read.result == 0) {
        std::fill_n(expected.begin(), read.size, 0);
        std::fill_n(expected.begin(), std::min(read.size, 256U), 0x77);
      }
      EXPECT_EQ(buffer_, expected);
    }
  });
}

TEST_F(Nv, WritesTakeUpTo256Bytes) {
  for_each(Kind::kWrite, [&](const Operation& operation) {
    for (const uint32_t size : {1U, 256U}) {
      Bytes request = structure(operation.request_length, operation.request);
      std::memcpy(&request[operation.length_offset], &size, sizeof(size));
      std::fill_n(&request[operation.length_offset + 4], size, 0xEE);
      data_.size = size;
      expect_exchange(row(operation, request));
    }
  });
}

TEST_F(Nv, PathsAreCutAfter100Characters) {
  for (const Operation& operation : kOperations) {
    if (std::string(operation.name).find("path") == std::string::npos) continue;
    for (const size_t length : {0, 99, 100, 101, 150}) {
      const std::string path(length, 'p');
      data_.path = path.c_str();
      Bytes request = structure(operation.request_length, "102:C1C2 104:B1");
      std::fill_n(request.begin(), std::min<size_t>(length, 100), 'p');
      expect_exchange(row(operation, request));
    }
  }
}

TEST_F(Nv, SynchronisingSendsItsArgumentsInModeZeroAlone) {
  for (const auto& [mode, request] : std::map<int8_t, const char*>{{1, "0:01"}, {-1, "0:FF"}, {127, "0:7F"}}) {
    forget();
    EXPECT_EQ(modem_api_efs_sync(MODEM_API_CLIENT_VS, mode, kItem, 0xC2C1), 0);
    EXPECT_EQ(calls().at(0).request, structure(12, request));
  }
}

}  // namespace
