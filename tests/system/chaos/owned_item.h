// An item of the modem that one thread owns, and content that only this item can have.
//
// A write or a delete that succeeded has happened; one that failed has happened or has not. So an item is one of its
// candidates, each the serial number of a content, or absent. A read that succeeds shows which.
#pragma once

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "chaos/chaos.h"

namespace pelmar::system_test::chaos {

// A kind of item, with the operations on one of a number.
struct ItemFamily {
  modem_api_result (*read)(int32_t client, uint32_t n, uint8_t* data, uint32_t* length);
  modem_api_result (*write)(int32_t client, uint32_t n, const uint8_t* data, uint32_t length);
  modem_api_result (*remove)(int32_t client, uint32_t n);
};

inline std::string path_of(uint32_t n) {
  return "/chaos/" + std::to_string(n / 100) + '/' + std::to_string(n);
}

inline constexpr ItemFamily kFamilies[] = {
    {[](int32_t client, uint32_t n, uint8_t* data, uint32_t* length) {
       return modem_api_read_nv(client, n, n % 3, n % 7, data, length);
     },
     [](int32_t client, uint32_t n, const uint8_t* data, uint32_t length) {
       return modem_api_write_nv(client, n, n % 3, n % 7, data, length);
     },
     [](int32_t client, uint32_t n) { return modem_api_delete_nv(client, n, n % 3, n % 7); }},
    {[](int32_t client, uint32_t n, uint8_t* data, uint32_t* length) {
       return modem_api_read_efs_path(client, path_of(n).c_str(), n % 3, 0, data, length);
     },
     [](int32_t client, uint32_t n, const uint8_t* data, uint32_t length) {
       return modem_api_write_efs_path(client, path_of(n).c_str(), n % 3, 0, data, length);
     },
     [](int32_t client, uint32_t n) { return modem_api_delete_efs_path(client, path_of(n).c_str(), n % 3, 0); }},
    {modem_api_read_rfnv, modem_api_write_rfnv, modem_api_delete_rfnv},
};

class OwnedItem {
 public:
  // The number decides about the family, too.
  explicit OwnedItem(uint32_t number) : number_(number), family_(kFamilies[number % std::size(kFamilies)]) {}

  modem_api_result write(int32_t client, Random& random) {
    last_serial_ += random.between(1, 1000);
    const std::vector<uint8_t> content = content_of(last_serial_);
    const auto length = static_cast<uint32_t>(content.size());
    return settle(family_.write(client, number_, content.data(), length), last_serial_);
  }

  modem_api_result remove(int32_t client) { return settle(family_.remove(client, number_), kAbsent); }

  // Content that is not this item's, whole, is a problem for anyone who reads it.
  modem_api_result read(int32_t client, bool is_owner) {
    std::vector<uint8_t> bytes(MODEM_API_MAX_ITEM_BYTES);
    uint32_t length = MODEM_API_MAX_ITEM_BYTES;
    const modem_api_result result = family_.read(client, number_, bytes.data(), &length);
    if (result != MODEM_API_SUCCESS) return result;
    bytes.resize(std::min<size_t>(length, bytes.size()));
    uint32_t serial = 0;
    std::memcpy(&serial, bytes.data(), std::min(sizeof(serial), bytes.size()));
    if (bytes != content_of(serial)) {
      problem(text() + " holds " + std::to_string(length) + " bytes that are not its own");
    } else if (is_owner) {
      expect(serial);
    }
    return result;
  }

  // With a modem that works: the item is one of its candidates.
  void verify(int32_t client) {
    const modem_api_result result = noted("verify item", [&] { return read(client, true); });
    if (result == MODEM_API_ERR_GENERIC) return expect(kAbsent);
    if (result != MODEM_API_SUCCESS) problem(text() + " cannot be read: " + std::to_string(result));
  }

 private:
  static constexpr uint32_t kAbsent = 0;

  std::string text() const { return "item " + std::to_string(number_); }

  // The serial, then bytes that follow from it and the number.
  std::vector<uint8_t> content_of(uint32_t serial) const {
    Random filler(serial, number_);
    std::vector<uint8_t> bytes(filler.between(sizeof(serial), MODEM_API_MAX_ITEM_BYTES));
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(filler.next()); });
    std::memcpy(bytes.data(), &serial, sizeof(serial));
    return bytes;
  }

  modem_api_result settle(modem_api_result result, uint32_t outcome) {
    if (result == MODEM_API_ERR_INVALID_CLIENT) return result;  // nothing was sent
    if (result == MODEM_API_SUCCESS) candidates_.clear();
    candidates_.insert(outcome);
    return result;
  }

  void expect(uint32_t found) {
    if (!candidates_.contains(found)) problem(text() + " is none of its candidates, but " + std::to_string(found));
    candidates_ = {found};
  }

  const uint32_t number_;
  const ItemFamily& family_;
  uint32_t last_serial_ = 0;
  std::set<uint32_t> candidates_ = {kAbsent};
};

}  // namespace pelmar::system_test::chaos
