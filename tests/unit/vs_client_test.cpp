// The vendor-specific connection: its indications become events, and it does not come back.
#include "vs_client.h"

#include "golden_log.h"

namespace {

using namespace scripted;
using testing::IsEmpty;
using testing::SizeIs;

class VsClient : public LibraryTest {
 protected:
  VsClient() {
    open();
    forget();
    reset_golden_log();
  }
};

TEST_F(VsClient, StaysAsItIsWhenTheServiceGoes) {
  const qmi_client_type handle = vs_client_info.client_handle;
  EXPECT_TRUE(lose_service(handle));
  EXPECT_THAT(notices, IsEmpty());
  EXPECT_THAT(calls(), IsEmpty());
  EXPECT_EQ(vs_client_info.client_handle, handle);
  expect_golden_log();
}

TEST_F(VsClient, TurnsEveryIndicationIntoItsEvent) {
  const struct {
    unsigned id;
    std::string wire;
    Event event;
  } indications[] = {
      {0x0004, "01 0400 A1A2A3A4 02 0100 00 03 0100 07", {2, structure(8, "0:A1A2A3A4 5:01")}},
      {0x0004, "01 0400 A1A2A3A4 02 0100 80 03 0100 00", {2, structure(8, "0:A1A2A3A4 4:01")}},
      {0x0203, "01 0400 A1A2A3A4 02 0100 00", {3, structure(10696, "0:A1A2A3A4 10692:FFFFFFFF")}},
      {0x0203,
       "01 0400 A1A2A3A4 02 1700 02 0102 0304 05060708 0200 D1D2 1112 1314 15161718 0000"
       "10 0C00 01 2122 2324 25262728 0100 D3 11 0400 E1E2E3E4",
       {3, structure(10696,
                     "0:A1A2A3A4 4:05060708 8:D1D2 708:0200000001020304 716:15161718 1424:11121314 7124:02 "
                     "7128:25262728 7132:D3 7832:0100000021222324 10688:01 10692:E1E2E3E4")}},
      {0x0204,
       "01 0400 A1A2A3A4 02 0300 02 D1D2 03 0200 C1C2 04 0200 C3C4",
       {4, structure(412, "0:A1A2A3A4 4:D1 8:D2 404:02 408:C1C2C3C4")}},
      {0x0601, "01 0100 B1", {5, {0xB1}}},
  };
  for (const auto& indication : indications) {
    events.clear();
    indicate(vs_client_info.client_handle, indication.id, bytes(indication.wire));
    EXPECT_EQ(events, std::vector<Event>{indication.event});
    EXPECT_THAT(live_blocks(), SizeIs(1)) << "the client's";
  }
  expect_golden_log();
}

// Counts and lengths that no codec lets through are cut to what a payload holds.
TEST_F(VsClient, BoundsTheCountsOfDecodedIndications) {
  on_decode = [](unsigned msg_id, uint8_t* decoded, unsigned size) {
    std::memset(decoded, 0xC5, size);
    if (msg_id == 0x0203) decoded[7128] = 0;  // the second list counts whether or not it is flagged
    return 0;
  };
  indicate(vs_client_info.client_handle, 0x0203, {});
  indicate(vs_client_info.client_handle, 0x0204, {});
  Bytes records(10696, 0xC5);
  for (size_t i = 0; i < 10; ++i) put(records, 4 + 712 * i + 704, 700);
  for (size_t i = 0; i < 5; ++i) put(records, 7128 + 712 * i + 704, 700);
  put(records, 7124, 10);
  put(records, 10688, 5);
  Bytes entries(412, 0xC5);
  for (size_t i = 0; i < 100; ++i) put(entries, 4 + 4 * i, 0xC5);
  put(entries, 404, 100);
  EXPECT_EQ(events, (std::vector<Event>{{3, records}, {4, entries}}));
}

}  // namespace
