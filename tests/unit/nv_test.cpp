// NV items, EFS items and files, RF NV items: one table over the thirteen calls.
#include "library_test.h"
#include "vs_client.h"

namespace {

using namespace scripted;
using testing::ElementsAre;
using testing::IsEmpty;
using Bytes = std::vector<uint8_t>;

// What a call is given besides its client, its item and its qualifiers.
struct Data {
  const char* path = "/nv/a";
  uint8_t* bytes = nullptr;
  uint32_t* length = nullptr;  // a write passes what it points to
  uint32_t size = 0;
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
  int32_t (*call)(int32_t client, const Data& data);
};

constexpr uint32_t kItem = 0xA4A3A2A1;

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
    {"modem_api_read_efs_path", Kind::kRead, true, 0x0106, 106, "0:2F6E762F61 102:C1C2 104:B1", 0,
     [](int32_t client, const Data& d) {
       return modem_api_read_efs_path(client, d.path, 0xC2C1, 0xB1, d.bytes, d.length);
     }},
    {"modem_api_write_efs_path", Kind::kWrite, true, 0x0107, 368, "0:2F6E762F61 102:C1C2 104:B1", 108,
     [](int32_t client, const Data& d) {
       return modem_api_write_efs_path(client, d.path, 0xC2C1, 0xB1, d.bytes, d.size);
     }},
    {"modem_api_delete_efs_path", Kind::kOther, false, 0x0108, 106, "0:2F6E762F61 102:C1C2 104:B1", 0,
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

class Nv : public LibraryTest {
 protected:
  // Runs a test for each operation of a kind.
  template <typename Test>
  void for_each(std::initializer_list<Kind> kinds, Test test) {
    for (const Operation& operation : kOperations) {
      if (std::find(kinds.begin(), kinds.end(), operation.kind) == kinds.end()) continue;
      SCOPED_TRACE(operation.name);
      forget();
      test(operation);
    }
  }

  static Call sent(const Operation& operation, const Bytes& request) {
    return {.name = "send_msg_sync",
            .handle = vs_client_info.client_handle,
            .msg_id = operation.msg_id,
            .request = request,
            .response_length = operation.kind == Kind::kRead ? 268U : 8U,
            .timeout = 30000};
  }

  const int32_t sar_ = open(MODEM_API_CLIENT_SAR);
  const int32_t id_ = open();
  Bytes buffer_ = Bytes(512, 0xEE);
  uint32_t length_ = 256;
  const Data data_ = {.bytes = buffer_.data(), .length = &length_};
};

constexpr auto kAll = {Kind::kRead, Kind::kWrite, Kind::kOther};

TEST_F(Nv, EveryCallSendsItsRequestAndMapsTheOutcome) {
  const struct {
    Answer answer;
    int32_t result;
  } outcomes[] = {{{}, 0}, {{0, header(1, 50)}, 1}, {{0, header(1, 26)}, 0}, {{-3, {}}, 11}, {{-5, header(0, 0)}, 12}};
  for_each(kAll, [&](const Operation& operation) {
    for (const auto& outcome : outcomes) {
      forget();
      on_send = [&](const Call&) { return outcome.answer; };
      EXPECT_EQ(operation.call(id_, data_), outcome.result);
      EXPECT_THAT(calls(), ElementsAre(sent(operation, structure(operation.request_length, operation.request))));
      const std::string from = std::string("D ") + operation.name + ": ";
      const std::string result = std::to_string(outcome.result);
      EXPECT_EQ(log_bodies().front(), from + "function entry ------------->");
      EXPECT_EQ(log_bodies().back(), from + "function exit, ret(" + result + ") <-------------");
      std::vector<std::string> between;
      if (operation.logs_result) between.push_back(from + "result " + result);
      EXPECT_EQ(messages(), between);
    }
  });
}

TEST_F(Nv, ClientIsCheckedBeforePointersAndTheseBeforeLength) {
  const auto expect_refused = [](const Operation& operation, int32_t client, Data data, int32_t result,
                                 const std::string& reason) {
    SCOPED_TRACE(testing::Message() << "client " << client << ", " << data.size << " bytes");
    forget();
    data.path = nullptr;  // nobody looks at it yet
    EXPECT_EQ(operation.call(client, data), result);
    EXPECT_THAT(messages(), ElementsAre(std::string("E ") + operation.name + ": Unexpected " + reason +
                                        ", return error " + std::to_string(result) + "!"));
    EXPECT_THAT(calls(), IsEmpty());
  };
  for_each(kAll, [&](const Operation& operation) {
    for (const int32_t client : {-1, INT32_MIN, sar_, 2, 9, 10, INT32_MAX}) {
      expect_refused(operation, client, {.size = 257}, 7, "condition");
    }
  });
  for_each({Kind::kRead}, [&](const Operation& operation) {
    expect_refused(operation, id_, {.length = &length_}, 3, "NULL pointer");
    expect_refused(operation, id_, {.bytes = buffer_.data()}, 3, "NULL pointer");
  });
  for_each({Kind::kWrite}, [&](const Operation& operation) {
    expect_refused(operation, id_, {.size = 257}, 3, "NULL pointer");
    expect_refused(operation, id_, {.size = 0}, 3, "NULL pointer");
    expect_refused(operation, id_, {.bytes = buffer_.data(), .size = 257}, 5, "condition");
    expect_refused(operation, id_, {.bytes = buffer_.data(), .size = UINT32_MAX}, 5, "condition");
  });
  modem_api_operational_status_cb(MODEM_API_CLIENT_VS, OPERATIONAL_STATUS_FAILED);
  for_each(kAll, [&](const Operation& operation) { expect_refused(operation, id_, data_, 7, "condition"); });
}

TEST_F(Nv, ReadsBringWhatFits) {
  const struct {
    const char* stated;  // length of the item, in the response
    uint32_t size, capacity;
    int32_t result;
  } reads[] = {
      {"8:00", 0, 0, 0},
      {"8:03", 3, 3, 0},
      {"8:03", 3, 2, 3},
      {"8:03", 3, 0, 3},
      {"8:0001", 256, 256, 0},
      {"8:0001", 256, 255, 3},
      {"0:01 4:32 8:03", 3, 256, 1},  // a failure brings no data
  };
  for_each({Kind::kRead}, [&](const Operation& operation) {
    for (const auto& read : reads) {
      SCOPED_TRACE(testing::Message() << read.size << " bytes into " << read.capacity);
      std::fill(buffer_.begin(), buffer_.end(), 0xEE);
      length_ = read.capacity;
      on_send = [&](const Call&) {
        Bytes response = structure(268, read.stated);
        std::fill(response.begin() + 12, response.end(), 0x77);
        return Answer{.response = response};
      };
      EXPECT_EQ(operation.call(id_, data_), read.result);
      EXPECT_EQ(length_, read.result == 0 ? read.size : read.capacity);
      Bytes expected(512, 0xEE);
      if (read.result == 0) std::fill_n(expected.begin(), read.size, 0x77);
      EXPECT_EQ(buffer_, expected);
    }
  });
}

TEST_F(Nv, WritesTakeUpTo256Bytes) {
  for_each({Kind::kWrite}, [&](const Operation& operation) {
    for (const uint32_t size : {0U, 1U, 256U}) {
      forget();
      EXPECT_EQ(operation.call(id_, {.bytes = buffer_.data(), .size = size}), 0);
      Bytes request = structure(operation.request_length, operation.request);
      std::memcpy(&request[operation.length_offset], &size, sizeof(size));
      std::fill_n(&request[operation.length_offset + 4], size, 0xEE);
      EXPECT_THAT(calls(), ElementsAre(sent(operation, request)));
    }
  });
}

TEST_F(Nv, PathsAreCutAfter100Characters) {
  for_each(kAll, [&](const Operation& operation) {
    if (std::string(operation.name).find("path") == std::string::npos) return;
    for (const size_t length : {0, 99, 100, 101, 150}) {
      forget();
      const std::string path(length, 'p');
      Data data = data_;
      data.path = path.c_str();
      operation.call(id_, data);
      Bytes request = structure(operation.request_length, "102:C1C2 104:B1");
      std::fill_n(request.begin(), std::min<size_t>(length, 100), 'p');
      EXPECT_THAT(calls(), ElementsAre(sent(operation, request))) << length;
    }
  });
}

TEST_F(Nv, SynchronisingSendsItsArgumentsInModeZeroAlone) {
  const std::pair<int8_t, const char*> modes[] = {{1, "0:01"}, {-1, "0:FF"}, {127, "0:7F"}};
  for (const auto& [mode, request] : modes) {
    forget();
    EXPECT_EQ(modem_api_efs_sync(id_, mode, kItem, 0xC2C1), 0);
    EXPECT_THAT(calls(), ElementsAre(sent(kOperations[12], structure(12, request))));
  }
}

}  // namespace
