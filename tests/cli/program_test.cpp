// The program as users run it: exit status, output, files, the modem that it starts itself, and the release of the
// modem's client ids at its end.

#include "client_program.h"

namespace pelmar::cli {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

TEST_F(ClientTest, DataIsGivenAsHexadecimalTextOrFileAndRefusedWithThePlace) {
  const std::string at = "a pair of digits is expected, not ";
  expect({{"client nv write 1 0a1B ff 0x0a,0x1B 0a:1b '0x0a1b' && client nv read 1 -o - | od -An -tx1", 0,
           "NV item 1: 9 bytes written\n 0a 1b ff 0a 1b 0a 1b 0a 1b\n"},
          {"client nv write 1 --text \"$(printf 'A\\001 z0123456789ab')\" >w && client nv read 1 | tail -n 1", 0,
           "  0000  41 01 20 7a 30 31 32 33 34 35 36 37 38 39 61 62  A. z0123456789ab\n"},
          {"head -c 17 /dev/zero | client nv write 1 @- >w && client nv read 1 | tail -n 1", 0,
           "  0010  00                                               .\n"},
          {"client nv write 1 0", 2, at + "the end after 1"},
          {"client nv write 1 0g", 2, at + "'g' at position 2"},
          {"client nv write 1", 2, "no data is given"},
          {"client nv write 1 00 --text a", 2, "data cannot be given with --text"},
          {"client nv read", 2, "item is missing"},
          {"client nv read 4294967296", 2, "item: '4294967296' is no number from 0 to 4294967295"},
          {"client nv read 1 --qualifier", 2, "--qualifier: a value is missing"},
          {"client drx one two", 2, "'one' is not expected"},
          {"client avoid-trm maybe", 2, "state: 'maybe' is none of on,off"},
          {"client bogus", 2, "there is no command 'bogus'"},
          {"client nv write 1 @data", 1, "reading the data from the file 'data' failed: No such file"}});
}

TEST_F(ClientTest, ItemsAreWrittenReadAndDeletedAndRefusalsNameTheReason) {
  expect({{"client raw 01 --verbose --json 2>/dev/null", 0, "{\"type\":\"raw\",\"accepted_bytes\":1}\n"},
          {"head -c 257 /dev/zero | client nv write 1 @- --verbose 2>/dev/null | wc -c", 0, "0\n"},
          {"client raw --async --text ping --json", 0,
           "{\"type\":\"raw\",\"sent_bytes\":4}\n"
           "{\"type\":\"raw\",\"callback\":\"data\",\"length\":4,\"data\":\"70696e67\",\"text\":\"ping\"}\n"
           "{\"type\":\"raw\",\"callback\":\"end\",\"name\":\"MODEM_API_RESP_END\"}\n"},
          {"client nv write 1 0a", 0, "NV item 1: 1 byte written\n"},
          {"head -c 256 /dev/urandom >whole; client nv write 2 @whole >w; client nv read 2 -o - | cmp - whole", 0, ""},
          {"cat whole whole | client raw @- --async --json", 0, R"("callback":"data","length":512,)"},
          {"client efs-sync", 0, "EFS: synchronised\n"},
          {"head -c 257 /dev/zero | client nv write 1 @- --json", 1,
           R"("name":"MODEM_API_ERR_INVALID_PARAM"},"advice":"An item has at most 256)"},
          {"client nv read 1 --json", 0,
           "{\"type\":\"nv-read\",\"item\":1,\"qualifier\":0,\"index\":0,\"length\":1,\"data\":\"0a\"}\n"},
          {"client nv read 1 --index 1", 1, "entry (MODEM_API_ERR_GENERIC, 1)\n  Nothing is stored there"},
          {"client nv read 3 --verbose 2>&1 >/dev/null", 1, ": -> VS READ_NV request, 16 bytes: 01 04 00 03"},
          {"client nv read 3 --json", 1, R"("qmi_error":{"number":50,"name":"NO_ENTRY"},"advice":"Nothing is)"},
          {"client efs-path write /../x 00", 1, "invalid argument (MODEM_API_ERR_INVALID_PARAM, 5)\n  The modem t"},
          {"client raw 01 >/dev/full", 1, "writing the output failed: No space left"},
          {"client --help >/dev/full", 1, "writing the output failed: No space left"},
          {"client --manual >/dev/full", 1, "writing the output failed: No space left"},
          {"client nv read 1 --trace /dev/full", 1,
           "modem_api_test: writing the trace '/dev/full' failed: No space left on device\n"},
          {"client nv read 1 --trace whole", 1, "the file is there already and is no capture"},
          {"client trace a --trace a", 2, "'trace' reads a capture and sends no messages"},
          {"client nv read 1 --trace c >w; cp c d; client --trace c nv read x; client --trace c nv write 1; cmp c d", 0,
           ""},
          {"client nv read 1 --trace - 2>w | head -c 4 | od -An -tx1 && grep -c 0a w", 0, " 0a 0d 0d 0a\n1\n"},
          {"client nv read 1 --trace - 2>w >e; client trace e | grep -c READ_NV", 0, "2\n"}});
  for (const std::string item : {"nv", "efs", "efs-path", "rfnv"}) {
    const std::string address = item == "efs-path" ? " /nv/a --index 4" : item == "rfnv" ? " 10" : " 10 --qualifier 3";
    const auto with = [&](const std::string& verb) { return "client " + item + " " + verb + address; };
    expect({{with("write --text 'some text'"), 0, " 9 bytes written"},
            {with("read") + " @data && cat data && " + with("write") + " 00", 0, "data\nsome text"},
            {with("write") + " @data && " + with("read --output -"), 0, "written\nsome text"},
            {with("delete"), 0, "deleted"},
            {with("read"), 1, "failed: QMI error 50, no entry"}});
  }
}

TEST_F(ClientTest, ManyItemsAreDumpedRestoredAndCompared) {
  expect({{"client nv write 10 --text hello >w; client nv write 11 @/dev/null --index 2 --qualifier 1 >w", 0, ""},
          {"client nv dump 0-20 | tail -n +2; client nv dump 11 --index 2 --qualifier 1 | tail -n +2", 0,
           "nv 10 = 68 65 6c 6c 6f  # hello\n# 21 NV items: 1 found, 20 absent, 0 not tried\n"
           "nv 11 qualifier 1 index 2 = \n# 1 NV item: 1 found, 0 not tried\n"},
          {"client efs-path write \"/a 'b\" 01 >w; client efs-path dump \"/a 'b\" /c >p; sed -n 2p p", 0,
           "efs-path '/a '\\''b' = 01\n"},
          {"client efs-path delete \"/a 'b\" >w; client efs-path restore p -y && client efs-path diff p", 0,
           "1 EFS file: 1 written, 0 not tried\n# 1 EFS file: 1 same, 0 not tried\n"},
          {"client nv dump 1-2097152", 2, "more than 1048576 NV items are named"},
          {"client nv dump 20-10x", 2, "'20-10x' is no item"},
          {"client nv dump 5-3", 2, "'5-3' is no item"},
          {"printf '/c\\n\\n#/e\\n/d\\n' | client efs-path dump @- | tail -n 1", 0,
           "# 2 EFS files: 0 found, 2 absent, 0 not tried\n"},
          {"client nv --help | grep 'dump >'", 0, "  modem_api_test nv dump >items\n"},
          {"client --modem ./nobody nv dump 2>/dev/null; client nv restore /dev/null -y", 1,
           "modem_api_test: checking '/dev/null' failed: it has no item\n"},
          {"client nv restore none", 1, "checking 'none' failed: No such file"}});
  for (const auto& [line, problem] : {std::pair("nv 5 = 0", "the end after"),
                                      {"nv 5 0a", "not of the form"},
                                      {"efs 5 = 01", "not of the form"},
                                      {"nv 5 index 65536 = 01", "'65536' is no index"},
                                      {"nv 5 slot 1 = 01", "'slot' is not"},
                                      {"nv 4 = 02", "in line 1 already"},
                                      {"nv 5 = \"01", "has no end"},
                                      {"nv x = 01", "'x' is no item"}}) {
    const std::string restore = std::string("printf 'nv 4 = 01 # one\n\n") + line + "\n' | client nv restore - --yes";
    expect({{restore, 1, "it has 1 wrong line\n  line 3: "}, {restore, 1, problem}});
  }
  expect({{"for i in $(seq 30); do echo nv; done | client nv restore - -y", 1, "and 10 more\n  Nothing was sent"},
          {"client nv read 4", 1, "no entry"},
          {"printf 'nv 10 = 68\\r\\nnv 12 = 0a\\nnv 13 =\\n' >f; client nv diff f 2>/dev/null", 1,
           "-nv 10 = 68  # h\n+nv 10 = 68 65 6c 6c 6f  # hello\n-nv 12 = 0a\n-nv 13 = \n"
           "# 3 NV items: 0 same, 1 different, 2 absent, 0 not tried\n"},
          {"client nv restore f </dev/null", 1, "--yes"},
          {"client nv restore f --dry-run; client nv read 12", 1, "no entry"}});
  ctl("silence vs");
  Process restore = start("nv restore " + path("f") + " --yes");
  EXPECT_TRUE(wait_for_silenced_request());
  EXPECT_EQ(kill(restore.process(), SIGINT), 0);
  EXPECT_EQ(restore.rest(),
            "line 1, NV item 10: no response came before the end; it may be written\n"
            "3 NV items: 0 written, 1 lost, 2 not tried (from NV item 12 on)\n");
  EXPECT_EQ(restore.end(), 128 + SIGINT);
  expect(
      {{"client nv restore f -y --json --timeout 1", 1, R"("first_not_tried":{"item":12,"qualifier":0,"index":0})"}});
  ctl("clear");
  ctl("error 3 vs any 2");
  expect({{"client nv dump 1", 1, "\nmodem_api_test: the modem refused 1 of 1 NV item"},
          {"client nv restore f --yes 2>/dev/null", 1,
           "line 1, NV item 10: QMI error 3, internal (MODEM_API_ERR_GENERIC, 1)\n"
           "3 NV items: 2 written, 1 refused, 0 not tried\n"}});
}

TEST_F(ClientTest, ABatchKeepsItsConnectionsAndPrintsEachResultAtOnce) {
  Process batch = start("batch");
  for (const auto& [line, text] :
       {std::pair("# comment\n\nstats report on", R"({"type":"stats-report","line":3,)"),
        {"nv read 'x", R"({"type":"error","line":4,"command":"batch","reason":"a quotation)"},
        {"nv read 1", R"({"type":"error","line":5,"command":"nv-read","step":)"},
        {"stats report off --client 0", R"({"type":"stats-report","line":6,"report":false)"},
        {"tx-power", R"({"type":"tx-power","line":7,)"},
        {"sys-mode", R"({"type":"batch","line":8,"command":"sys-mode","documents":[{"type":"sys-mode","sub":0)"},
        {"events", "needs an end"},
        {"nv write 1 @-", "standard input has the commands"},
        {"nv write 1 @/dev/stdin", "No such device"},
        {"--manual", R"("reason":")"},
        {"completion bash", "'completion' in a batch"},
        {"nv write 1 --text '# \"a\\b\"'  # comment", R"("written_bytes":7})"},
        {"nv read 1 --help", R"("reason":")"},
        {"reset -y", R"("done":"reset")"}}) {
    batch.send_line(line);
    EXPECT_THAT(batch.line(), HasSubstr(text)) << line;
  }
  EXPECT_TRUE(wait_for_status(R"("state":"ready")"));
  batch.send_line("nv read 1");
  EXPECT_THAT(batch.line(), HasSubstr(R"x("text":"# \"a\\b\""})x"));
  batch.finish();
  EXPECT_EQ(batch.rest(), "");
  EXPECT_EQ(batch.end(), 1);
  expect(
      {{"printf 'nv read 9\\nnv read 1' >b; client batch b >w; wc -l <w; client batch b --stop-on-error >w; wc -l <w",
        0, "2\n1\n"},
       {"client batch /", 1, "reading '/' failed: Is a directory"},
       {"client modem stop --modem x", 2, "not that of --modem"}});
}

// The program's output must not go to a connection to the modem or to a file.
TEST_F(ClientTest, WithStandardDescriptorsClosedItWorksOrFailsCleanly) {
  for (const auto& [closed, status] :
       {std::pair("<&-", 0), {"2>&-", 0}, {"<&- 2>&-", 0}, {">&-", 1}, {"<&- >&-", 1}, {"<&- >&- 2>&-", 1}}) {
    expect({{std::string("client raw 01 --verbose ") + closed, status, ""},
            {std::string("client nv write 1 0a --verbose ") + closed, status, ""},
            {"client nv read 1 -o - | od -An -tx1; client nv delete 1 >w", 0, " 0a\n"}});
  }
  for (const char* counter : {"dropped_connections", "ignored_frames"}) {
    EXPECT_EQ(modem().value("status", std::string("/counters/") + counter), 0) << counter;
  }
}

TEST_F(ClientTest, ControlCharactersAndInvalidUtf8AreEscaped) {
  const std::string path =
      " \"$(printf '/\\033[1m\\177 \\303\\211\\342\\226\\210 \\302\\233 \\303 \\300\\233 \\355\\240\\200')\"";
  const std::string shown = "/\\x1b[1m\\x7f \xC3\x89\xE2\x96\x88 \\xc2\\x9b \\xc3 \\xc0\\x9b \\xed\\xa0\\x80";
  expect({{"client efs-path read" + path, 1, shown},
          {"client efs-path write" + path + " 00", 0, shown},
          {"client --json efs-path read" + path, 0, R"(/\u001b[1m\u007f \u00c9\u2588 \u009b \ufffd )"}});
}

TEST_F(ClientTest, TheRadioAndTheStatisticsAreReadAndSwitched) {
  ctl("clock 3000");
  ctl("statistic 1 0x62 01f6ff67170000");  // only some of its fields
  ctl("statistic 1 antenna-switch old_config=1 new_config=3");
  ctl("statistic 0 nr-uplink tx_power_pusch=-3.5 pathloss1=1");
  ctl("statistic 1 0x1234 00ff10");
  ctl("drx 0 9");
  std::string text;
  const auto show = [&text](const char* line) { text += shell("client " + std::string(line)).output; };
  for (const char* line : {"sys-mode --json", "tx-power --max", "signal --sub 1 | tail -n +2"}) show(line);
  expect({{"client drx", 0, "DRX: 9 (256 frames)\n"},
          {"client avoid-trm on --sub 1", 0, "TRM avoidance of subscription 1: on\n"},
          {"client nr-mode 2 --yes", 0, "NR disable mode of subscription 0: 2\n"},
          {"client sar set 3", 0, "SAR RF state 3 set\n"},
          {"client lock lte 1:504", 2, "'1:504' is no cell"},
          {"client lock lte 1:2 --yes --sub 1", 0, "LTE cell lock of subscription 1: 1 cell\n"},
          {"client feature on && client feature off --number 7 && client feature", 0,
           "modem feature 2: on\nmodem feature 7: off\nmodem feature 2: on\n"},
          {"client stats clear 0x1234 --sub 1 && client stats get 0x1234 --sub 1 --json", 0, R"("data":"000000")"},
          {"client stats report on --json", 0, "{\"type\":\"stats-report\",\"report\":true,\"stats_client_id\":0}\n"},
          {"client stats report off --client 0", 1, "valid in the program that it was granted to"},
          {"client stats deregister lte-pcc --client 0", 1, "valid in the program that it was granted to"}});
  for (const char* command : {"report-period 10", "clock run"}) ctl(command);
  expect({{"client stats register 0x1234 --option1 1 --count 2 --json", 0, R"("sub":1,"id":4660,)"}});
  EXPECT_EQ(modem().value("status", "/statistics/reporters"), 0);
  ctl("clock 3000");
  for (const char* state :
       {R"("sar_rf_state":3)", R"("avoid_trm":1)", R"("nr_disable_mode":2)", R"("locked_cells":1)"}) {
    EXPECT_TRUE(wait_for_status(state)) << state;
  }
  for (const char* line : {"cell-info", "cell-info --json", "stats list | grep -A 1 -e lte-pcc -e nr-uplink",
                           "stats get 0x62 antenna-switch 0x1234 nr-scc2 --sub 1",
                           "stats get 0x62 antenna-switch --sub 1 --json", "stats get nr-uplink --json"}) {
    show(line);
  }
  expect_golden("radio.txt", text);
}

// A response to the first NAS client's fourth request, with no TLV but the result and that number.
TEST_F(ClientTest, ATimingAdvanceThatTheModemHasNotMeasuredIsAbsent) {
  ctl("garbage 011a0080030102040043000e00020400000000001e0400ffffffff nas 0x43 1");
  expect({{"client cell-info --sub 0 --json", 0, R"("timing_advance_us":null,)"}});
}

TEST_F(ClientTest, DangerousCommandsNeedConfirmation) {
  for (const std::string command : {"reset", "shutdown-notice", "lock lte 1850:101", "nr-mode 1"}) {
    expect({{"client " + command + " </dev/null", 1, "--yes"}, {"client " + command + " --yes", 0, ""}});
    EXPECT_TRUE(wait_for_status(R"("state":"ready")")) << "after reset";
  }
}

TEST_F(ClientTest, FailuresAndMissingResponsesAreReported) {
  for (const char* fault : {"cut 9 nas 0x43", "error 3 nas 0x89"}) ctl(fault);
  expect({{"client cell-info", 1, "(MODEM_API_ERR_GENERIC, 1)"},
          {"client drx", 1, "QMI error 3, internal (MODEM_API_ERR_GENERIC, 1)"}});
  for (const char* command : {"sys-mode", "tx-power --max", "raw 01 --async"}) {
    ctl("error 3 vs any 1");
    expect({{std::string("client ") + command, 1, " failed: QMI error 3"}});
  }
  ctl("silence nas");
  expect({{"client cell-info --timeout 1 --json 2>/dev/null", 1, "not done in 1 s"},
          {"client --modem ./nobody nv read 1", 1, "./nobody: no process listens on it"},
          {"client --modem ./nobody nv read 1 --wait --timeout 1", 1, "not done in 1 s"},
          {"client --modem /$(printf %0120d 0) info --wait --timeout 20", 1, "is no modem's address"}});
  EXPECT_TRUE(wait_for_no_clients());
  ctl("clear");
  ctl("error 3 ctl 0x21");
  expect({{"client nv read 1", 1, "it does not speak QMUX\n  Start the modem"}});
  ctl("error 3 ctl 0xff00");
  expect({{"client nv read 1", 1, "the proxy cannot open /dev/cdc-wdm0\n  Start the modem"},
          {"touch f; client --modem ./f nv read 1", 1, "it is neither a socket nor a character device"}});
}

TEST_F(ClientTest, InfoNamesTheFaultAndTheNextStep) {
  const std::string held = R"("client_ids":[{"service":228,"client":)";
  expect(
      {{"client info | tail -n 1", 0, "next_step: 'modem_api_test signal' shows what the radio receives.\n"},
       {"client --modem ./nobody info --json 2>w", 1, R"-(such file or directory)","next_step":"Start the modem, )-"},
       {"client --modem ./nobody info 2>&1 | grep -c 'Start the modem, '", 0, "1\n"},
       {"client --modem ./nobody info --json 2>w", 1, R"("client_ids_exhausted":null)"},
       {"chmod 0 qmux; [ $(id -u) -ne 0 ] || as='setpriv --bounding-set=-dac_override'; $as " MODEM_API_TEST " info; "
        "chmod 600 qmux; exit 1",
        1, "qmux)\nnext_step: Run as the owner ("},
       {"client --modem /$(printf %0120d 0) info", 1, "\nnext_step: Name another modem with --modem."}});
  Process events = start("events");
  EXPECT_TRUE(prints(events, "following"));
  expect({{"client info --json", 0, held}, {"client info --json", 0, R"("major":1,"minor":5})"}});
  ctl("error 5 ctl 0x22");
  expect({{"client info", 1, "\nclient_ids_exhausted: true"}});
  ctl("clear");
  ctl("service sar down");
  ctl("service vs down");
  expect({{"client info --json", 0, R"("service":"sar","id":17,"up":false,"state":"absent"})"},
          {"client info", 0, "fault: none\nnext_step: Without the vendor-specific service, only sar, drx, "}});
  ctl("service nas down");
  expect({{"client info 2>w", 1, "services failed: none of them is up\nnext_step: Wait for one"}});
  EXPECT_EQ(events.end(SIGINT), 130);
}

TEST_F(ClientTest, EventsArePrintedAcrossARestartUpToTheCount) {
  Process events = start("events --count 5");
  EXPECT_TRUE(prints(events, "following"));
  ctl("restart 300");
  EXPECT_TRUE(prints(events, "the modem is away: "));
  EXPECT_TRUE(prints(events, "the modem is back"));
  for (const char* event :
       {"2 77 0 9", "3 5 record 0:0x62:01f6ff67 secondary 1:6:abcd", "3 1 trailer 9", "4 1 0aff 7 8"}) {
    ctl(std::string("event ") + event);
  }
  ctl("silence vs");
  EXPECT_TRUE(wait_for_silenced_request());
  ctl("event 5 3");  // ends the command although its request has no response
  std::istringstream lines(events.rest());
  std::string text;
  for (std::string line; std::getline(lines, line);) text += line.substr(line[0] == ' ' ? 0 : 14) + "\n";
  EXPECT_EQ(events.end(), 0);
  expect_golden("events.txt", text);
  ctl("clear");
  expect({{"client events --count 1 --for 1", 1, "only 0 of 1 came in 1 seconds"}});
}

TEST_F(ClientTest, AServiceThatComesUpIsReportedDuringAStreamOfEvents) {
  ctl("service nas down");
  Process events = start("events --services --json");
  EXPECT_TRUE(prints(events, "; the NAS service of subscription 0 is down"));
  ctl("stream 1000000 every 100000");
  ctl("service nas up");
  EXPECT_TRUE(prints(events, R"("notice":"service_up","service":"nas_0"})"));
  EXPECT_EQ(events.end(SIGINT), 130);
}

TEST_F(ClientTest, TheSarStateIsSetAgainAfterARestartOfTheService) {
  Process holder = start("sar set 3 --hold 3600 --json");
  EXPECT_TRUE(prints(holder, R"("sar":"set")"));
  ctl("service sar down");
  EXPECT_TRUE(prints(holder, R"("sar":"down")"));
  ctl("service sar up");
  EXPECT_TRUE(prints(holder, R"("sar":"set")"));
  EXPECT_TRUE(wait_for_status(R"("sar_rf_state":3)"));
  EXPECT_EQ(holder.end(SIGINT), 130);
}

TEST_F(ClientTest, ASignalFreesTheClientOfAWaitingCommand) {
  ctl("silence vs");
  setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // nothing frees the buffers of a pending asynchronous command
  for (const auto& [command, signal] :
       {std::pair("nv read 1", SIGINT), {"raw 01 --async", SIGTERM}, {"events", SIGHUP}}) {
    Process process = start(command);
    EXPECT_TRUE(wait_for_status(R"("clients":[{)")) << command;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(process.end(signal), 128 + signal) << command;
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(25))
        << "the request would time out after 30 s";
    EXPECT_TRUE(wait_for_no_clients()) << command;
  }
}

TEST_F(ClientTest, PropertiesAndTheRestartTypeAreReadSwitchedAndRestored) {
  expect({{"client props get a", 1, "it is not set"},
          {"client props set 'a b' c", 1, "the platform refused it"},
          {"client ssr name", 0, "CONFIG_EMPTY\n"},
          {"client props set persist.vendor.ssr.restart_level ALL_DISABLE", 0, ""},
          {"client ssr get --json", 0,
           "{\"type\":\"ssr-get\",\"restart_type\":0,\"name\":\"MODEM_RESTART_LEVEL_ID_DEF\"}\n"},
          {"client ssr set ssr --json", 0,
           R"({"type":"ssr-set","restart_type":1,"name":"MODEM_RESTART_LEVEL_ID_SSR","written":true})"},
          {"client ssr set ssr --json", 0, R"("written":false)"},
          {"client ssr get", 0, "restart type ssr (1): a crashed modem restarts alone\n"},
          {"client props get persist.vendor.ssr.restart_level", 0, "ALL_ENABLE\n"},
          {"client ssr set def && client ssr name", 0, "restart type def: written\nALL_DISABLE\n"},
          {"client ssr wait 0 --json", 0, "{\"type\":\"ssr-wait\",\"waited_seconds\":0}\n"}});
}

// --- the modem's power ---

class PowerTest : public ClientTest {
 protected:
  PowerTest() : ClientTest({"--pm-socket"}) {}
};

TEST_F(PowerTest, AVoteLastsUntilItsCommandEndsAndAWatchPrintsEveryStep) {
  Process watch = start("power watch --count 4 --json");
  EXPECT_TRUE(prints(watch, R"("event":1})"));
  Process vote = start("power vote");
  EXPECT_TRUE(prints(vote, "modem on-line"));
  expect({{"client power status --json", 0, R"({"type":"power-status","power":"on-line","votes":1,)"},
          {"client power vote --device toaster", 1, "it has no such peripheral"},
          {"client power release", 0, "votes: 1 released, 0 left\n"}});
  EXPECT_THAT(vote.rest(), HasSubstr("vote taken back"));
  for (const char* step : {R"("event":2})", R"("event":3})", "going off-line", R"("event":1})"}) {
    EXPECT_TRUE(prints(watch, step)) << step;
  }
  EXPECT_EQ(watch.end(), 0);
  expect({{"client power vote --for 1 --json | tail -n 1", 0,
           "{\"type\":\"power-vote\",\"vote\":\"released\",\"device\":\"modem\"}\n"}});
}

TEST_F(PowerTest, TheLossOfTheManagerIsReported) {
  Process watch = start("power watch");
  Process vote = start("power vote");
  EXPECT_TRUE(prints(vote, "modem on-line"));
  EXPECT_TRUE(prints(watch, "modem on-line"));
  EXPECT_EQ(modem().end(SIGKILL), -SIGKILL);
  for (Process* process : {&watch, &vote}) EXPECT_THAT(process->rest(), HasSubstr(" failed: "));
  for (const std::string command : {"vote", "release", "status", "watch"}) {
    expect({{"client power " + command, 1, "no peripheral manager responds on " + path("qmux.pm")}});
  }
}

// --- the modem that the program starts ---

TEST(OwnModem, IsStartedOnceKeepsItsStorageAndReportsAFailedStart) {
  const sim::test::ScratchDirectory directory;
  const std::string too_long = directory.path(std::string(100, 'a'));  // for the name of a socket in it
  const std::string program = directory.path("program");
  const std::string starts = directory.path("starts");
  for (const std::string& each : {too_long, directory.path("run")}) std::filesystem::create_directory(each);
  unsetenv("PELMAR_MODEM");
  setenv("XDG_STATE_HOME", directory.path("state").c_str(), 1);
  setenv("XDG_RUNTIME_DIR", too_long.c_str(), 1);
  setenv("PELMAR_MODEM_SIM", program.c_str(), 1);
  expect({{"client nv read 1", 1, program + ": No such file or directory"}});
  std::ofstream(program) << "#!/bin/sh\necho >>" << starts << "\nsleep 0.2; exec " MODEM_SIM " \"$@\"\n";
  std::filesystem::permissions(program, std::filesystem::perms::owner_all);
  expect({{"client nv read 1", 1, "starting the simulated modem failed: modem_sim: socket name"}});
  setenv("XDG_RUNTIME_DIR", directory.path("run").c_str(), 1);
  const std::string quit =
      MODEM_SIM " ctl --storage " + directory.path("state/pelmar/modem") + " quit >/dev/null 2>&1; ";
  expect(
      {{"rm " + starts +
            "; for i in 1 2 3 4 5 6 7 8; do client nv write $i 0$i >w & pids=\"$pids $!\"; done\n"
            "for pid in $pids; do wait $pid || exit 1; done; wc -l <" +
            starts,
        0, "1\n"},
       {quit + "client nv read 7 -o - | od -An -tx1; client modem stop; client modem stop", 0,
        " 07\nsimulated modem: stopped\nsimulated modem: none runs\n"},
       {"printf 'nv read 1\\nmodem stop\\nnv read 2\\nmodem stop' | client batch | grep -c stopped.:true", 0, "2\n"}});
}

}  // namespace
}  // namespace pelmar::cli
