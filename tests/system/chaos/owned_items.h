// Items of the modem that one thread owns, what they may hold now, and content that tells whose it is.
//
// A write or a delete that succeeded has happened; one that failed has happened or has not. So an item is one of its
// candidates, each the serial number of a content, or absent. A read that succeeds tells which.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "chaos/random.h"
#include "modem_api.h"

namespace pelmar::system_test::chaos {

// A kind of item, with the operations on one of a number.
struct ItemFamily {
  const char* name;
  modem_api_result (*read)(int32_t client, uint32_t number, uint8_t* data, uint32_t* length);
  modem_api_result (*write)(int32_t client, uint32_t number, const uint8_t* data, uint32_t length);
  modem_api_result (*remove)(int32_t client, uint32_t number);
};

std::span<const ItemFamily> item_families();

class OwnedItem {
 public:
  OwnedItem(const ItemFamily& family, uint32_t number) : family_(family), number_(number) {}

  void write(int32_t client, Random& random);
  void remove(int32_t client);
  void read(int32_t client, Random& random);

  // With a modem that does all that it is asked: the item is one of its candidates.
  void verify(int32_t client);

 private:
  static constexpr uint32_t kAbsent = 0;

  void settle(modem_api_result result, uint32_t outcome);

  const ItemFamily& family_;
  const uint32_t number_;
  uint32_t last_serial_ = 0;
  std::set<uint32_t> candidates_ = {kAbsent};
};

// The items of one thread: some of every family.
std::vector<OwnedItem> own_items(uint32_t owner);

// Reads an item of any thread: what it holds must be its owner's.
void read_foreign_item(int32_t client, uint32_t owners, Random& random);

}  // namespace pelmar::system_test::chaos
