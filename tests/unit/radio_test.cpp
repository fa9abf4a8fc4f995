// The radio controls: what each sends, and what it makes of the answer.
#include "client_command.h"

namespace {

using namespace scripted;
using testing::ElementsAre;

struct CellInfo {
  uint16_t intra_pci[8];
  uint16_t inter_earfcn[3];
  uint16_t inter_pci[24];
  uint8_t timing_advance_valid;
  uint32_t timing_advance;
  uint8_t nr_arfcn_valid;
  uint32_t nr_arfcn;
};

modem_api_result get_cell_info(int32_t client_id, int32_t sub, CellInfo& out) {
  std::memset(&out, 0xEE, sizeof(out));
  return modem_api_get_cell_info(client_id, sub, out.intra_pci, out.inter_earfcn, out.inter_pci,
                                 &out.timing_advance_valid, &out.timing_advance, &out.nr_arfcn_valid, &out.nr_arfcn);
}

modem_api_client_type nas(int32_t sub) {
  return sub == 0 ? MODEM_API_CLIENT_NAS_0 : MODEM_API_CLIENT_NAS_1;
}

CommandRow cell_lock(int32_t sub, uint32_t count) {
  std::vector<uint32_t> values, params;
  std::vector<Field> request = {{0, 4, count}, {484, 1, 1}, {485, 1, 1}};
  for (uint32_t i = 0; i < count; ++i) {
    values.push_back(0xA5010000 + 300 * i);
    params.push_back(0xB0C0D001 + i);
    request.push_back({4 + 8 * i, 2, 300 * i});
    request.push_back({8 + 8 * i, 4, 0xB0C0D001 + i});
  }
  return {"modem_api_set_lte_cell_lock",
          [=](int32_t id) {
            return modem_api_set_lte_cell_lock(id, static_cast<uint32_t>(sub), count, values.data(), params.data());
          },
          nas(sub),
          0x00D8,
          fields(488, request),
          8,
          "result "};
}

CommandRow avoid_trm(int32_t sub, uint8_t value) {
  return {"modem_api_set_avoid_trm",
          [=](int32_t id) { return modem_api_set_avoid_trm(id, sub, value); },
          nas(sub),
          0x0098,
          {value},
          8,
          "result "};
}

CommandRow nr_mode(int32_t sub, int32_t mode, uint32_t sent) {
  return {"modem_api_set_nr_disable_mode",
          [=](int32_t id) { return modem_api_set_nr_disable_mode(id, sub, mode); },
          nas(sub),
          0x0033,
          fields(792, {{488, 1, 1}, {492, 4, sent}}),
          8,
          "result "};
}

// Answer with their mapped outcome.
std::vector<CommandRow> controls() {
  return {{"modem_api_notify_shutdown", modem_api_notify_shutdown, MODEM_API_CLIENT_VS, 0x0400, {0}},
          {"modem_api_reset_modem", modem_api_reset_modem, MODEM_API_CLIENT_VS, 0x0401, {0}},
          {"modem_api_set_sar_rf_state", [](int32_t id) { return modem_api_set_sar_rf_state(id, 0xA1B2C3D4); },
           MODEM_API_CLIENT_SAR, 0x0001, fields(32, {{0, 4, 0xA1B2C3D4}}), 8, "result "},
          cell_lock(0, 3),
          cell_lock(1, 0),
          cell_lock(-1, 60),
          avoid_trm(0, 0),
          avoid_trm(1, 0xFF),
          avoid_trm(2, 1),
          nr_mode(0, 1, 1),
          nr_mode(1, 2, 2),
          nr_mode(0, 3, 0),
          nr_mode(7, -1, 0),
          nr_mode(-1, 0, 0)};
}

// Answer as they like.
std::vector<CommandRow> queries() {
  std::vector<CommandRow> rows = {{"modem_api_get_drx",
                                   [](int32_t id) {
                                     uint8_t valid = 0;
                                     uint32_t drx = 0;
                                     return modem_api_get_drx(id, &valid, &drx);
                                   },
                                   MODEM_API_CLIENT_NAS_0,
                                   0x0089,
                                   {0},
                                   16}};
  for (int32_t sub : {0, 1, -9}) {
    rows.push_back({"modem_api_get_cell_info",
                    [=](int32_t id) {
                      CellInfo out;
                      return get_cell_info(id, sub, out);
                    },
                    nas(sub),
                    0x0043,
                    {0},
                    3784});
  }
  return rows;
}

class Radio : public CommandTest {};

TEST_F(Radio, EachCommandSendsItsRequestThroughItsConnection) {
  for (const CommandRow& row : controls()) expect_exchange(row);
  for (const CommandRow& row : queries()) expect_exchange(row);
}

TEST_F(Radio, ControlsAnswerTheMappedOutcome) {
  for (const CommandRow& row : controls()) {
    expect_mapped(row);
    EXPECT_EQ(run(row, static_cast<int32_t>(row.type)), MODEM_API_SUCCESS);
  }
}

TEST_F(Radio, DrxSucceedsWhateverTheModemAnswers) {
  const struct {
    Answer answer;
    uint8_t valid;
    uint32_t drx;
    std::vector<std::string> lines;
  } rows[] = {
      {{0, fields(16, {{8, 1, 0xFE}, {9, 3, 0x777777}, {12, 4, 0x80000001}})},
       0xFE,
       0x80000001,
       {"qmi_error 0", "drx: 254, -2147483647"}},
      {{0, header(1, 94)}, 0, 0, {"qmi_error 0", "drx: 0, 0"}},
      {{-3, {}}, 0, 0, {"qmi_error -3", "drx: 0, 0"}},
  };
  for (const auto& row : rows) {
    clear_log();
    on_send = [&](const Call&) { return row.answer; };
    uint8_t valid = 0xEE;
    uint32_t drx = 0xEEEEEEEE;
    EXPECT_EQ(modem_api_get_drx(MODEM_API_CLIENT_NAS_0, &valid, &drx), MODEM_API_SUCCESS);
    EXPECT_EQ(valid, row.valid);
    EXPECT_EQ(drx, row.drx);
    EXPECT_THAT(messages(),
                ElementsAre("D modem_api_get_drx: " + row.lines[0], "D modem_api_get_drx: " + row.lines[1]));
  }
}

TEST_F(Radio, CellInfoCopiesItsFieldsOfTheResponse) {
  const std::pair<uint32_t, modem_api_result> outcomes[] = {{0, 0}, {1, 1}, {2, 1}, {0x10000, 1}};
  for (const auto& [word, result] : outcomes) {
    Answer answer = {word == 2 ? -3 : 0, std::vector<uint8_t>(3784)};
    for (size_t i = 8; i < answer.response.size(); ++i) answer.response[i] = static_cast<uint8_t>(i * i >> 3);
    std::memcpy(answer.response.data(), header(word, 48).data(), 8);
    const auto at = [&](size_t offset, size_t width) {
      uint32_t value = 0;
      std::memcpy(&value, &answer.response[offset], width);
      return value;
    };
    on_send = [&](const Call&) { return answer; };
    clear_log();
    CellInfo out;
    EXPECT_EQ(get_cell_info(MODEM_API_CLIENT_NAS_1, 1, out), result);
    for (size_t j = 0; j < 8; ++j) EXPECT_EQ(out.intra_pci[j], at(452 + 10 * j, 2));
    for (size_t i = 0; i < 3; ++i) {
      EXPECT_EQ(out.inter_earfcn[i], at(544 + 92 * i, 2));
      for (size_t j = 0; j < 8; ++j) EXPECT_EQ(out.inter_pci[8 * i + j], at(556 + 92 * i + 10 * j, 2));
    }
    const uint32_t values[] = {at(3132, 1), at(3136, 4), at(3148, 1), at(3152, 4)};
    EXPECT_THAT(values, ElementsAre(out.timing_advance_valid, out.timing_advance, out.nr_arfcn_valid, out.nr_arfcn));
    const auto text = [&](size_t i) { return std::to_string(static_cast<int32_t>(values[i])); };
    const std::string prefix = "D modem_api_get_cell_info: ";
    EXPECT_THAT(messages(),
                ElementsAre(prefix + "qmi_error " + std::to_string(answer.code),
                            prefix + "cell info: " + text(0) + ", " + text(1) + "; " + text(2) + ", " + text(3),
                            prefix + "resp=" + std::to_string(word) + ",48"));
  }
  // The transport code is not consulted.
  on_send = [](const Call&) { return Answer{-3, {}}; };
  CellInfo out;
  EXPECT_EQ(get_cell_info(MODEM_API_CLIENT_NAS_1, 1, out), MODEM_API_SUCCESS);
  EXPECT_EQ(out.inter_pci[23] + out.nr_arfcn, 0u);
}

}  // namespace
