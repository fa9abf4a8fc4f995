#include "storage/item_store.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "io/hex.h"
#include "storage/directory.h"

namespace pelmar::sim {

namespace {

constexpr size_t kMaxItemFileBytes = 16 * kMaxStoredBytes;  // hexadecimal text, with room for somebody's spaces

uint64_t pack(const ItemStore::Key& key) {
  return uint64_t{key.item} << 32 | uint64_t{key.qualifier} << 16 | key.index;
}

}  // namespace

ItemStore::ItemStore(int root, const char* directory, int numbers, Room& room)
    : root_(root), numbers_(numbers), room_(room), directory_(require_directory(root, directory)) {
  load(directory);
}

std::string ItemStore::file_name(const Key& key) const {
  std::string name = std::to_string(key.item);
  if (numbers_ > 1) name += '.' + std::to_string(key.qualifier);
  if (numbers_ > 2) name += '.' + std::to_string(key.index);
  return name;
}

std::optional<ItemStore::Key> ItemStore::parse_file_name(const std::string& name) const {
  unsigned item = 0;
  unsigned qualifier = 0;
  unsigned index = 0;
  if (sscanf(name.c_str(), "%u.%u.%u", &item, &qualifier, &index) != numbers_) return std::nullopt;
  const Key key{item, static_cast<uint16_t>(qualifier), static_cast<uint16_t>(index)};
  if (file_name(key) != name) return std::nullopt;
  return key;
}

void ItemStore::load(const char* directory) {
  for (const Entry& entry : list_directory(directory_.get(), directory)) {
    if (entry.kind == Entry::Kind::kOther) continue;
    const std::string path = std::string(directory) + '/' + entry.name;
    const auto key = parse_file_name(entry.name);
    if (entry.kind == Entry::Kind::kDirectory || !key) {
      warn_ignored(path, "its name is no item's");
      continue;
    }
    const auto text = read_file(directory_.get(), entry.name.c_str(), kMaxItemFileBytes);
    auto bytes = text ? parse_hex({reinterpret_cast<const char*>(text->data()), text->size()}) : std::nullopt;
    if (!bytes || bytes->size() > kMaxStoredBytes) {
      warn_ignored(path, "it does not hold at most 256 bytes in hexadecimal");
      continue;
    }
    items_.emplace(pack(*key), std::move(*bytes));
    room_.take();
  }
}

QmiError ItemStore::read(const Key& key, std::span<const uint8_t>& bytes) const {
  const auto item = items_.find(pack(key));
  if (item == items_.end()) return QMI_ERR_NO_ENTRY_V01;
  bytes = item->second;
  return QMI_ERR_NONE_V01;
}

QmiError ItemStore::write(const Key& key, std::span<const uint8_t> bytes) {
  const bool is_new = !items_.contains(pack(key));
  if (is_new && room_.is_full()) return QMI_ERR_DEVICE_STORAGE_FULL_V01;
  const std::string text = to_hex_lines(bytes);
  const std::span<const uint8_t> content(reinterpret_cast<const uint8_t*>(text.data()), text.size());
  if (const QmiError error = replace_file(root_, directory_.get(), file_name(key).c_str(), content)) return error;
  items_[pack(key)].assign(bytes.begin(), bytes.end());
  if (is_new) room_.take();
  return QMI_ERR_NONE_V01;
}

QmiError ItemStore::remove(const Key& key) {
  const auto item = items_.find(pack(key));
  if (item == items_.end()) return QMI_ERR_NO_ENTRY_V01;
  if (unlinkat(directory_.get(), file_name(key).c_str(), 0) != 0 && errno != ENOENT) return error_of_errno(errno);
  items_.erase(item);
  room_.give_back();
  return QMI_ERR_NONE_V01;
}

}  // namespace pelmar::sim
