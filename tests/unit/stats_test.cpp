// The statistics commands: what each sends, what it refuses, and what it hands back.
#include <numeric>

#include "client_command.h"

namespace {

using namespace scripted;
using testing::Each;
using testing::ElementsAre;

constexpr uint32_t kUntouched = 0xEEEEEEEE;

std::vector<uint32_t> numbers(uint32_t count) {
  std::vector<uint32_t> ids(count);
  std::iota(ids.begin(), ids.end(), 0xF0000001);
  return ids;
}

// Flag values and option values that tell the arguments apart; a value goes out only beside a valid byte.
std::vector<Field> options_at(size_t offset, uint8_t valid1, uint8_t valid2) {
  return {{offset, 1, valid1},
          {offset + 2, 2, valid1 != 0 ? 0xABCDu : 0u},
          {offset + 4, 1, valid2},
          {offset + 6, 2, valid2 != 0 ? 0x1234u : 0u}};
}

CommandRow get_feature() {
  return {"modem_api_get_hydra_feature_status",
          [](int32_t id) {
            uint8_t enabled = 0xEE, effective = 0xEE;
            const auto result = modem_api_get_hydra_feature_status(id, 0xA1B2C3D4, &enabled, &effective);
            EXPECT_EQ(enabled & effective, result == MODEM_API_SUCCESS ? 0 : 0xEE);
            return result;
          },
          MODEM_API_CLIENT_VS,
          0x0002,
          fields(4, {{0, 4, 0xA1B2C3D4}}),
          12,
          "result "};
}

CommandRow set_report(uint8_t flag, const std::vector<Field>& request) {
  return {"modem_api_set_modem_stats_report_status",
          [=](int32_t id) {
            uint32_t stats_client_id = kUntouched;
            const auto result = modem_api_set_modem_stats_report_status(id, flag, &stats_client_id);
            EXPECT_EQ(stats_client_id, kUntouched);  // no response here grants an id
            return result;
          },
          MODEM_API_CLIENT_VS,
          0x0200,
          fields(8, request),
          16,
          "result "};
}

CommandRow register_stats(uint32_t count, uint32_t sent, uint8_t valid1, uint8_t valid2) {
  std::vector<modem_api_stats_registration> records(count);
  std::memset(records.data(), 0xEE, count * sizeof(records[0]));
  auto request = options_at(5608, valid1, valid2);
  request.insert(request.end(), {{0, 4, 0xC0FFEE01}, {4, 4, sent}});
  for (uint32_t i = 0; i < count; ++i) {
    auto& record = records[i];
    record.id = 0xF0000000 + i;
    record.para_num = i % 10;
    std::iota(std::begin(record.parameters), std::end(record.parameters), 16 * i);
    record.flag = static_cast<uint8_t>(i + 1);
    record.block[0] = 0x0102030405060708 + i;
    record.block[1] = 0x1112131415161718 + i;
    record.trailer = static_cast<uint8_t>(i + 2);
    if (i >= sent) continue;
    const size_t at = 8 + 56 * i;
    const uint32_t parameters = std::min(i % 10, 5u);
    request.insert(request.end(), {{at, 4, record.id},
                                   {at + 4, 4, parameters},
                                   {at + 28, 1, record.flag},
                                   {at + 32, 8, record.block[0]},
                                   {at + 40, 8, record.block[1]},
                                   {at + 48, 1, record.trailer}});
    for (uint32_t k = 0; k < parameters; ++k) request.push_back({at + 8 + 4 * k, 4, 16 * i + k});
  }
  return {"modem_api_register_modem_stats_data",
          [=](int32_t id) {
            return modem_api_register_modem_stats_data(id, 0xC0FFEE01, valid1, 0xABCD, valid2, 0x1234, records.data(),
                                                       count);
          },
          MODEM_API_CLIENT_VS,
          0x0201,
          fields(5616, request),
          8,
          "result "};
}

CommandRow deregister_stats(uint32_t count, uint32_t sent, uint8_t valid1, uint8_t valid2) {
  auto request = options_at(408, valid1, valid2);
  request.insert(request.end(), {{0, 4, 0xC0FFEE01}, {4, 4, sent}});
  for (uint32_t i = 0; i < sent; ++i) request.push_back({8 + 4 * i, 4, numbers(count)[i]});
  return {"modem_api_deregister_modem_stats_data",
          [=](int32_t id) {
            return modem_api_deregister_modem_stats_data(id, 0xC0FFEE01, valid1, 0xABCD, valid2, 0x1234,
                                                         numbers(count).data(), count);
          },
          MODEM_API_CLIENT_VS,
          0x0202,
          fields(416, request),
          8,
          "result "};
}

CommandRow get_parameter(uint32_t count) {
  stats_para_data data = {};
  data.para_num = count;
  std::vector<Field> request = {{0, 2, 0xFFFE}, {2, 2, 0x8001}, {4, 4, count}};
  for (uint32_t k = 0; k < count; ++k) {
    stats_para_entry& entry = data.entries[k];
    entry.sub = kUntouched;  // is not sent
    entry.id = 0xF0000000 + k;
    entry.value_len = 100 * k;
    const size_t at = 8 + 712 * k;
    request.insert(request.end(), {{at + 4, 4, entry.id}, {at + 8, 4, entry.value_len}});
    for (size_t i = 0; i < sizeof(entry.value); ++i) {
      entry.value[i] = static_cast<uint8_t>(16 * (i + k) + 7);
      request.push_back({at + 12 + i, 1, entry.value[i]});
    }
  }
  return {"modem_api_get_stats_parameter",
          [=](int32_t id) {
            auto in_out = data;
            const auto result = modem_api_get_stats_parameter(id, 0xFFFE, 0x8001, &in_out);
            EXPECT_EQ(std::memcmp(&in_out, &data, sizeof(data)), 0);  // no response here brings values
            return result;
          },
          MODEM_API_CLIENT_VS,
          0x0207,
          fields(7128, request),
          7136};
}

CommandRow clear_parameter(uint32_t count) {
  std::vector<Field> request = {{0, 2, 0xFFFE}, {2, 2, 0x8001}, {4, 4, count}};
  for (uint32_t i = 0; i < count; ++i) request.push_back({8 + 4 * i, 4, numbers(count)[i]});
  return {"modem_api_clear_stats_parameter",
          [=](int32_t id) {
            return modem_api_clear_stats_parameter(id, 0xFFFE, 0x8001, static_cast<int32_t>(count),
                                                   numbers(count).data());
          },
          MODEM_API_CLIENT_VS, 0x0208, fields(48, request)};
}

std::vector<CommandRow> commands() {
  return {get_feature(),
          {"modem_api_set_hydra_feature_status",
           [](int32_t id) { return modem_api_set_hydra_feature_status(id, 0xA1B2C3D4, 0x11, 0x22, 0x33); },
           MODEM_API_CLIENT_VS, 0x0003, fields(8, {{0, 4, 0xA1B2C3D4}, {4, 3, 0x332211}}), 8, "result "},
          set_report(1, {{0, 1, 1}}),
          set_report(0xFF, {{0, 1, 0xFF}}),
          set_report(0, {{1, 1, 1}, {4, 4, kUntouched}}),
          register_stats(1, 1, 0, 0),
          register_stats(12, 12, 1, 0),
          register_stats(150, 100, 0, 0x80),
          deregister_stats(1, 1, 0, 0),
          deregister_stats(100, 100, 0xFF, 0),
          deregister_stats(150, 100, 0, 1),
          get_parameter(1),
          get_parameter(10),
          clear_parameter(1),
          clear_parameter(10)};
}

class Stats : public CommandTest {};

TEST_F(Stats, EachCommandSendsItsRequest) {
  for (const CommandRow& row : commands()) expect_exchange(row);
}

TEST_F(Stats, AnswersTheMappedOutcomeAndLeavesOutputsAlone) {
  for (const CommandRow& row : commands()) expect_mapped(row);
}

TEST_F(Stats, RefusesBadArguments) {
  const std::string null = "E Unexpected NULL pointer, return error ",
                    condition = "E Unexpected condition, return error ";
  uint8_t byte = 0;
  const uint32_t id = 0;
  const modem_api_stats_registration record = {};
  stats_para_data none = {}, eleven = {};
  none.para_num = 0;
  eleven.para_num = 11;
  const struct {
    modem_api_result result, expected;
    std::string line;
  } refusals[] = {
      {modem_api_get_hydra_feature_status(0, 1, nullptr, &byte), 5, null + "5!"},
      {modem_api_set_modem_stats_report_status(0, 0, nullptr), 3, null + "3!"},
      {modem_api_set_modem_stats_report_status(0, 1, nullptr), 3, null + "3!"},
      {modem_api_register_modem_stats_data(0, 1, 0, 0, 0, 0, nullptr, 0), 5, null + "5!"},
      {modem_api_register_modem_stats_data(0, 1, 0, 0, 0, 0, &record, 0), 5, condition + "5!"},
      {modem_api_deregister_modem_stats_data(0, 1, 0, 0, 0, 0, nullptr, 0), 5, null + "5!"},
      {modem_api_deregister_modem_stats_data(0, 1, 0, 0, 0, 0, &id, 0), 5, condition + "5!"},
      {modem_api_get_stats_parameter(0, 1, 2, nullptr), 5, "D stats_para_data is null"},
      {modem_api_get_stats_parameter(0, 1, 2, &none), 5, "D para_num(0) is invalid"},
      {modem_api_get_stats_parameter(0, 1, 2, &eleven), 5, "D para_num(11) is invalid"},
      {modem_api_clear_stats_parameter(0, 1, 2, 0, nullptr), 5, condition + "5!"},
      {modem_api_clear_stats_parameter(0, 1, 2, -1, &id), 5, condition + "5!"},
      {modem_api_clear_stats_parameter(0, 1, 2, 11, &id), 5, condition + "5!"},
      {modem_api_clear_stats_parameter(0, 1, 2, 1, nullptr), 5, null + "5!"},
  };
  std::vector<std::string> expected;
  for (const auto& refusal : refusals) {
    EXPECT_EQ(refusal.result, refusal.expected) << refusal.line;
    expected.push_back(refusal.line);
  }
  // One line each, here without the command's name.
  std::vector<std::string> lines;
  for (std::string line : messages()) {
    if (line.find("client_id = ") == std::string::npos) lines.push_back(line.erase(2, line.find(": ")));
  }
  EXPECT_EQ(lines, expected);
  EXPECT_TRUE(calls("send_msg_sync").empty());
}

TEST_F(Stats, HandsBackTheFeatureStatus) {
  on_send = [](const Call&) { return Answer{0, fields(12, {{8, 1, 0x5A}, {9, 1, 0xA5}})}; };
  uint8_t enabled = 0, effective = 0;
  EXPECT_EQ(modem_api_get_hydra_feature_status(0, 1, &enabled, &effective), MODEM_API_SUCCESS);
  EXPECT_EQ(enabled, 0x5A);
  EXPECT_EQ(effective, 0xA5);
  EXPECT_EQ(modem_api_get_hydra_feature_status(0, 1, &enabled, nullptr), MODEM_API_SUCCESS);
}

TEST_F(Stats, HandsBackAGrantedIdOnly) {
  const struct {
    uint8_t flag, valid;
    modem_api_result result;
    uint32_t id;
  } rows[] = {{1, 0, 1, kUntouched}, {1, 7, 0, 0x80000005}, {2, 1, 0, 0x80000005}, {0, 1, 0, kUntouched}};
  for (const auto& row : rows) {
    on_send = [&](const Call&) { return Answer{0, fields(16, {{8, 1, row.valid}, {12, 4, 0x80000005}})}; };
    uint32_t id = kUntouched;
    EXPECT_EQ(modem_api_set_modem_stats_report_status(0, row.flag, &id), row.result);
    EXPECT_EQ(id, row.id);
  }
}

TEST_F(Stats, CutsReturnedValues) {
  const struct {
    uint8_t valid;
    uint32_t count;
    modem_api_result result;
    uint32_t returned;
  } rows[] = {{1, 0, 0, 0}, {1, 2, 0, 2}, {1, 12, 0, 10}, {1, 0xFFFFFFFF, 0, 10}, {0, 2, 1, 1}, {2, 2, 1, 1}};
  const uint32_t lengths[] = {700, 900, 3};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.count);
    on_send = [&](const Call&) {
      Answer answer = {0, std::vector<uint8_t>(7136, 0xAA)};
      const auto put = [&](size_t at, uint32_t value) { std::memcpy(&answer.response[at], &value, sizeof(value)); };
      std::memset(answer.response.data(), 0, 8);
      answer.response[8] = row.valid;
      put(12, row.count);
      for (uint32_t k = 0; k < 10; ++k) {
        put(16 + 712 * k, 0x10000 + k);
        put(20 + 712 * k, 0xF0000000 + k);
        put(24 + 712 * k, lengths[k % 3]);
      }
      return answer;
    };
    stats_para_data data;
    std::memset(&data, 0xEE, sizeof(data));
    data.para_num = 1;
    EXPECT_EQ(modem_api_get_stats_parameter(0, 1, 2, &data), row.result);
    EXPECT_EQ(data.para_num, row.returned);
    for (uint32_t k = 0; k < 10; ++k) {
      const stats_para_entry& entry = data.entries[k];
      const bool is_returned = row.result == 0 && k < row.returned;
      EXPECT_EQ(entry.sub, is_returned ? 0x10000 + k : kUntouched);
      EXPECT_EQ(entry.id, is_returned ? 0xF0000000 + k : kUntouched);
      EXPECT_EQ(entry.value_len, is_returned ? std::min(lengths[k % 3], 700u) : kUntouched);
      const size_t copied = is_returned ? entry.value_len : 0;
      EXPECT_THAT(std::vector<uint8_t>(entry.value, entry.value + copied), Each(0xAA));
      EXPECT_THAT(std::vector<uint8_t>(entry.value + copied, std::end(entry.value)), Each(0xEE));
    }
  }
}

TEST_F(Stats, LogsWhatIsAskedFor) {
  run(get_parameter(2), 0);
  const std::string name = "D modem_api_get_stats_parameter: ";
  // Of each byte from the fifth on, fourteen of them, the high digit.
  EXPECT_THAT(
      messages(),
      ElementsAre(name + "client_id = 0, sub = 65534, slot = 32769",
                  name + "ids[0] = -268435456, value_len = 0, type = 925308679, value:  4 5 6 7 8 9 A B C D E F 0 1",
                  name + "ids[1] = -268435455, value_len = 100, type = 1194796823, "
                         "value:  5 6 7 8 9 A B C D E F 0 1 2"));
}

}  // namespace
