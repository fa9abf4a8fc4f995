// trace: messages by name, the summary, and files that are no capture or an incomplete one.

#include <cmath>

#include "client_program.h"
#include "qmux.h"
#include "text.h"

namespace pelmar::cli {
namespace {

using qmi::MessageKind;
using testing::HasSubstr;

using Text = std::string;

Text number(uint64_t value, size_t bytes) {
  Text text;
  for (size_t i = 0; i < bytes; ++i, value >>= 8) text += static_cast<char>(value & 0xFF);
  return text;
}
Text u16(uint64_t value) {
  return number(value, 2);
}
Text u32(uint64_t value) {
  return number(value, 4);
}

Text block(uint32_t type, Text content) {
  content.resize((content.size() + 3) / 4 * 4);
  const Text length = u32(content.size() + 12);
  return u32(type) + length + content + length;
}

// A section with one link of nanoseconds: type 147 is that of QMI messages.
Text section(uint16_t link_type = 147) {
  const Text names = u16(2) + u16(6) + Text("@modem\0\0", 8) + u16(3) + u16(7) + Text("mtb[7]\x1b\0", 8);
  return block(0x0A0D0D0A, u32(0x1A2B3C4D) + u16(1) + u16(0) + Text(8, '\xFF')) +
         block(1, u16(link_type) + u16(0) + u32(0) + names + u16(9) + u16(1) + u32(9));
}

Text packet(uint64_t microseconds, const Text& bytes) {
  const uint64_t time = 1715926530'000000000 + microseconds * 1000;  // 2024-05-17T06:15:30Z
  return block(6, u32(0) + u32(time >> 32) + u32(time) + u32(bytes.size()) + u32(bytes.size()) + bytes);
}

Text tlv(uint8_t type, const Text& value) {
  return number(type, 1) + u16(value.size()) + value;
}

Text message(uint64_t time, MessageKind kind, uint8_t service, uint8_t client, uint16_t transaction, uint16_t id,
             const Text& tlvs = "") {
  const bool from_modem = kind != MessageKind::kRequest;
  const unsigned byte = static_cast<unsigned>(kind) * (service == 0 ? 1 : 2);
  const Text text = number(byte, 1) + number(transaction, service == 0 ? 1 : 2) + u16(id) + u16(tlvs.size()) + tlvs;
  return packet(time, number(1, 1) + u16(text.size() + 5) + number(from_modem ? 0x80 : 0, 1) + number(service, 1) +
                          number(client, 1) + text);
}

constexpr auto kRequest = MessageKind::kRequest;
constexpr auto kResponse = MessageKind::kResponse;
constexpr auto kIndication = MessageKind::kIndication;
const Text kSuccess = tlv(2, u32(0));
const Text kNoEntry = tlv(2, u16(1) + u16(50));

// Messages of every service, with every form of field; and what no row describes.
Text messages() {
  const Text gsm = number(9, 1) + u32(-71) + u32(-72);
  const Text head = u16(1) + u16(0) + u32(0x6F), record = head + u16(9) + gsm;
  const Text power = u32(0) + u32(0x62) + u16(8) + "\xF1" + u16(-10) + "\xC8" + u16(40000) + u16(1);
  const Text cell = u16(101) + u16(-86) + u16(-813) + u16(-527) + u16(427);
  Text losses;
  for (const float real : {0.5f, -20.25f, NAN, INFINITY})
    losses.append(reinterpret_cast<const char*>(&real), sizeof real);
  const Text uplink = u32(1) + losses + Text(32, '\0');
  return message(0, kRequest, 0, 0, 5, 0xFF00, tlv(1, "/dev/\"x ~\\\x7F\x1b\xC3\xA9\xEF\xBF\xBF\xF0\x9F\x98\x80")) +
         message(1500, kResponse, 0, 0, 5, 0xFF00, kSuccess) + message(2000, kRequest, 0, 0, 6, 0x22, tlv(1, "\xE4")) +
         message(2001, kResponse, 0, 0, 6, 0x22, kSuccess + tlv(1, "\xE4\x03")) +
         message(3000, kRequest, 0xE4, 3, 1, 0x100, tlv(1, u32(10)) + tlv(2, "\x01") + tlv(3, u16(2))) +
         message(3100, kRequest, 0xE4, 4, 1, 0x100, tlv(1, u32(11)) + tlv(2, "\x01") + tlv(3, "\x02")) +
         message(4234, kResponse, 0xE4, 4, 1, 0x100, kNoEntry) +
         message(5000, kResponse, 0xE4, 3, 1, 0x100, kSuccess + tlv(3, u16(3) + "abc") + tlv(0x77, "\x01")) +
         message(6000, kIndication, 0xE4, 3, 0, 0x203, tlv(1, u32(1)) + tlv(2, "\x01" + record) + tlv(0x10, "")) +
         message(6001, kIndication, 0xE4, 3, 0, 0x203,
                 tlv(1, u32(1)) + tlv(2, "\x02" + record + u16(0) + u16(0) + u32(0x5A) + u16(52) + uplink) +
                     tlv(0x10, "\x03" + head + u16(8) + gsm.substr(0, 8) + head + u16(99) + gsm)) +
         message(6002, kIndication, 0xE4, 3, 0, 0x203, tlv(2, "\x02" + record + u16(0)) + tlv(0x10, "\x01" + power)) +
         message(7000, kRequest, 0xE4, 3, 2, 0x207, tlv(3, Text(1, '\0')) + tlv(3, "\x02" + record)) +
         message(7500, kRequest, 0xE4, 3, 3, 0x10C, tlv(1, "\xFF") + tlv(2, u32(7)) + tlv(3, "")) +
         message(8000, kResponse, 3, 9, 4, 0x43,
                 kSuccess + tlv(0x14, Text(1, '\0') + "\x01" + u16(6300) + "\x06\x0E\x04\x01" + cell)) +
         message(9000, kResponse, 0x11, 1, 8, 0x02, tlv(2, u16(1) + u16(999))) +
         message(9100, kResponse, 0x2A, 1, 8, 0x1234, kNoEntry + "\x01\x09") + message(9200, kResponse, 3, 1, 9, 0x45) +
         packet(9300, Text("\x01\x08\0\0\xE4\x01\0\x01\x02", 9));
}

class TraceTest : public testing::Test {
 protected:
  TraceTest() {
    setenv("TEST_DIRECTORY", directory_.path("").c_str(), 1);
    setenv("XDG_STATE_HOME", directory_.path("state").c_str(), 1);
    setenv("TZ", "UTC-2", 1);
    unsetenv("PELMAR_MODEM");
  }

