// The live view on a terminal, recordings and captures, as users run the program.

#include "client_program.h"

namespace pelmar::cli {
namespace {

using testing::HasSubstr;

// Starts the live view on a new terminal. Its process id goes to the file `process`. The status is 99 where the
// terminal has other modes at the end than at the start.
Process watch(const std::string& options = "") {
  const std::string client =
      "sh -c 'echo $$ >process; exec " MODEM_API_TEST " signal --watch --rate 20 " + options + "'";
  return Process("/usr/bin/script",
                 {"script", "-qec",
                  "cd $TEST_DIRECTORY; ulimit -c 0; export TERM=xterm; stty rows 24 cols 80; modes=$(stty -g); " +
                      client + "; status=$?; [ $(stty -g) = $modes ] || exit 99; exit $status",
                  "/dev/null"},
                 true);
}

// Expects that the program ends and restores the screen: it does not move the cursor after that, and the last picture
// remains.
void expect_clean_end(Process& terminal, int status, const std::string& last_picture) {
  const std::string drawn = terminal.rest();
  const size_t left = drawn.rfind("\033[?25h\033[?1049l");
  ASSERT_NE(left, drawn.npos);
  const std::string after = drawn.substr(left);
  for (const char* sequence : {"\033[H", "\033[J", "\033[?1049h"}) EXPECT_EQ(after.find(sequence), after.npos);
  EXPECT_THAT(after, HasSubstr(last_picture));
  EXPECT_EQ(terminal.end(), status);
}

TEST_F(ClientTest, TheLiveViewContinuesAfterARestartAndRestoresTheTerminal) {
  Process terminal = watch();
  EXPECT_TRUE(prints(terminal, "subscription 1"));
  ctl("restart 300");
  EXPECT_TRUE(prints(terminal, "MODEM AWAY"));
  EXPECT_TRUE(prints(terminal, " readings, 20 a second"));
  terminal.send_line("q");
  expect_clean_end(terminal, 0, "subscription 1");
}

// A second signal and a signal that the program does not handle are fatal. The two signals differ, because two of one
// kind may arrive as one.
TEST_F(ClientTest, AFatalSignalRestoresTheTerminal) {
  for (const auto& [signals, status] :
       {std::pair("kill -INT $p; kill -TERM $p", 128 + SIGTERM), {"kill -QUIT $p", 128 + SIGQUIT}}) {
    Process terminal = watch();
    EXPECT_TRUE(prints(terminal, "2 readings"));
    ctl("silence vs");
    EXPECT_TRUE(wait_for_silenced_request());
    shell("read p <process; " + std::string(signals));
    expect_clean_end(terminal, status, "");
    ctl("clear");
  }
}

TEST_F(ClientTest, KeysActWhileTheModemDoesNotRespond) {
  Process terminal = watch("--plot b.svg");
  EXPECT_TRUE(prints(terminal, "2 readings"));
  ctl("silence vs");
  EXPECT_TRUE(wait_for_silenced_request());
  for (const auto& [keys, below_headings] : {std::pair("p", "subscription 0"),
                                             {"2", "subscription 1"},
                                             {"\033[B", "LTE pcc"},
                                             {"\033[A", "subscription 1"}}) {
    terminal.send_line(keys);
    EXPECT_TRUE(prints(terminal, "PAUSED")) << keys;
    terminal.line();
    EXPECT_THAT(terminal.line(), HasSubstr(below_headings)) << keys;
  }
  terminal.send_line("\003");
  expect_clean_end(terminal, 128 + SIGINT, "PAUSED");
  expect({{"head -c 5 b.svg", 0, "<svg "}});
}

TEST_F(ClientTest, ARecordingIsDrawnAlthoughTheReaderBlocks) {
  // The shell holds the pipe open and reads nothing.
  expect({{"mkfifo p; exec 3<>p; client --json --timeout 2 signal --rate 50 --watch --plot a.svg >&3", 1,
           "not done in 2 s"},
          {"head -c 5 a.svg", 0, "<svg "}});
}

TEST_F(ClientTest, InvalidRecordingsAreRefusedWithTheLine) {
  const std::string draw = "client signal --plot - --from a";
  const std::string heading = "echo time,carrier,sub,snr_0_db >a; echo ";
  const std::string time = "2023-11-14T22:13:20.007Z,";
  expect({{">a; " + draw, 1, "its first line does not name the columns"},
          {heading + ">>a; echo " + time + "lte,0,1 >>a; " + draw, 1, "line 3: 'lte' is no carrier"},
          {heading + time + "lte_pcc,2,1 >>a; " + draw, 1, "line 2: '2' is no sub"},
          {heading + time + "nr_scc2,0,1x >>a; " + draw, 1, "line 2: '1x' is no snr_0_db"},
          {heading + "now,lte_pcc,0,1 >>a; " + draw, 1, "line 2: 'now' is no time of a recording"}});
}

// Each case uses the files of the cases before it.
TEST_F(ClientTest, RecordingsAreWrittenDrawnAndOverwrittenOnlyOnRequest) {
  const std::string record = "client signal --count 1 --csv a";
  expect({{record, 0, "1 reading written to a\n"},
          {"cp a first; " + record, 1, "it exists already"},
          {"printf cut >>a; " + record + " --append", 0, "is cut, and is left out"},
          {"client signal --from a --plot a", 1, "it exists already"},
          {"client signal --from a --plot ./a --force", 2, "are the same file"},
          {"head -n $(cat first | wc -l) a | cmp - first; grep -c time, a", 0, "1\n"},
          {record + " --force; cat a | wc -l; cat first | wc -l", 0, "1 reading"},
          {"printf 'two\\nlines' >b; client signal --count 1 --append --csv b", 1, "its columns are not those"},
          {"cat b", 0, "two\nlines"},
          {"client signal --count 1 --csv c --plot b", 1, "it exists already"},
          {"client signal --count 1 --csv c --plot ./c --force", 2, "are the same file"},
          {"ls c", 2, ""},
          {"client signal --rate 50 --count 4 --json --csv d --plot e | grep -c subscriptions", 0, "4\n"},
          {"client signal --from d --plot - | cmp - e", 0, ""},
          {"client signal --rate 50 --count 2 --csv - | cut -d, -f5 | grep -c lte_pcc", 0, "4\n"},
          {"client signal --watch --rate 50 --count 3", 0, "  sub 1  "},
          {"client signal --csv none/a", 1, "No such file or directory"},
          {"client signal --from none --plot f", 1, "No such file or directory"},
          {"client signal --count 100 --for 1", 1, "only "},
          {"client signal --csv g --plot g", 2, ""},
          {"client signal --title picture", 2, "--title needs --plot"},
          {"client signal --csv - --json", 2, "--csv - and --json both write to standard output"},
          {"client signal --plot p --from d --rate 2", 2, "--rate cannot be given with --from"}});
}

// In the recording one carrier goes, then one subscription.
TEST_F(ClientTest, ARecordingIsPlayedAsAScenarioWithTheSameReadings) {
  std::ofstream(path("going.json")) << R"({"tracks": [
      {"sub": 0, "statistic": "nr-pcc", "fields": ["present"], "points": [[0, 1], [0.1, 0]]},
      {"sub": 1, "fields": ["attenuation"], "points": [[0, 0], [0.2, 90]]}]})";
  ctl("scenario " + path("going.json"));
  expect({{"client signal --rate 20 --count 8 --json --csv a >b", 0, ""},
          {MODEM_SIM " scenario a >of-a && printf cut >>b && " MODEM_SIM " scenario - <b >of-b", 0, "which is cut"},
          {"sed -n 4,9s/-/0-/p a | " MODEM_SIM " scenario -", 1, "line 1: neither the columns nor a document"},
          {"sed 2s/lte_pcc,/lte_pcc,x/ a | " MODEM_SIM " scenario -", 1, "standard input: line 2: 'x"},
          {"sed 's/,lte_pcc,[0-9]*/,lte_pcc,-1/' a | " MODEM_SIM " scenario -", 1, "[0][2]: -1 is not within"}});
  std::istringstream times(shell("cut -d, -f1 a | tail -n +2 | uniq | date -f - +%s%3N").output);
  std::vector<int64_t> readings(std::istream_iterator<int64_t>(times), {});
  EXPECT_EQ(readings.size(), 8u);
  for (const char* scenario : {"of-a", "of-b"}) {
    ctl("clock 1000");
    ctl("scenario " + path(scenario));
    for (const int64_t time : readings) {
      ctl("clock " + std::to_string(1000 + time - readings[0]));
      expect({{"client signal --count 1 --append --csv c", 0, ""}});
    }
    expect({{"cut -d, -f2- a >d; cut -d, -f2- c | diff d -; rm c", 0, ""}});
  }
}

TEST_F(ClientTest, ALossOfTheModemEndsARecordingWithAFailure) {
  ctl("delay 0 vs any 20");
  ctl("error 52 vs");
  expect({{"client signal --for 1 --csv a", 1, "QMI error 52"}});
  ctl("clear");
  ctl("delay 0 vs any 20");
  ctl("die modem vs");
  expect({{"client signal --for 1 --csv b --plot c", 1, "0 readings came before"}});
  EXPECT_GT(modem().end(0), 0) << "the modem ends with an error";
}

}  // namespace
}  // namespace pelmar::cli
