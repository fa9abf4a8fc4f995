// What the client makes of text, and text of what arrives.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "bytes.h"
#include "cell_list.h"
#include "event_text.h"
#include "failure.h"
#include "modem_api.h"
#include "options.h"
#include "printable_text.h"

namespace pelmar::cli {
namespace {

using testing::EndsWith;
using testing::HasSubstr;

TEST(Hex, TakesPairsOfDigitsHoweverTheyAreSeparated) {
  const Bytes expected = {0x0A, 0x1B, 0xFF};
  for (const char* text : {"0a1bff", "0A 1B FF", " 0a1b\tff ", "0x0a,0x1B,0xff", "0a:1b:ff", "0x0a1bff"}) {
    EXPECT_EQ(parse_hex(text), expected) << text;
  }
  EXPECT_TRUE(parse_hex("").empty());
  EXPECT_EQ(parse_hex("00 0x00"), (Bytes{0, 0}));
}

TEST(Hex, RefusesAnythingElseAndShowsThePlace) {
  const struct {
    const char* text;
    const char* place;
  } kCases[] = {{"0", "the end"},
                {"0a1", "the end"},
                {"0g", "'g' at position 2"},
                {"0 a", "' ' at position 2"},
                {"-1", "'-' at position 1"},
                {"0a0x1b", "'x' at position 4"},
                {"0x", "the end"}};
  for (const auto& each : kCases) {
    try {
      parse_hex(each.text);
      ADD_FAILURE() << each.text;
    } catch (const Failure& failure) {
      EXPECT_THAT(failure.what(), HasSubstr(each.place)) << each.text;
      EXPECT_EQ(failure.exit_status(), kExitUsage);
    }
  }
}

TEST(Hex, DumpKeepsItsColumns) {
  EXPECT_EQ(hex_dump({}), "");
  Bytes bytes = {'A', 0x00, 0x7F, ' ', 'z'};
  bytes.resize(17, 0xEE);
  EXPECT_EQ(hex_dump(bytes, 1),
            " 0000  41 00 7f 20 7a ee ee ee ee ee ee ee ee ee ee ee  A.. z...........\n"
            " 0010  ee                                               .\n");
}

TEST(Hex, JsonTellsTextOnlyWhereAllOfItIsPrintable) {
  Json text;
  put_bytes(text, Bytes{'o', 'k'});
  EXPECT_EQ(text.dump(), R"({"length":2,"data":"6f6b","text":"ok"})");
  Json binary;
  put_bytes(binary, Bytes{'o', 0xFF});
  EXPECT_EQ(binary.dump(), R"({"length":2,"data":"6fff"})");
}

TEST(PrintableText, HasNoControlCharacters) {
  const struct {
    std::string_view text;
    std::string_view printable;
  } cases[] = {
      {"modem, \xC3\x89\xE2\x96\x88\xF0\x9F\x93\xB6 \xC2\xA0", "modem, \xC3\x89\xE2\x96\x88\xF0\x9F\x93\xB6 \xC2\xA0"},
      {std::string_view("\0\t\n\x1b[2J\x7f", 8), "\\x00\\x09\n\\x1b[2J\\x7f"},
      {"\xC2\x80 \xC2\x9F", "\\xc2\\x80 \\xc2\\x9f"},
      {"\x80 \x9b \xff", "\\x80 \\x9b \\xff"},
      {"\xC3", "\\xc3"},
      {"\xC0\x9B \xE0\x82\x9B \xF0\x80\x82\x9B", "\\xc0\\x9b \\xe0\\x82\\x9b \\xf0\\x80\\x82\\x9b"},
      {"\xED\xA0\x80 \xF4\x90\x80\x80", "\\xed\\xa0\\x80 \\xf4\\x90\\x80\\x80"},
  };
  for (const auto& each : cases) EXPECT_EQ(printable_text(each.text, "\n"), each.printable);
}

TEST(Number, IsDecimalOrHexadecimalAndInItsRange) {
  EXPECT_EQ(parse_number("4294967295", 0, UINT32_MAX), UINT32_MAX);
  EXPECT_EQ(parse_number("0xFf", 0, 255), 255);
  EXPECT_EQ(parse_number("010", 0, 255), 10);
  EXPECT_EQ(parse_number("-128", -128, 127), -128);
  for (const char* text : {"", "-", "0x", "1x", " 1", "1 ", "+1", "--1", "256", "-1", "4294967296", "1e2"}) {
    EXPECT_FALSE(parse_number(text, 0, 255)) << text;
  }
}

TEST(Cells, ArePairsOfEarfcnAndPci) {
  const auto cells = parse_cells({"1300:120", "262143:503"});
  ASSERT_EQ(cells.size(), 2U);
  EXPECT_EQ(cells[0].earfcn, 1300U);
  EXPECT_EQ(cells[0].pci, 120U);
  EXPECT_TRUE(parse_cells({"clear"}).empty());
  for (const char* word : {"1300", "1300:", ":5", "1300:504", "262144:5", "1:2:3", "a:b", ""}) {
    EXPECT_THROW(parse_cells({word}), Failure) << word;
  }
  EXPECT_THROW(parse_cells({"clear", "1:2"}), Failure);
  EXPECT_EQ(parse_cells(std::vector<std::string>(60, "1:2")).size(), 60U);
  EXPECT_THROW(parse_cells(std::vector<std::string>(61, "1:2")), Failure);
}

TEST(Cells, InformationLeavesOutWhatIsNotReported) {
  CellInfo info;
  info.intra_pci = {120, 0, 7};
  info.inter_earfcn = {6300, 0, 100};
  info.inter_pci[0] = 5;
  info.inter_pci[17] = 9;
  info.timing_advance_valid = 1;
  info.timing_advance = 0xFFFFFFFF;  // the modem has none
  info.nr_arfcn_valid = 1;
  info.nr_arfcn = 640000;
  EXPECT_EQ(info.json().dump(),
            R"({"serving_frequency":{"pci":[120,0,7]},"other_frequencies":[{"earfcn":6300,"pci":[5]},)"
            R"({"earfcn":100,"pci":[0,9]}],"timing_advance":null,"nr_arfcn":640000})");
  EXPECT_THAT(info.text(), HasSubstr("PCI 120, 0, 7\n"));
  EXPECT_THAT(info.text(), EndsWith("timing advance         not available\n  NR                     ARFCN 640000"));
}

TEST(Cells, InformationWithoutAnyIsNoCell) {
  CellInfo info;
  EXPECT_EQ(info.text(), "  no cell");
  info.timing_advance_valid = 1;
  EXPECT_THAT(info.text(), EndsWith("timing advance         0\n  NR                     none"));
}

TEST(Failure, TellsStepReasonCodeAndAdvice) {
  const auto failure =
      Failure::of_result("writing NV item 1", MODEM_API_ERR_INVALID_PARAM,
                         {{MODEM_API_ERR_GENERIC, "no"}, {MODEM_API_ERR_INVALID_PARAM, "Write less."}});
  EXPECT_STREQ(failure.what(),
               "writing NV item 1 failed: an argument is out of its range (MODEM_API_ERR_INVALID_PARAM, 5)\n"
               "  Write less.");
  EXPECT_EQ(failure.json()["error"]["code"], 5);
  EXPECT_EQ(failure.exit_status(), kExitFailure);

  const auto no_entry = Failure::of_result(
      "reading NV item 1", MODEM_API_ERR_GENERIC,
      {{MODEM_API_ERR_GENERIC, "no", 51}, {MODEM_API_ERR_GENERIC, "Write it.", 50}}, Exchange{0, 50});
  EXPECT_STREQ(no_entry.what(),
               "reading NV item 1 failed: QMI error 50, no entry (MODEM_API_ERR_GENERIC, 1)\n  Write it.");
  EXPECT_THAT(no_entry.json().dump(), HasSubstr(R"("qmi_error":50,"qmi_error_name":"no entry")"));
  EXPECT_THAT(Failure::of_result("it", MODEM_API_ERR_NOT_READY, {}, Exchange{0, 52}).what(),
              HasSubstr("the modem is not ready: QMI error 52, device not ready (MODEM_API_ERR_NOT_READY, 8)"));
  EXPECT_THAT(Failure::of_exchange("it", {-3, 0}).what(), HasSubstr("(MODEM_API_ERR_TIMEOUT, 11)"));
  EXPECT_THAT(Failure::of_result("it", 77).what(), HasSubstr("(undocumented result, 77)"));
  EXPECT_THAT(Failure::of_result("it", -1).what(), HasSubstr("(undocumented result, -1)"));
}

template <typename Payload>
Arrival event(uint32_t number, const Payload& payload) {
  Arrival arrival = {
      Arrival::Kind::kEvent, WallClock::time_point(std::chrono::milliseconds(1700000000007)), number, 0, {}};
  arrival.payload.resize(sizeof payload);
  std::memcpy(arrival.payload.data(), &payload, sizeof payload);
  return arrival;
}

TEST(Events, AreDecoded) {
  modem_api_vs_report_a_event report{};
  report.value = 5;
  report.record_count = 1;
  report.records[0] = {0x1001, {0xAA, 0xBB}, 2, 1, 0};
  report.trailer = 0xFFFFFFFF;
  const Description a = describe(event(MODEM_API_EVENT_VS_REPORT_A, report));
  EXPECT_EQ(a.document.dump(), R"({"time":"2023-11-14T22:13:20.007Z","event":3,"name":"report_a","value":5,)"
                               R"("records":[{"sub":1,"id":4097,"length":2,"data":"aabb"}],"secondary":[]})");
  EXPECT_THAT(a.text, EndsWith("event 3: report A, value 5\n              record sub 1 id 0x1001, 2 bytes: aa bb"));

  const Description status = describe(event(MODEM_API_EVENT_VS_STATUS, modem_api_vs_status_event{7, 1, 0, {}}));
  EXPECT_THAT(status.document.dump(), HasSubstr(R"("value":7,"flag1":true,"flag2":false)"));

  modem_api_vs_report_b_event entries{};
  entries.entry_count = 2;
  entries.entries[1] = 9;
  entries.second = 4;
  EXPECT_THAT(describe(event(MODEM_API_EVENT_VS_REPORT_B, entries)).text, EndsWith("first 0, second 4, entries 0 9"));
}

TEST(Events, StayInsideWhatThePayloadHas) {
  modem_api_vs_report_a_event report{};
  report.record_count = 1000;
  report.secondary_count = 1000;
  report.records[0].data_len = 100'000;
  const Description a = describe(event(MODEM_API_EVENT_VS_REPORT_A, report));
  EXPECT_EQ(a.document["records"].size(), 10U);
  EXPECT_EQ(a.document["secondary"].size(), 5U);
  EXPECT_EQ(a.document["records"][0]["length"], 700);

  Arrival cut = event(MODEM_API_EVENT_VS_STATUS, modem_api_vs_status_event{});
  cut.payload.resize(3);
  EXPECT_THAT(describe(cut).text, HasSubstr("3 bytes"));
  cut.number = 99;
  EXPECT_EQ(describe(cut).document["data"], "000000");
}

}  // namespace
}  // namespace pelmar::cli
