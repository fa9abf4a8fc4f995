// Small string operations. Invalid arguments are logged as errors, findings at debug level.
#include "pelmar_string.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "pelmar_log_site.h"

namespace pelmar {
namespace {

bool is_space(char c) {
  return (c >= '\t' && c <= '\r') || c == ' ';
}

int length_of(const char* str) {
  return static_cast<int>(std::strlen(str));
}

// The output of a replacement, which is terminated after every piece.
struct Output {
  char* text;
  uint32_t room;
  int length = 0;

  bool has_room(int piece) const { return static_cast<int64_t>(length) + piece + 1 < static_cast<int64_t>(room); }
  void append(const char* piece, int piece_length) {
    std::memcpy(text + length, piece, static_cast<size_t>(piece_length));
    length += piece_length;
    text[length] = '\0';
  }
};

void replace(const Operation& operation, Output out, const char* in, const char* src, const char* dst) {
  const int src_len = length_of(src);
  const int dst_len = length_of(dst);
  if (src_len <= 0) {  // also if the length does not fit an int
    PELMAR_LOG_ERROR_IN(operation, "src_len(%d) can not <= 0", src_len);
    return;
  }
  if (dst_len < 0) {
    PELMAR_LOG_ERROR_IN(operation, "dst_len(%d) can not < 0", dst_len);
    return;
  }
  const int room = static_cast<int>(out.room);
  while (*in != '\0') {
    if (std::strncmp(in, src, static_cast<size_t>(src_len)) == 0) {
      if (!out.has_room(dst_len)) {
        PELMAR_LOG_ERROR_IN(operation, "len(%d) + dst_len(%d) + 1 >= outlen(%d), abort", out.length, dst_len, room);
        return;
      }
      out.append(dst, dst_len);
      in += src_len;
    } else {
      if (!out.has_room(1)) {
        PELMAR_LOG_ERROR_IN(operation, "len(%d) + 1 + 1 >= outlen(%d), abort", out.length, room);
        return;
      }
      out.append(in, 1);
      ++in;
    }
  }
}

// Compatibility: a byte's text, " %02X", is cut to two characters, so that the low digit is missing.
void render_hex(char* text, int32_t room, const uint8_t* data) {
  std::memset(text, 0, static_cast<size_t>(room));
  for (int32_t length = 0; length + 3 < room; length += 2) {
    text[length] = ' ';
    text[length + 1] = "0123456789ABCDEF"[*data++ >> 4];
  }
}

}  // namespace
}  // namespace pelmar

using namespace pelmar;

