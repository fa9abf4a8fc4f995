// Modem events on their way from the modem to a client's callback, with their payloads.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <vector>

#include "modem_test.h"

namespace pelmar::system_test {
namespace {

using namespace std::chrono_literals;

struct Event {
  uint32_t id;
  std::vector<uint8_t> payload;
};

class EventsTest : public ModemTest {
 protected:
  static void add(uint32_t id, const uint8_t* payload, uint32_t length) {
    const std::lock_guard guard(lock_);
    events_.push_back({id, {payload, payload + length}});
    changed_.notify_all();
  }

  // The next event, which must be of this kind, as its structure.
  template <typename Payload>
  static Payload next(uint32_t id) {
    std::unique_lock guard(lock_);
    Payload payload{};
    const bool came = changed_.wait_for(guard, 60s, [] { return !events_.empty(); });
    EXPECT_TRUE(came) << "no event " << id;
    if (!came) return payload;
    const Event event = events_.front();
    events_.erase(events_.begin());
    EXPECT_EQ(event.id, id);
    EXPECT_EQ(event.payload.size(), sizeof(payload));
    if (event.payload.size() == sizeof(payload)) std::memcpy(&payload, event.payload.data(), sizeof(payload));
    return payload;
  }

  // Never destroyed: events come until the process is gone.
  static inline std::mutex& lock_ = *new std::mutex;
  static inline std::condition_variable& changed_ = *new std::condition_variable;
  static inline std::vector<Event>& events_ = *new std::vector<Event>;
};

TEST_F(EventsTest, EachEventArrivesWithItsPayload) {
  const int32_t client = open(MODEM_API_CLIENT_VS, add);
  for (const int32_t event : {3, 4, 5}) EXPECT_EQ(modem_api_add_modem_event(client, event), MODEM_API_SUCCESS);
  ASSERT_EQ(modem_api_set_vs_event_report(client), MODEM_API_SUCCESS);

  tell("event 2 77 0 9");
  const auto status = next<modem_api_vs_status_event>(2);
  EXPECT_EQ(status.value, 77u);
  EXPECT_EQ(status.flag1, 0);
  EXPECT_EQ(status.flag2, 1);

  tell("event 3 5 record 0:82:0102 record 1:98:ff secondary 1:6:abcd trailer 9");
  const auto report_a = next<modem_api_vs_report_a_event>(3);
  EXPECT_EQ(report_a.value, 5u);
  ASSERT_EQ(report_a.record_count, 2u);
  EXPECT_EQ(report_a.records[0].id, 82u);
  EXPECT_EQ(report_a.records[0].data_len, 2u);
  EXPECT_EQ(report_a.records[0].data[1], 2);
  EXPECT_EQ(report_a.records[1].sub, 1);
  ASSERT_EQ(report_a.secondary_count, 1u);
  EXPECT_EQ(report_a.secondary[0].data[0], 0xAB);
  EXPECT_EQ(report_a.trailer, 9u);

  tell("event 3 6");
  const auto without_lists = next<modem_api_vs_report_a_event>(3);
  EXPECT_EQ(without_lists.secondary_count, 0u);
  EXPECT_EQ(without_lists.trailer, 0xFFFFFFFFu);

  tell("event 4 1 0aff 7 8");
  const auto report_b = next<modem_api_vs_report_b_event>(4);
  EXPECT_EQ(report_b.entry_count, 2u);
  EXPECT_EQ(report_b.entries[1], 255u);
  EXPECT_EQ(report_b.first, 7);
  EXPECT_EQ(report_b.second, 8);

  tell("event 5 3");
  EXPECT_EQ(next<modem_api_vs_report_c_event>(5).value, 3);
}

TEST_F(EventsTest, TheModemReportsWhatWasSubscribed) {
  const int32_t client = open(MODEM_API_CLIENT_VS, add);
  ASSERT_EQ(modem_api_add_modem_event(client, 5), MODEM_API_SUCCESS);
  ASSERT_EQ(modem_api_set_vs_event_report(client), MODEM_API_SUCCESS);
  tell("event 4 1 00 0 0");
  tell("event 5 1");
  EXPECT_EQ(next<modem_api_vs_report_c_event>(5).value, 1);
  ASSERT_EQ(modem_api_remove_modem_event(client, 5), MODEM_API_SUCCESS);
  tell("event 5 2");  // still reported: the modem was not told yet
  EXPECT_EQ(next<modem_api_vs_report_c_event>(5).value, 2);
  ASSERT_EQ(modem_api_set_vs_event_report(client), MODEM_API_SUCCESS);
  tell("event 5 3");
  tell("event 2 1 0 0");
  next<modem_api_vs_status_event>(2);
}

}  // namespace
}  // namespace pelmar::system_test
