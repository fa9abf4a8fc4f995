// The vendor-specific service: its responses byte for byte, its indications and their events, its service object, and a
// connection that is not restored. The tests of the commands check the requests. The compiler asserts the sizes, the
// order and the number of messages.
#include "library_test.h"
#include "qmi_codec.h"
#include "qmi_idl_lib_internal.h"
#include "vs_client.h"

namespace {

using namespace scripted;

const qmi_idl_service_object_type kService = &vs_qmi_idl_service_object_v01;

// Identifiers of responses, and their content behind the result: bytes, and fields of the structure.
using Responses = std::tuple<std::vector<uint16_t>, std::string, std::string>;

const std::string kRecords = "1800 02 0102 0304 05060708 0300 D1D2D3 1112131415161718 0000";

const Responses kResponses[] = {
    {{0x0000, 0x0100, 0x0103, 0x0106, 0x0109}, "03 0400 0200 D1D2", "8:02 12:D1D2"},
    {{0x0002}, "03 0100 B1 04 0100 B2", "8:B1B2"},
    {{0x0200}, "10 0400 A1A2A3A4", "8:01 12:A1A2A3A4"},
    {{0x0207}, "10 " + kRecords, "8:01 12:02 16:0102030405060708 24:03 28:D1D2D3 728:1112131415161718"},
    {{0x0001, 0x0003, 0x0101, 0x0102, 0x0104, 0x0105, 0x0107, 0x0108, 0x010A, 0x010B, 0x010C, 0x0200, 0x0201, 0x0202,
      0x0207, 0x0208, 0x0400, 0x0401},
     "",
     ""},
};

TEST(VsMessages, DecodesEveryResponse) {
  for (const auto& [ids, wire, content] : kResponses) {
    for (const uint16_t id : ids) {
      SCOPED_TRACE(testing::Message() << "message " << std::hex << id);
      const Bytes received = bytes("02 0400 0100 1A00 " + wire);
      pelmar::qmi::MessageSize size = {};
      pelmar::qmi::message_size(kService, QMI_IDL_RESPONSE, id, &size);
      Bytes decoded(size.structure_length);
      EXPECT_EQ(pelmar::qmi::decode(kService, QMI_IDL_RESPONSE, id, received.data(), received.size(), decoded.data(),
                                    decoded.size()),
                0);
      EXPECT_EQ(decoded, structure(size.structure_length, "0:01 4:1A " + content));
    }
  }
}

TEST(VsMessages, DescribesTheServiceAndAcceptsOneVersion) {
  EXPECT_EQ(std::tie(kService->library_version, kService->idl_version, kService->service_id, kService->max_msg_len),
            std::tuple(6U, 1U, 0xE4U, 10672U));
  EXPECT_EQ(kService->idl_minor_version, 2U);
  const qmi_idl_type_table_object& table = *kService->p_type_table;
  EXPECT_EQ(table.p_referenced_tables[0], &table);
  EXPECT_EQ(table.p_referenced_tables[1], &common_qmi_idl_type_table_object_v01);
  // No message uses the last type: a pair of words.
  ASSERT_EQ(table.n_types, 4);
  EXPECT_EQ(0, std::memcmp(table.p_types[3].p_encoded_type_data, "\x02\x00\x02\x04\x20", 5));
  EXPECT_EQ(vs_get_service_object_internal_v01(1, 2, 6), kService);
  for (const auto& [major, minor, library] : {std::tuple(1U, 2, 5), {1U, 3, 6}, {2U, 2, 6}}) {
    EXPECT_EQ(vs_get_service_object_internal_v01(major, minor, library), nullptr);
  }
}

// --- its client ---

class VsClient : public LibraryTest {
 protected:
  VsClient() {
    open();
    clear_records();
    reset_golden_log();
  }
};

TEST_F(VsClient, IsUnchangedByALossOfTheService) {
  const qmi_client_type handle = vs_client_info.client_handle;
  EXPECT_TRUE(lose_service(handle));
  EXPECT_TRUE(notices.empty() && calls().empty());
  EXPECT_EQ(vs_client_info.client_handle, handle);
  expect_golden_log();
}

TEST_F(VsClient, TurnsEveryIndicationIntoItsEvent) {
  const std::tuple<unsigned, std::string, Event> indications[] = {
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
  for (const auto& [id, wire, event] : indications) {
    events.clear();
    indicate(vs_client_info.client_handle, id, bytes(wire));
    EXPECT_EQ(events, std::vector<Event>{event});
    EXPECT_EQ(live_blocks().size(), 1U) << "the open client";
  }
  expect_golden_log();
}

// Counts and lengths that the codec would refuse are limited to the capacity of the payload.
TEST_F(VsClient, BoundsTheCountsOfDecodedIndications) {
  on_decode = [](unsigned msg_id, uint8_t* decoded, unsigned size) {
    std::memset(decoded, 0xC5, size);
    if (msg_id == 0x0203) decoded[7128] = 0;  // the second list's count is used even if its flag is 0
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
