// Indications that pile up behind a slow callback while a sender reads the connection.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <string>

#include "client_fixture.h"

namespace pelmar::platform {
namespace {

std::mutex g_log_mutex;
std::string g_log;

std::string logged() {
  const std::lock_guard lock(g_log_mutex);
  return g_log;
}

TEST_F(ClientTest, TheOldestIndicationsAreDroppedWhereTooManyWait) {
  constexpr uint16_t kLast = 1300;
  const Bytes payload(60'000, 0x5A);  // the bound is below what kLast of them have
  const auto name = [&](unsigned id) {
    return "indication " + std::to_string(id) + " (" + std::to_string(payload.size()) + ")";
  };
  const qmi_client_type handle = connect();
  std::promise<void> go_on;
  set_on_indication([waited = go_on.get_future().share()](qmi_client_type) { waited.wait(); });
  nas::GetDrxResponse response{};
  ASSERT_EQ(send_async(handle, response, this), QMI_NO_ERR);
  const ScriptedRequest async_request = modem_.receive();
  modem_.indicate(0, kNasId, 0xFF, 1, payload);
  events(1);  // its callback holds the handle's thread

  auto answer = sender(handle, 0);
  const ScriptedRequest request = modem_.receive();
  modem_.respond(async_request, ScriptedModem::drx_response(1));
  for (uint16_t id = 2; id <= kLast; ++id) modem_.indicate(0, kNasId, 0xFF, id, payload);
  modem_.respond(request, ScriptedModem::drx_response(4));
  EXPECT_EQ(answer.get(), (Outcome{QMI_NO_ERR, 4})) << "the answer behind them comes through";
  go_on.set_value();

  const std::vector<std::string> seen = events_up_to(name(kLast));
  ASSERT_GT(seen.size(), 1000u) << "the bound is generous";
  ASSERT_LT(seen.size(), 1u + kLast);
  EXPECT_EQ(seen[0], name(1));
  EXPECT_EQ(seen[1], "response 137 0") << "no answer is dropped";
  const size_t first = kLast - (seen.size() - 3);
  for (size_t i = 2; i < seen.size(); ++i) ASSERT_EQ(seen[i], name(static_cast<unsigned>(first + i - 2)));
  EXPECT_NE(logged().find("0x03"), std::string::npos) << logged();
  // Not " " + std::to_string(...): g++ 12 with -O3 warns of it, falsely, as of a copy onto itself.
  const std::string dropped = std::string(", ").append(std::to_string(first - 2)).append(" indications were dropped");
  EXPECT_NE(logged().find(dropped), std::string::npos) << logged();
}

}  // namespace
}  // namespace pelmar::platform

// Stands in front of the C library's.
extern "C" [[gnu::visibility("default"), gnu::format(printf, 2, 3)]] void syslog(int /*priority*/, const char* format,
                                                                                 ...) {
  char line[256];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  std::fprintf(stderr, "%s\n", line);  // for a test whose process ends
  const std::lock_guard lock(pelmar::platform::g_log_mutex);
  pelmar::platform::g_log += line;
}
