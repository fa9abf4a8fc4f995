#include "chaos/owned_items.h"

#include <algorithm>
#include <cstring>

#include "chaos/journal.h"

namespace pelmar::system_test::chaos {

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kItemsOfFamily = 4;
constexpr uint32_t kNumbersOfOwner = 100;
constexpr uint8_t kUntouched = 0xC3;

std::string path_of(uint32_t number) {
  return "/chaos/" + std::to_string(number / kNumbersOfOwner) + '/' + std::to_string(number);
}

uint8_t qualifier_of(uint32_t number) {
  return static_cast<uint8_t>(number % 3);
}

uint16_t index_of(uint32_t number) {
  return static_cast<uint16_t>(number % 7);
}

constexpr ItemFamily kFamilies[] = {
    {"nv",
     [](int32_t client, uint32_t number, uint8_t* data, uint32_t* length) {
       return modem_api_read_nv(client, number, qualifier_of(number), index_of(number), data, length);
     },
     [](int32_t client, uint32_t number, const uint8_t* data, uint32_t length) {
       return modem_api_write_nv(client, number, qualifier_of(number), index_of(number), data, length);
     },
     [](int32_t client, uint32_t number) {
       return modem_api_delete_nv(client, number, qualifier_of(number), index_of(number));
     }},
    {"efs",
     [](int32_t client, uint32_t number, uint8_t* data, uint32_t* length) {
       return modem_api_read_efs(client, number, qualifier_of(number), data, length);
     },
     [](int32_t client, uint32_t number, const uint8_t* data, uint32_t length) {
       return modem_api_write_efs(client, number, qualifier_of(number), data, length);
     },
     [](int32_t client, uint32_t number) { return modem_api_delete_efs(client, number, qualifier_of(number)); }},
    {"efs path",
     [](int32_t client, uint32_t number, uint8_t* data, uint32_t* length) {
       return modem_api_read_efs_path(client, path_of(number).c_str(), qualifier_of(number), 0, data, length);
     },
     [](int32_t client, uint32_t number, const uint8_t* data, uint32_t length) {
       return modem_api_write_efs_path(client, path_of(number).c_str(), qualifier_of(number), 0, data, length);
     },
     [](int32_t client, uint32_t number) {
       return modem_api_delete_efs_path(client, path_of(number).c_str(), qualifier_of(number), 0);
     }},
    {"rfnv", modem_api_read_rfnv, modem_api_write_rfnv, modem_api_delete_rfnv},
};

// What a content says about itself; bytes that follow from the serial fill it up to its length.
struct Stamp {
  uint32_t family;
  uint32_t number;
  uint32_t serial;
};

Bytes content_of(const Stamp& stamp) {
  Random filler(stamp.serial, stamp.number);
  Bytes bytes(filler.between(sizeof(stamp), MODEM_API_MAX_ITEM_BYTES));
  std::memcpy(bytes.data(), &stamp, sizeof(stamp));
  std::generate(bytes.begin() + sizeof(stamp), bytes.end(), [&] { return static_cast<uint8_t>(filler.next()); });
  return bytes;
}

Stamp stamp_of(const ItemFamily& family, uint32_t number, uint32_t serial) {
  return {static_cast<uint32_t>(&family - kFamilies), number, serial};
}

std::string text_of(const ItemFamily& family, uint32_t number) {
  return std::string(family.name) + " item " + std::to_string(number);
}

// The serial of a content that is this item's, whole.
std::optional<uint32_t> serial_in(const Bytes& bytes, const ItemFamily& family, uint32_t number) {
  Stamp found{};
  if (bytes.size() < sizeof(found)) return std::nullopt;
  std::memcpy(&found, bytes.data(), sizeof(found));
  if (bytes != content_of(stamp_of(family, number, found.serial))) return std::nullopt;
  return found.serial;
}

// Reads with that much room. The serial of what came; nothing where nothing came. A content of anything else is a
// problem.
std::optional<uint32_t> read_serial(int32_t client, const ItemFamily& family, uint32_t number, uint32_t room,
                                    modem_api_result& result) {
  Bytes bytes(MODEM_API_MAX_ITEM_BYTES, kUntouched);
  uint32_t length = room;
  result = noted("read item", [&] { return family.read(client, number, bytes.data(), &length); });
  if (result != MODEM_API_SUCCESS) {
    const bool is_untouched = std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == kUntouched; });
    if (!is_untouched || length != room) journal().problem("a failed read wrote its outputs");
    return std::nullopt;
  }
  bytes.resize(std::min<size_t>(length, bytes.size()));
  const auto serial = serial_in(bytes, family, number);
  if (length > room || !serial) {
    journal().problem(text_of(family, number) + " holds " + std::to_string(length) + " bytes that are not its own");
  }
  return serial;
}

}  // namespace

