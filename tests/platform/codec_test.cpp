// The codec, with a hand-written table that has every kind of element and with the services' tables. The expected bytes
// are written by hand.
#include "qmi_codec.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "hex_bytes.h"
#include "nas_messages.h"
#include "qmi_idl_lib_internal.h"
#include "qmux.h"
#include "sar_messages.h"

namespace pelmar::qmi {
namespace {

using Bytes = std::vector<uint8_t>;

// clang-format off
constexpr uint8_t kInner[] = {                      // 16 bytes
    0x00, 0,                                        // u8
    0x0C, 0x00, 4,                                  // enumeration of 1 byte, with a further flags byte
    0x56, 8, 4,                                     // string of up to 4
    0x20};
constexpr uint8_t kOuter[] = {                      // 48 bytes
    0x01, 0,                                        // u16
    0x57, 8, 2, 4, 0, 0,                            // up to 2 inner ones, counted 4 bytes before
    0x45, 40, 2,                                    // 2 enumerations of 2 bytes
    0x20};
constexpr uint8_t kMany[] = {                       // 36 bytes, 14 members: more than a plan holds
    0x02, 0, 0x04, 4,                               // u32, and an enumeration of 1 byte right behind it
    0x00, 9, 0x00, 11, 0x00, 13, 0x00, 15, 0x00, 17, 0x00, 19, 0x00, 21, 0x00, 23, 0x00, 25, 0x00, 27, 0x00, 29,
    0x56, 31, 3,                                    // string of up to 3
    0x20};
constexpr uint8_t kManyMessage[] = {0x81, 0x07, 0, 2, 0};
constexpr uint8_t kMessage[] = {                    // 984 bytes
    0x02, 0x07, 0, 0, 1,                            // standard response
    0x03, 0x03, 8,                                  // u64
    0x04, 0x56, 16, 3,                              // string of up to 3
    0x44, 0x10, 0x07, 24, 1, 0,                     // optional, flag 4 bytes before: an element of kOuter
    0xC8, 0x11, 0xF1, 0x7C, 0x01, 0x2C, 0x01, 4};   // last, optional, flag 8 bytes before: up to 300 u16
// clang-format on

constexpr size_t kSize = 984;
constexpr qmi_idl_type_table_entry kTypes[] = {{16, kInner}, {48, kOuter}, {36, kMany}};
constexpr qmi_idl_message_table_entry kMessages[] = {{kSize, kMessage}, {1, nullptr}, {36, kManyMessage}};
const qmi_idl_type_table_object* const kTables[] = {nullptr, &common_qmi_idl_type_table_object_v01};
const qmi_idl_type_table_object kTable = {3, 3, 1, kTypes, kMessages, kTables, nullptr};
constexpr qmi_idl_service_message_table_entry kIds[] = {{0x0020, 1, 0}, {0x0021, 2, 700}, {0x5678, 0, 700}};
const qmi_idl_service_object kMade = {6, 1, 0x77, 700, {3, 3, 0}, {kIds, kIds, nullptr}, &kTable, 0, nullptr};

const qmi_idl_service_object_type kNas = nas_get_service_object_internal_v01(1, 388, 6);
const qmi_idl_service_object_type kSar = sar_get_service_object_internal_v01(1, 15, 6);
constexpr auto kRequest = QMI_IDL_REQUEST;
constexpr auto kResponse = QMI_IDL_RESPONSE;

const std::string kFailure = "02 0400 0100 1A00 ";
const std::string kFailureHeader = "0:01 4:1A ";
const std::string kSuccess = "02 0400 0000 0000 ";
const std::string kEight = "03 0800 0807060504030201 ";
const std::string kText = "04 0200 6869 ";
const std::string kGood = kSuccess + kEight + kText;

struct MessageCase {
  qmi_idl_service_object_type service;
  qmi_idl_type_of_message_type type;
  uint16_t id;
  size_t size;          // of the structure
  std::string wire;     // in hexadecimal digits
  std::string content;  // of the structure: bytes behind each offset, zero elsewhere
};

const MessageCase kRows[] = {
    {&kMade, kRequest, 0x0020, 1, "", ""},
    {&kMade, kRequest, 0x0021, 36, "01 1300 04030201 7F 11 12 13 14 15 16 17 18 19 1A 1B 02 6869",
     "0:04030201 4:7F 9:11 11:12 13:13 15:14 17:15 19:16 21:17 23:18 25:19 27:1A 29:1B 31:6869"},
    {&kMade, kResponse, 0x5678, kSize, kGood, "8:0807060504030201 16:6869"},
    {&kMade, kResponse, 0x5678, kSize,
     kFailure + kEight + "04 0300 616263 10 1100 3412 02 01 80 04 61626364 02 FF 00 FFFF 0100 11 0600 0200 AABBCCDD",
     kFailureHeader + "8:0807060504030201 16:616263 20:01 24:3412 28:02 32:01 36:80 40:61626364 48:02 52:FF "
                      "64:FFFF 68:01 372:01 376:02 380:AABBCCDD"},
    {kNas, kRequest, QMI_NAS_REGISTER_INDICATIONS_V01, 175,
     "10 0100 A0 12 0100 A1 13 0100 A2 14 0100 A3 15 0100 A4 17 0100 A5 18 0100 A6 19 0100 A7 1A 0100 A8 1B 0100 A9 "
     "1C 0100 AA 1D 0100 AB 1E 0100 AC 1F 0100 AD 20 0100 AE 21 0200 B1B2",
     "0:01A001A101A201A301A401A501A601A701A801A901AA01AB01AC01AD01AE 30:01B1B2"},
    {kNas, kRequest, QMI_NAS_SET_SYSTEM_SELECTION_PREFERENCE_V01, 792, "33 0400 A1A2A3A4", "488:01 492:A1A2A3A4"},
    {kNas, kRequest, QMI_NAS_BIND_SUBSCRIPTION_V01, 4, "01 0100 A1", "0:A1"},
    {kNas, kRequest, QMI_NAS_SET_AVOID_TRM_V01, 1, "01 0100 A1", "0:A1"},
    {kNas, kRequest, QMI_NAS_SET_LTE_CELL_LOCK_V01, 488, "01 0700 01 A1A2 B1B2B3B4 10 0100 C1",
     "0:01 4:A1A2 8:B1B2B3B4 484:01C1"},
    {kNas, kResponse, QMI_NAS_GET_CELL_LOCATION_INFO_V01, 3784,
     kFailure + "13 1D00 01 020304 0506 0708090A 0B0C 0D0E 0F 10 11 12 01 1314 15FF 1617 1819 1A1B "
                "14 1800 01 02 A1A2 A3 A4 A5 00 B1B2 B3 B4 B5 01 C1C2 C3C4 C5C6 C7C8 C9CA "
                "1E 0400 D1D2D3D4 2E 0400 E1E2E3E4",
     kFailureHeader + "424:01 428:01020304 432:0506 436:0708090A 440:0B0C0D0E 444:0F101112 448:01 452:131415FF16171819 "
                      "460:1A1B 532:01 536:01 540:02 544:A1A2A3A4A5 636:B1B2B3B4B5 644:01 648:C1C2C3C4C5C6C7C8C9CA "
                      "3132:01 3136:D1D2D3D4 3148:01 3152:E1E2E3E4"},
    {kNas, kResponse, QMI_NAS_GET_DRX_V01, 16, kFailure + "10 0400 A1A2A3A4", kFailureHeader + "8:01 12:A1A2A3A4"},
    {kSar, kRequest, QMI_SAR_RF_SET_STATE_V01, 32, "01 0400 A1A2A3A4", "0:A1A2A3A4"},
    {kSar, kResponse, QMI_SAR_RF_GET_STATE_V01, 16, kFailure + "10 0400 A1A2A3A4", kFailureHeader + "8:01 12:A1A2A3A4"},
};

// The vectors have exactly the sizes that are passed, so that a sanitizer reports every access beyond.
int32_t decode_to(const MessageCase& row, const Bytes& wire, Bytes& structure) {
  structure.assign(row.size, 0xEE);
  return decode(row.service, row.type, row.id, wire.data(), wire.size(), structure.data(), structure.size());
}
int32_t encode_from(const MessageCase& row, const Bytes& structure, size_t room, Bytes& wire) {
  wire.resize(room);
  size_t length = room + 1;
  const int32_t error = encode(row.service, row.type, row.id, structure.data(), row.size, wire.data(), room, &length);
  wire.resize(length);
  return error;
}

TEST(Codec, DecodesAndEncodesEveryMessage) {
  for (const MessageCase& row : kRows) {
    SCOPED_TRACE(row.wire);
    const Bytes wire = test::bytes(row.wire), structure = test::structure(row.size, row.content);
    Bytes result;
    Bytes turned = wire;  // tests every rotation of the TLVs
    do {
      ASSERT_EQ(decode_to(row, turned, result), 0);
      EXPECT_EQ(result, structure);
      if (!turned.empty()) std::rotate(turned.begin(), turned.begin() + 3 + turned[1] + turned[2] * 256, turned.end());
    } while (turned != wire);
    EXPECT_EQ(encode_from(row, structure, wire.size(), result), 0);
    EXPECT_EQ(result, wire);
    for (size_t room = 0; room < wire.size(); ++room) {
      EXPECT_EQ(encode_from(row, structure, room, result), QMI_IDL_LIB_BUFFER_TOO_SMALL);
      EXPECT_EQ(result, Bytes());
    }

    uint32_t size = 0;
    EXPECT_EQ(qmi_idl_get_message_c_struct_len(row.service, row.type, row.id, &size), 0);
    EXPECT_EQ(size, row.size);
    // Structures that are one byte too small.
    EXPECT_EQ(decode(row.service, row.type, row.id, wire.data(), wire.size(), result.data(), row.size - 1),
              QMI_IDL_LIB_BUFFER_TOO_SMALL);
    EXPECT_EQ(encode_from({row.service, row.type, row.id, row.size - 1, "", ""}, structure, wire.size(), result),
              QMI_IDL_LIB_BUFFER_TOO_SMALL);
  }
}

TEST(Codec, RefusesWhatTheDescriptionDoesNotAllow) {
  const std::tuple<const char*, std::string, int32_t> cases[] = {
      {"unknown optional TLVs", kGood + "12 0100 09 40 0000 41 0000 81 0000", 0},
      {"failure without the other TLVs", kFailure, 0},
      {"failure with a wrong TLV", kFailure + "03 0100 00", -45},
      {"success without the other TLVs", kSuccess, -46},
      {"unknown mandatory TLV", kGood + "05 0000", -49},
      {"repeated unknown TLV", kGood + "12 0000 12 0000", -44},
      {"TLV past the message", kGood + "12 0100", -45},
      {"value too short", kSuccess + "03 0700 01020304050607" + kText, -45},
      {"value too long", kSuccess + "03 0900 010203040506070809" + kText, -45},
      {"string too long", kSuccess + kEight + "04 0400 61626364", -42},
      {"count above the maximum", kGood + "10 0300 0000 03", -42},
      {"count without its elements", kGood + "11 0400 0200 0101", -45},
      {"inner string past its TLV", kGood + "10 0700 0000 01 09 09 02 61", -45},
      {"fixed array truncated", kGood + "10 0600 0000 00 0100 01", -45},
  };
  Bytes result;
  for (const auto& [what, wire, error] : cases) {
    EXPECT_EQ(decode_to({&kMade, kResponse, 0x5678, kSize, "", ""}, test::bytes(wire), result), error) << what;
    EXPECT_EQ(result == Bytes(kSize), error != 0) << what;
  }
  EXPECT_EQ(decode_to({&kMade, kRequest, 0x5678, kSize, "", ""}, test::bytes(kFailure), result), -46)
      << "only a response may leave out mandatory TLVs";
}

TEST(Codec, EncodesNoMoreThanTheMaximum) {
  const std::pair<const char*, int32_t> cases[] = {
      {"16:616263", 0},                                  // a text of the greatest length
      {"16:61626364", -42},     {"372:01 376:2C01", 0},  // 300 elements
      {"372:01 376:2D01", -42}, {"20:01 28:03", -42},    // aggregates
  };
  for (const auto& [content, error] : cases) {
    Bytes result;
    const MessageCase row = {&kMade, kRequest, 0x5678, kSize, "", ""};
    EXPECT_EQ(encode_from(row, test::structure(kSize, content), 4096, result), error) << content;
    EXPECT_EQ(result.empty(), error != 0);
  }
}

TEST(Codec, RefusesUnknownMessagesVersionsAndNullArguments) {
  Bytes result;
  const MessageCase unknown = {&kMade, kRequest, 0x0022, kSize, "", ""};
  EXPECT_EQ(encode_from(unknown, Bytes(kSize), 64, result), -43);
  EXPECT_EQ(decode_to(unknown, {}, result), -43);
  EXPECT_EQ(decode_to(kRows[0], {0x10, 1, 0, 7}, result), 0) << "an unknown TLV is skipped";
  EXPECT_EQ(result, Bytes(1));
  EXPECT_EQ(nas_get_service_object_internal_v01(1, 387, 6), nullptr);
  EXPECT_EQ(sar_get_service_object_internal_v01(1, 14, 6), nullptr);
  EXPECT_EQ(decode_to({nullptr, kRequest, 0x0020, 1, "", ""}, {}, result), -47);
  size_t length = 0;
  EXPECT_EQ(decode(&kMade, kResponse, 0x5678, kMany, sizeof kMany, nullptr, kSize), -47);
  EXPECT_EQ(encode(&kMade, kResponse, 0x5678, Bytes(kSize).data(), kSize, nullptr, 1, &length), -47);
}

TEST(Qmux, HeadersAreStoredInFullAndReadFromAllTheirBytes) {
  Bytes bytes(kFrameHeaderLength + kMessageHeaderLength, 0xEE);
  store_frame_header(bytes.data(), Direction::kFromModem, 3, 4, 0x0102);
  store_message_header(&bytes[kFrameHeaderLength], MessageKind::kResponse, 0x0506, 0x0708, 0x090A);
  EXPECT_EQ(bytes, test::bytes("01 0701 80 03 04 02 0605 0807 0A09"));
  EXPECT_EQ(read_front(std::span(bytes).first(3), Direction::kToModem).state, Front::State::kIncomplete);
  EXPECT_EQ(read_front(test::bytes("01 0400"), Direction::kToModem).state, Front::State::kBroken);
  EXPECT_EQ(read_front(test::bytes("01 0500 80"), Direction::kToModem).state, Front::State::kBroken);
}

}  // namespace
}  // namespace pelmar::qmi
