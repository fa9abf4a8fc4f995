// A tour of the client's commands is captured at both ends, and played without the modem that it was recorded with.
#include <gtest/gtest.h>
#include <signal.h>

#include "client_program.h"

namespace pelmar::cli {
namespace {

class ReplayTest : public ClientTest {
 protected:
  void restart_modem(const std::vector<std::string>& options) {
    modem().end(SIGTERM);
    serve(options);
  }

  // Returns what the commands print.
  static std::string tour() {
    return shell(R"(
        n=0
        client() { n=$((n + 1)); PELMAR_TRACE=${TRACED:+$n.pcapng} )" MODEM_API_TEST R"( "$@"; }
        client nv read 1
        client nv write 1 0a1b
        client nv read 1
        for item in 2 3; do client efs write $item --text "item $item"; client efs read $item; done
        client efs-path read /none
        client signal >signal
        tail -n +2 signal
        client stats get lte-pcc nr-uplink system-mode
        client cell-info
        client drx
        client drx
        client feature on
        client sar set 3)")
        .output;
  }

  static Process start_events() {
    return {"/bin/sh",
            {"sh", "-c",
             "cd $TEST_DIRECTORY; PELMAR_TRACE=${TRACED:+99.pcapng} exec " MODEM_API_TEST " events --count 3 >events"},
            true};
  }

  // Returns the events without their times. The first may come before the client prints that it follows them.
  static std::string events_of(Process& program) {
    EXPECT_EQ(program.end(), 0);
    return shell("sed '/following/d; s/^[0-9:.]* *//' events").output;
  }
};

TEST_F(ReplayTest, ACapturedTourPrintsTheSameWhenItIsPlayed) {
  restart_modem({"--clock-ms", "3000", "--trace", path("modem.pcapng")});
  ctl("error 3 nas 0x89 1");
  setenv("TRACED", "1", 1);
  const std::string recorded = tour();
  EXPECT_THAT(recorded, testing::HasSubstr("item 3"));
  EXPECT_THAT(recorded, testing::HasSubstr("QMI error 3, internal"));
  Process events = start_events();
  EXPECT_TRUE(wait_until([&] { return content(path("events")).find("following") != std::string::npos; }));
  for (const char* event : {"event 2 7 1 0", "event 3 5 record 0:0x62:01f6ff67 trailer 9", "event 5 3"}) ctl(event);
  const std::string recorded_events = events_of(events);
  unsetenv("TRACED");
  shell("cat $(ls [0-9]*.pcapng | sort -n) >client.pcapng");

  for (const char* capture : {"modem.pcapng", "client.pcapng"}) {
    restart_modem({"--replay", path(capture), "--speed", "1000"});
    EXPECT_EQ(tour(), recorded) << capture;
    Process again = start_events();
    EXPECT_EQ(events_of(again), recorded_events) << capture;
  }
}

}  // namespace
}  // namespace pelmar::cli