std::span<const ItemFamily> item_families() {
  return kFamilies;
}

void OwnedItem::write(int32_t client, Random& random) {
  // A serial that is told apart from those of this item's other lives, and is not that of an absent item.
  last_serial_ = (last_serial_ + random.between(1, 1000)) | 1;
  const Bytes content = content_of(stamp_of(family_, number_, last_serial_));
  const auto length = static_cast<uint32_t>(content.size());
  settle(noted("write item", [&] { return family_.write(client, number_, content.data(), length); }), last_serial_);
}

void OwnedItem::remove(int32_t client) {
  settle(noted("delete item", [&] { return family_.remove(client, number_); }), kAbsent);
}

void OwnedItem::settle(modem_api_result result, uint32_t outcome) {
  if (result == MODEM_API_ERR_INVALID_CLIENT) return;  // nothing was sent
  if (result == MODEM_API_SUCCESS) candidates_.clear();
  candidates_.insert(outcome);
}

void OwnedItem::read(int32_t client, Random& random) {
  const uint32_t room = random.one_in(8) ? random.between(0, 100) : uint32_t{MODEM_API_MAX_ITEM_BYTES};
  modem_api_result result;
  const auto serial = read_serial(client, family_, number_, room, result);
  if (!serial) return;
  if (!candidates_.contains(*serial)) {
    journal().problem(text_of(family_, number_) + " is " + std::to_string(*serial) + ", which is none of its " +
                      std::to_string(candidates_.size()) + " candidates");
  }
  candidates_ = {*serial};
}

void OwnedItem::verify(int32_t client) {
  modem_api_result result;
  const auto serial = read_serial(client, family_, number_, MODEM_API_MAX_ITEM_BYTES, result);
  const uint32_t found = result == MODEM_API_SUCCESS ? serial.value_or(kAbsent) : kAbsent;
  if (result != MODEM_API_SUCCESS && result != MODEM_API_ERR_GENERIC) {
    journal().problem(text_of(family_, number_) + " cannot be read: " + std::to_string(result));
  } else if (!candidates_.contains(found)) {
    journal().problem(text_of(family_, number_) + " ended as " + std::to_string(found) + ", none of its " +
                      std::to_string(candidates_.size()) + " candidates");
  }
  candidates_ = {found};
}

std::vector<OwnedItem> own_items(uint32_t owner) {
  std::vector<OwnedItem> items;
  for (const ItemFamily& family : kFamilies) {
    for (uint32_t i = 0; i < kItemsOfFamily; ++i) items.emplace_back(family, (owner + 1) * kNumbersOfOwner + i);
  }
  return items;
}

void read_foreign_item(int32_t client, uint32_t owners, Random& random) {
  const ItemFamily& family = random.element(item_families());
  const uint32_t number = random.between(1, owners) * kNumbersOfOwner + random.between(0, kItemsOfFamily - 1);
  modem_api_result result;
  read_serial(client, family, number, MODEM_API_MAX_ITEM_BYTES, result);
}

}  // namespace pelmar::system_test::chaos
