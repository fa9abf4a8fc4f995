// The codec over a table made by hand, with every kind of element, against bytes worked out by hand.
#include "qmi_codec.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "qmi_idl_lib_internal.h"

namespace pelmar::qmi {
namespace {

using Bytes = std::vector<uint8_t>;

struct Inner {
  uint8_t small;
  uint32_t name_kind;
  char name[5];
};

struct Outer {
  uint16_t first;
  uint32_t count;
  Inner inner[2];
  uint32_t enumerations[2];
};

struct All {
  uint32_t result;
  uint32_t error;
  uint64_t eight;
  char text[4];
  uint8_t outer_valid;
  Outer outer;
  uint8_t undescribed[300];
  uint8_t tail_valid;
  uint32_t tail_count;
  uint16_t tail[300];
};
static_assert(sizeof(Inner) == 16 && offsetof(Outer, enumerations) == 40 && offsetof(All, tail) == 0x017C);

// clang-format off
constexpr uint8_t kInner[] = {
    0x00, 0,                                        // u8
    0x0C, 0x00, 4,                                  // enumeration of 1 byte, with a further flags byte
    0x56, 8, 4,                                     // string of up to 4
    0x20};
constexpr uint8_t kOuter[] = {
    0x01, 0,                                        // u16
    0x57, 8, 2, 4, 0, 0,                            // up to 2 Inner, counted 4 bytes before
    0x45, 40, 2,                                    // 2 enumerations of 2 bytes
    0x20};
constexpr uint8_t kMessage[] = {
    0x02, 0x07, 0, 0, 1,                            // standard response
    0x03, 0x03, 8,                                  // u64
    0x04, 0x56, 16, 3,                              // string of up to 3
    0x44, 0x10, 0x07, 24, 1, 0,                     // optional, flag 4 bytes before: Outer
    0xC8, 0x11, 0xF1, 0x7C, 0x01, 0x2C, 0x01, 4};   // last, optional, flag 8 bytes before: up to 300 u16
// clang-format on

constexpr qmi_idl_type_table_entry kTypes[] = {{sizeof(Inner), kInner}, {sizeof(Outer), kOuter}};
constexpr qmi_idl_message_table_entry kMessages[] = {{sizeof(All), kMessage}, {1, nullptr}};
const qmi_idl_type_table_object* const kTables[] = {nullptr, &common_qmi_idl_type_table_object_v01};
const qmi_idl_type_table_object kTable = {2, 2, 1, kTypes, kMessages, kTables, nullptr};
constexpr qmi_idl_service_message_table_entry kIds[] = {{0x0020, 1, 0}, {0x0021, 0, 700}, {0x5678, 0, 700}};
const qmi_idl_service_object kService = {6, 1, 0x77, 700, {3, 3, 0}, {kIds, kIds, nullptr}, &kTable, 0, nullptr};

const Bytes kResult = {0x02, 4, 0, 0, 0, 0, 0};
const Bytes kEight = {0x03, 8, 0, 8, 7, 6, 5, 4, 3, 2, 1};
const Bytes kText = {0x04, 2, 0, 'h', 'i'};
// Its first, the count and the members of inner, its enumerations.
const Bytes kOuterTlv = {0x10, 17, 0, 0x34, 0x12, 2, 1, 0x80, 4, 'a', 'b', 'c', 'd', 2, 0xFF, 0, 0xFF, 0xFF, 1, 0};
const Bytes kTail = {0x11, 6, 0, 2, 0, 0xAA, 0xBB, 0xCC, 0xDD};

Bytes join(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

int32_t decode_response(const Bytes& bytes, All& all) {
  return decode(&kService, QMI_IDL_RESPONSE, 0x5678, bytes.data(), bytes.size(), &all, sizeof all);
}

TEST(Codec, DecodesEveryKindAndEncodesItBack) {
  const Bytes wire = join({kResult, kEight, kText, kOuterTlv, kTail});
  All all;
  std::memset(&all, 0xEE, sizeof all);
  ASSERT_EQ(decode_response(wire, all), 0);
  EXPECT_EQ(all.eight, 0x0102030405060708u);
  EXPECT_STREQ(all.text, "hi");
  EXPECT_EQ(all.outer_valid, 1);
  EXPECT_EQ(all.outer.first, 0x1234);
  ASSERT_EQ(all.outer.count, 2u);
  EXPECT_EQ(all.outer.inner[0].name_kind, 0x80u);
  EXPECT_STREQ(all.outer.inner[0].name, "abcd");
  EXPECT_EQ(all.outer.inner[1].small, 2);
  EXPECT_STREQ(all.outer.inner[1].name, "");
  EXPECT_EQ(all.outer.enumerations[0], 0xFFFFu);
  EXPECT_EQ(all.outer.enumerations[1], 1u);
  ASSERT_EQ(all.tail_count, 2u);
  EXPECT_EQ(all.tail[1], 0xDDCC);
  EXPECT_EQ(all.tail[2], 0);

  Bytes encoded(wire.size());
  size_t length = 0;
  ASSERT_EQ(encode(&kService, QMI_IDL_RESPONSE, 0x5678, &all, sizeof all, encoded.data(), encoded.size(), &length), 0);
  EXPECT_EQ(length, wire.size());
  EXPECT_EQ(encoded, wire);
  for (size_t room = 0; room < wire.size(); ++room) {
    Bytes small(room);  // of exactly this size: a sanitizer sees a write behind it
    EXPECT_EQ(encode(&kService, QMI_IDL_RESPONSE, 0x5678, &all, sizeof all, small.data(), room, &length), -41) << room;
  }
}

TEST(Codec, ZeroesWhatAMessageLeavesOut) {
  All clean{}, dirty;
  std::memset(&dirty, 0xEE, sizeof dirty);
  for (const Bytes& wire : {join({kResult, kEight, kText}), join({kTail, kText, kEight, kResult, kOuterTlv}),
                            join({kOuterTlv, kResult, kEight, kText})}) {
    ASSERT_EQ(decode_response(wire, clean), 0);
    std::memset(&dirty, 0xEE, sizeof dirty);
    ASSERT_EQ(decode_response(wire, dirty), 0);
    const auto* const bytes = reinterpret_cast<const uint8_t*>(&dirty);
    EXPECT_EQ(std::memcmp(&clean, &dirty, sizeof clean), 0);
    EXPECT_EQ(bytes[offsetof(All, outer_valid) + 1], 0);  // padding
    EXPECT_EQ(dirty.tail[299], 0);
  }
}

TEST(Codec, RefusesWhatTheDescriptionDoesNotAllow) {
  const Bytes good = join({kResult, kEight, kText});
  const Bytes failure = {0x02, 4, 0, 1, 0, 50, 0};
  const struct {
    const char* what;
    Bytes wire;
    int32_t answer;
  } cases[] = {
      {"unknown optional TLV", join({good, {0x12, 1, 0, 9}}), 0},
      {"failure without the other TLVs", failure, 0},
      {"failure with a wrong TLV", join({failure, {0x03, 1, 0, 0}}), -45},
      {"success without the other TLVs", kResult, -46},
      {"no result", join({kEight, kText}), -46},
      {"unknown mandatory TLV", join({good, {0x05, 0, 0}}), -49},
      {"repeated TLV", join({good, kText}), -44},
      {"repeated unknown TLV", join({good, {0x12, 0, 0, 0x12, 0, 0}}), -44},
      {"half a TLV header", join({good, {0x12, 0}}), -45},
      {"TLV past the message", join({good, {0x12, 1, 0}}), -45},
      {"value too short", join({kResult, {0x03, 7, 0, 1, 2, 3, 4, 5, 6, 7}, kText}), -45},
      {"value too long", join({kResult, {0x03, 9, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, kText}), -45},
      {"string too long", join({kResult, kEight, {0x04, 4, 0, 'a', 'b', 'c', 'd'}}), -42},
      {"count above the maximum", join({good, {0x10, 3, 0, 0, 0, 3}}), -42},
      {"wide count above the maximum", join({good, {0x11, 2, 0, 0x2D, 0x01}}), -42},
      {"count without its elements", join({good, {0x11, 4, 0, 2, 0, 1, 1}}), -45},
      {"half a count", join({good, {0x11, 1, 0, 2}}), -45},
      {"inner string past its TLV", join({good, {0x10, 7, 0, 0, 0, 1, 9, 9, 2, 'a'}}), -45},
      {"inner string too long", join({good, {0x10, 6, 0, 0, 0, 1, 9, 9, 5}}), -42},
      {"fixed array cut", join({good, {0x10, 6, 0, 0, 0, 0, 1, 0, 1}}), -45},
  };
  for (const auto& one : cases) {
    All all;
    EXPECT_EQ(decode_response(Bytes(one.wire), all), one.answer) << one.what;
  }
  All all;
  EXPECT_EQ(decode(&kService, QMI_IDL_REQUEST, 0x5678, failure.data(), failure.size(), &all, sizeof all), -46)
      << "only a response may leave out mandatory TLVs";
}

TEST(Codec, RefusesToEncodeWhatDoesNotFit) {
  All all{};
  Bytes out(4096);
  size_t length = 0;
  const auto answer = [&] {
    return encode(&kService, QMI_IDL_REQUEST, 0x5678, &all, sizeof all, out.data(), out.size(), &length);
  };
  std::memcpy(all.text, "abcd", 4);  // no terminator within its room
  EXPECT_EQ(answer(), -42);
  all.text[3] = '\0';
  EXPECT_EQ(answer(), 0);
  all.tail_valid = 1;
  all.tail_count = 301;
  EXPECT_EQ(answer(), -42);
  EXPECT_EQ(length, 0u);
  all.tail_count = 300;
  EXPECT_EQ(answer(), 0);
}

TEST(Codec, KnowsItsMessages) {
  All all{};
  Bytes out(64);
  size_t length = 1;
  uint32_t size = 0;
  EXPECT_EQ(encode(&kService, QMI_IDL_REQUEST, 0x0022, &all, sizeof all, out.data(), out.size(), &length), -43);
  EXPECT_EQ(encode(&kService, QMI_IDL_REQUEST, 0x0021, &all, sizeof all - 1, out.data(), out.size(), &length), -41);
  EXPECT_EQ(decode(&kService, QMI_IDL_REQUEST, 0x0021, out.data(), 0, &all, sizeof all - 1), -41);
  EXPECT_EQ(encode(&kService, QMI_IDL_REQUEST, 0x0020, &all, 1, out.data(), 0, &length), 0);
  EXPECT_EQ(length, 0u);
  uint8_t empty = 0xEE;
  EXPECT_EQ(decode(&kService, QMI_IDL_REQUEST, 0x0020, nullptr, 0, &empty, 1), 0);
  EXPECT_EQ(empty, 0);
  EXPECT_EQ(qmi_idl_get_message_c_struct_len(&kService, QMI_IDL_RESPONSE, 0x5678, &size), 0);
  EXPECT_EQ(size, sizeof(All));
  EXPECT_EQ(qmi_idl_get_message_c_struct_len(&kService, QMI_IDL_INDICATION, 0x5678, &size), -43);
  EXPECT_EQ(qmi_idl_get_message_c_struct_len(nullptr, QMI_IDL_RESPONSE, 0x5678, &size), -47);
  EXPECT_EQ(qmi_idl_get_message_c_struct_len(&kService, QMI_IDL_RESPONSE, 0x5678, nullptr), -47);
}

// Cut and altered copies of a good message: whatever the answer, a sanitizer sees every access outside a buffer.
TEST(Codec, SurvivesAlteredMessages) {
  const Bytes wire = join({kResult, kEight, kText, kOuterTlv, kTail});
  All all;
  for (size_t cut = 0; cut < wire.size(); ++cut) {
    const Bytes part(wire.begin(), wire.begin() + static_cast<std::ptrdiff_t>(cut));
    decode_response(part, all);
    for (unsigned value = 0; value < 256; ++value) {
      Bytes altered = wire;
      altered[cut] = static_cast<uint8_t>(value);
      const int32_t answer = decode_response(altered, all);
      ASSERT_TRUE(answer == 0 || (answer <= -42 && answer >= -49)) << answer;
    }
  }
}

}  // namespace
}  // namespace pelmar::qmi