  void write(const std::string& name, const Text& bytes) {
    std::ofstream(directory_.path(name), std::ios::binary) << bytes;
  }

  sim::test::ScratchDirectory directory_;
};

TEST_F(TraceTest, EveryMessageIsShownByNameWithItsFields) {
  write("a", section() + messages());
  for (const auto& [options, golden] :
       {std::pair("--fields", "trace.txt"), {"--fields --json", "trace.json"}, {"--summary", "trace_summary.txt"}}) {
    const Outcome outcome = shell(std::string("client trace a ") + options);
    EXPECT_EQ(outcome.status, 0);
    expect_golden(golden, outcome.output);
  }
  expect({{"client trace <a | sed -n '1p;7p'", 0,
           "08:15:30.000000 mtb[7]\\u001b -> CTL 0 OPEN_PROXY #5\n"
           "08:15:30.004234 mtb[7]\\u001b <- VS 4 READ_NV #1 NO_ENTRY 1.134 ms\n"},
          {"ls state 2>&1", 2, "cannot access"}});  // no modem was started
}

TEST_F(TraceTest, FiltersSelectMessages) {
  write("a", section() + messages());
  const std::pair<const char*, int> cases[] = {
      {"", 18},
      {"--service vs", 10},
      {"--service CTL,0x11", 5},
      {"--message READ_NV", 4},
      {"--message 0x100,rf_get_state", 5},
      {"--message 0x45 --service NAS", 1},
      {"--client 3", 7},
      {"--service 0x2a --result error", 1},  // its request is not in the capture
      {"--result success,999", 8},           // a request is shown before its response
      {"--result no_entry --service NAS", 0},
      {"--from 08:15:30.0091 --to 08:15:30.0093", 2},
      {"--from 2024-05-17T06:15:30.009Z", 4},
      {"--to 08:15", 0},
      {"--to 24:00", 18},
      {"--from 2024-05-17T06:16Z --to 2024-05-17T06:15Z", 0},
  };
  for (const auto& [filter, lines] : cases) {
    expect({{Text("client trace a ") + filter + " | wc -l", 0, std::to_string(lines) + "\n"}});
  }
  // The time to the response is also that of a request that is not shown.
  expect({{"client trace a --service vs --from 08:15:30.004 --result no_entry --fields", 0,
           "08:15:30.003100 mtb[7]\\u001b -> VS 4 READ_NV #1\n"
           "    0x01 item 11\n"
           "    0x02 qualifier 1\n"
           "    0x03 index undescribed 02\n"
           "08:15:30.004234 mtb[7]\\u001b <- VS 4 READ_NV #1 NO_ENTRY 1.134 ms\n"
           "    0x02 result {result 1, error 50}\n"},
          {"client trace a --message ''", 2, "--message: '' is no message"},
          {"client trace a --message nothing", 2, "'nothing' is no message: give a number, or a name as in a line"},
          {"client trace a --from 2024-05-17T06:15", 2, "is no time"}});
}

TEST_F(TraceTest, ATimeWithoutADateIsOneOfEveryDayAndARangeMayCrossMidnight) {
  Text packets = section();
  constexpr uint64_t kSecond = 1'000'000, kHour = 3600 * kSecond, kStart = 14 * kHour + (44 * 60 + 30) * kSecond;
  for (const uint64_t evening : {kStart, kStart + 24 * kHour}) {  // 23:00
    for (const uint64_t time : {evening - 1, evening, evening + 2 * kHour - 1, evening + 2 * kHour}) {
      packets += message(time, kRequest, 0xE4, 3, 1, 0x401);
    }
  }
  constexpr uint64_t kChange = 14'064'270 * kSecond;  // 2024-10-27T01:00Z
  write("a", packets);
  write("b",
        section() + message(kChange - 1, kRequest, 0xE4, 3, 1, 0x401) + message(kChange, kRequest, 0xE4, 3, 1, 0x401));
  expect({{"client trace a --from 23:00 --to 01:00 | cut -d ' ' -f 1,2", 0,
           "23:00:00.000000 mtb[7]\\u001b\n"
           "--- 2024-05-18\n"
           "00:59:59.999999 mtb[7]\\u001b\n"
           "23:00:00.000000 mtb[7]\\u001b\n"
           "--- 2024-05-19\n"
           "00:59:59.999999 mtb[7]\\u001b\n"},
          {"client trace a --from 22:59 --to 23:00 --json | grep -c to_modem", 0, "2\n"},
          {"export TZ=CET-1CEST,M3.5.0,M10.5.0/3; client trace b | cut -c 1-15", 0,
           "02:59:59.999999\n02:00:00.000000\n"}});
}

TEST_F(TraceTest, AFileIsReadUpToItsErrorWhichIsReportedInOneLine) {
  const Text good = section() + messages();
  write("cut", good.substr(0, good.size() - 3));
  write("damaged", good + Text(64, '\x01'));
  write("other", section(1) + packet(0, "ethernet"));
  write("both", good + section(1) + packet(0, "ethernet"));
  write("text", "no capture at all");
  expect({{"client trace cut 2>&1 >lines; wc -l <lines", 0,
           "modem_api_test: the capture ends within a message; all before it was read\n17\n"},
          {"client trace cut", 0, ""},
          {"client trace damaged 2>&1 >lines; wc -l <lines", 0, "\n  All before it was read: 18 messages.\n18"},
          {"client trace damaged", 1, "it is damaged at byte " + std::to_string(good.size())},
          {"client trace other", 1,
           "modem_api_test: reading the capture 'other' failed: none of its 1 packet is a QMI message\n"},
          {"client trace both 2>&1 | tail -n 1", 0, "modem_api_test: skipped 1 packet without a QMI message\n"},
          {"client trace <text", 1, "reading the capture failed: it is no capture (pcapng)"},
          {"client trace /", 1, "it is a directory"},
          {"client trace nothing", 1, "reading the capture 'nothing' failed: No such file"},
          {"client trace other --json 2>e", 1, R"("reason":"none of its 1 packet)"}});
}

TEST_F(TraceTest, AMessageIsShownAsSoonAsItComes) {
  Process client(MODEM_API_TEST, {"modem_api_test", "trace", "-"}, true);
  client.send_line(section() + message(0, kRequest, 0xE4, 3, 1, 0x401));  // the line end begins the next block
  EXPECT_THAT(client.line(), HasSubstr("-> VS 3 RESET_MODEM #1"));
  client.finish();
  EXPECT_THAT(client.rest(), HasSubstr("the capture ends within a message"));
  EXPECT_EQ(client.end(), 0);
}

TEST_F(TraceTest, TheSummaryHasExactCountsAndApproximateTimesWithManyOpenExchanges) {
  Text packets = section();
  for (uint64_t i = 0; i < 100; ++i) {  // 1 to 100 ms, and a client's requests without response
    packets += message(i * 1'000'000, kRequest, 0xE4, 1, static_cast<uint16_t>(i), 0x100);
    packets += message(i * 1'000'000 + (i + 1) * 1000, kResponse, 0xE4, 1, static_cast<uint16_t>(i), 0x100, kSuccess);
  }
  for (unsigned i = 0; i < 70000; ++i) {
    packets += message(200'000'000 + i, kRequest, 0x11, static_cast<uint8_t>(i >> 16), static_cast<uint16_t>(i), 0x01);
  }
  write("a", packets);
  const Json summary = Json::parse(shell("client trace a --summary --json").output);
  const Json& sar = summary["by_message"][0];
  const Json& vs = summary["by_message"][1];
  EXPECT_EQ(summary["messages"], 70200);
  EXPECT_EQ(sar["without_response"], 70000);
  EXPECT_EQ(sar["count"], 70000);
  EXPECT_EQ(vs["count"], 100);
  EXPECT_EQ(vs["without_response"], 0);
  EXPECT_EQ(vs["slowest_seconds"], 0.1);
  EXPECT_NEAR(vs["median_seconds"], 0.05, 0.05 * 0.032);
  EXPECT_NEAR(vs["percentile_99_seconds"], 0.099, 0.099 * 0.032);
  expect({{"client trace a | head -n 1", 0, "08:15:30.000000 mtb[7]\\u001b -> VS 1 READ_NV #0\n"}});
}

}  // namespace
}  // namespace pelmar::cli