extern "C" {

// Returns the length of the trimmed string. Positions are logged as int.
int pelmar_str_trim(char* str, uint32_t str_len_max) {
  Operation operation(PELMAR_HERE);
  const int max = static_cast<int>(std::min<uint32_t>(str_len_max, INT_MAX));
  if (str == nullptr) {
    PELMAR_LOG_ERROR("str is null, str_len_max = %d", max);
    return operation.exit(0);
  }
  if (max < 2) {
    PELMAR_LOG_ERROR("str_len_max(%d) can not < 2", max);
    return operation.exit(0);
  }
  int start = 0;
  while (start < max && is_space(str[start])) ++start;
  if (start == max) {
    PELMAR_LOG_DEBUG("This string is empty for max cnt, cnt_start = %d(max:%d)", start, max);
    str[0] = '\0';
    return operation.exit(0);
  }

  int end = start + static_cast<int>(strnlen(str + start, static_cast<size_t>(max - start)));
  const bool cut = end == max;
  if (cut) {
    end = max - 1;
    PELMAR_LOG_DEBUG("This string has no cut-off character, cnt_end = %d(max:%d), new cnt_end = %d", max, max, end);
    str[end] = '\0';
  }
  if (end == start) {
    if (cut) {
      PELMAR_LOG_DEBUG("This string is all blank characters, cnt_start = %d, cnt_end = %d", start, end);
    } else if (start > 0) {
      PELMAR_LOG_DEBUG("This string is empty, cnt_start = %d", start);
    } else {
      PELMAR_LOG_DEBUG("This string is empty, cnt_end = %d", end);
    }
    str[0] = '\0';
    return operation.exit(0);
  }

  while (is_space(str[end - 1])) str[--end] = '\0';  // ends at str[start] at the latest
  const int length = end - start;
  if (start > 0) std::memmove(str, str + start, static_cast<size_t>(length) + 1);
  return operation.exit(length);
}

char* pelmar_str_find_right(const char* str, char c) {
  Operation operation(PELMAR_HERE);
  if (str == nullptr) {
    PELMAR_LOG_ERROR("str_in is null");
    return nullptr;
  }
  return const_cast<char*>(std::strrchr(str, c));
}

// Compatibility: only PELMAR_STR_BYTES_DIFFER of the codes for a difference is positive.
int32_t pelmar_str_cmp(const char* str1, const char* str2) {
  Operation operation(PELMAR_HERE);
  if (str1 == nullptr) return operation.fail(PELMAR_STR_FIRST_IS_NULL, "str1 is null");
  if (str2 == nullptr) return operation.fail(PELMAR_STR_SECOND_IS_NULL, "str2 is null");
  const int len1 = length_of(str1);
  const int len2 = length_of(str2);
  if (len1 != len2) {
    PELMAR_LOG_DEBUG("len1(%d) != len2(%d), str1: %s, str2: %s", len1, len2, str1, str2);
    return operation.exit(PELMAR_STR_LENGTHS_DIFFER);
  }
  for (int i = 0; i < len1; ++i) {
    if (str1[i] != str2[i]) {
      PELMAR_LOG_DEBUG("str1[%d]('%c') != str2[%d]('%c'), str1(%d): %s, str2(%d): %s", i, str1[i], i, str2[i], len1,
                       str1, len2, str2);
      return operation.exit(PELMAR_STR_BYTES_DIFFER);
    }
  }
  PELMAR_LOG_DEBUG("same, str1(%d): %s, str2(%d): %s", len1, str1, len2, str2);
  return operation.exit(PELMAR_STR_SAME);
}

void pelmar_str_rpl(char* out, char* in, uint32_t outlen, const char* src, const char* dst) {
  Operation operation(PELMAR_HERE);
  if (out != nullptr && outlen > 0) out[0] = '\0';
  if (in == nullptr) return operation.fail("in is null");
  if (out == nullptr) return operation.fail("out is null");
  if (src == nullptr) return operation.fail("src is null");
  if (dst == nullptr) return operation.fail("dst is null");
  if (*in == '\0') return operation.fail("in is empty");
  if (*src == '\0') return operation.fail("src is empty");
  replace(operation, {.text = out, .room = outlen}, in, src, dst);
}

bool pelmar_str_add_prefix(const char* in, char* out, int32_t outlen, const char* prefix) {
  Operation operation(PELMAR_HERE);
  if (in == nullptr) return operation.fail(false, "in is null");
  if (out == nullptr) return operation.fail(false, "out is null");
  if (prefix == nullptr) return operation.fail(false, "prefix is null");
  const size_t in_len = std::strlen(in);
  const size_t prefix_len = std::strlen(prefix);
  if (outlen < 0 || in_len + prefix_len >= static_cast<size_t>(outlen)) {
    PELMAR_LOG_ERROR("in_len(%d) + prefix_len(%d) can not >= outlen(%d)", static_cast<int>(in_len),
                     static_cast<int>(prefix_len), outlen);
    return operation.exit(false);
  }
  std::memmove(out + prefix_len, in, in_len + 1);
  std::memcpy(out, prefix, prefix_len);  // NOLINT(bugprone-not-null-terminated-result): the text after it is
  return operation.exit(true);
}

bool pelmar_get_hex_str(char* hex_str, int32_t str_len, const uint8_t* ptr_data) {
  Operation operation(PELMAR_HERE);
  if (hex_str == nullptr) return operation.fail(false, "hex_str is null");
  if (str_len <= 3) return operation.fail(false, "str_len is invalid");
  if (ptr_data == nullptr) return operation.fail(false, "ptr_data is null");
  render_hex(hex_str, str_len, ptr_data);
  return operation.exit(true);
}
}

void pelmar_str_print(char* str) {
  Operation operation(PELMAR_HERE);
  if (str == nullptr) return operation.fail("str is NULL");
  const int length = length_of(str);
  PELMAR_LOG_DEBUG("Will print str(len = %d): %s", length, str);
  for (int i = 0; i < length; ++i) {
    PELMAR_LOG_DEBUG("str[%d] = %c(%d)", i, str[i], static_cast<unsigned char>(str[i]));
  }
}
