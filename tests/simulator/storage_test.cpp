// What is kept, where it is on disk, and that no path leaves its tree.
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

#include "simulator_test.h"

namespace pelmar::sim::test {

namespace {

namespace fs = std::filesystem;

enum Error : uint16_t { kNone = 0, kTooLong = 19, kInvalid = 48, kNoEntry = 50, kFull = 51 };

// An item: its read message, which those of writing and deleting follow, the TLV of data written, and its key.
struct Item {
  uint16_t read;
  uint8_t data;
  Bytes key;
};
Item nv(uint32_t item, uint8_t qualifier = 0, uint16_t index = 0) {
  return {0x0100, 0x04, tlv(0x01, bytes_of(item)) + tlv(0x02, {qualifier}) + tlv(0x03, u16(index))};
}
Item efs(uint32_t item, uint16_t qualifier = 0) {
  return {0x0103, 0x03, tlv(0x01, bytes_of(item)) + tlv(0x02, u16(qualifier))};
}
Item file(const std::string& path, uint16_t qualifier = 0, uint8_t index = 0) {
  return {0x0106, 0x04, tlv(0x01, Bytes(path.begin(), path.end())) + tlv(0x02, u16(qualifier)) + tlv(0x03, {index})};
}
Item rfnv(uint32_t item) {
  return {kReadRfnv, 0x02, tlv(0x01, bytes_of(item))};
}

class StorageTest : public testing::Test {
 protected:
  std::string path(const std::string& name) const { return directory_.path("storage/" + name); }
  void serve(const std::vector<std::string>& options = {}) {
    client_.reset();
    modem_.reset();
    modem_.emplace(directory_, options);
    client_.emplace(modem_->socket(), kVs);
  }

  uint16_t write(const Item& item, const Bytes& value) {
    return client_->ask(static_cast<uint16_t>(item.read + 1), item.key + tlv(item.data, u16(value.size()) + value))
        .error();
  }
  uint16_t remove(const Item& item) { return client_->ask(static_cast<uint16_t>(item.read + 2), item.key).error(); }
  uint16_t error_of_read(const Item& item) { return client_->ask(item.read, item.key).error(); }
  Bytes read(const Item& item) {
    const Bytes value = client_->ask(item.read, item.key).value(0x03);
    EXPECT_GE(value.size(), 2u);
    return value.size() < 2 ? Bytes() : Bytes(value.begin() + 2, value.end());
  }
  std::string text(const std::string& name) const {
    std::stringstream text;
    text << std::ifstream(path(name)).rdbuf();
    return text.str();
  }

  ScratchDirectory directory_;
  std::optional<SimProcess> modem_;
  std::optional<QmuxClient> client_;
};

TEST_F(StorageTest, ItemsAreReadableFilesAndOutliveTheProcess) {
  const Bytes value = {0x00, 0x7F, 0xFF};
  const struct {
    Item item;
    Bytes value;
    const char* name;
    std::string text;
  } cases[] = {
      {nv(4294967295, 2, 1), value, "nv/4294967295.2.1", "00 7f ff\n"},
      {nv(10, 0, 1), {}, "nv/10.0.1", ""},
      {efs(10, 65535), value, "efs/10.65535", "00 7f ff\n"},
      {rfnv(10), value, "rfnv/10", "00 7f ff\n"},
      {file("/nv//item_files/x"), value, "efs-path/0.0/nv/item_files/x", std::string("\0\x7F\xFF", 3)},
      {file("nv/item_files/x", 1, 2), Bytes(256, 'Z'), "efs-path/1.2/nv/item_files/x", std::string(256, 'Z')},
  };
  serve();
  for (const auto& each : cases) {
    EXPECT_EQ(error_of_read(each.item), kNoEntry);
    EXPECT_EQ(write(each.item, Bytes(257)), kTooLong);
    EXPECT_EQ(write(each.item, {1}), kNone);
    EXPECT_EQ(write(each.item, each.value), kNone);
    EXPECT_EQ(text(each.name), each.text);
  }
  EXPECT_EQ(error_of_read(nv(10, 1, 0)), kNoEntry) << "another qualifier is another item";
  EXPECT_EQ(error_of_read(file(std::string(101, 'x'))), kTooLong);
  EXPECT_EQ(client_->ask(0x010C, tlv(0x01, {0}) + tlv(0x02, {1, 0, 0, 0}) + tlv(0x03, {1, 0})).error(), kNone);
  serve();
  for (const auto& each : cases) {
    EXPECT_EQ(read(each.item), each.value) << each.name;
    EXPECT_EQ(remove(each.item), kNone);
    EXPECT_EQ(remove(each.item), kNoEntry);
  }
  EXPECT_EQ(write(file("nv"), {2}), kNone) << "the empty directory is gone, its name is free";
  serve();
  for (const auto& each : cases) EXPECT_EQ(error_of_read(each.item), kNoEntry) << each.name;
}

TEST_F(StorageTest, NoPathLeavesTheTree) {
  serve();
  for (const char* bad : {"", "/", "..", "../x", "a/../../x", "a/..", "./x", "a/./b", "x/", "a//"}) {
    EXPECT_EQ(write(file(bad), {1}), kInvalid) << bad;
    EXPECT_EQ(error_of_read(file(bad)), kInvalid) << bad;
    EXPECT_EQ(remove(file(bad)), kInvalid) << bad;
  }
  EXPECT_EQ(write(file("/etc/passwd"), {1}), kNone) << "absolute means from the tree's top";
  EXPECT_TRUE(fs::exists(path("efs-path/0.0/etc/passwd")));
  EXPECT_EQ(write(file("/etc/passwd/below"), {1}), kInvalid);
  EXPECT_EQ(write(file("etc"), {1}), kInvalid) << "a directory";
}

TEST_F(StorageTest, SymbolicLinksAreNotFollowed) {
  std::ofstream(directory_.path("secret")) << "01";
  for (const char* name : {"efs-path/0.0", "nv"}) fs::create_directories(path(name));
  for (const char* name : {"efs-path/0.0/file", "nv/1.0.0"}) fs::create_symlink(directory_.path("secret"), path(name));
  fs::create_symlink(directory_.path(""), path("efs-path/0.0/link"));
  serve();
  EXPECT_EQ(write(file("link/secret"), {1}), kInvalid);
  for (const char* name : {"link/secret", "file"}) EXPECT_EQ(error_of_read(file(name)), kNoEntry);
  EXPECT_EQ(error_of_read(nv(1)), kNoEntry);
  EXPECT_EQ(write(file("file"), {1}), kNone) << "replaces the link itself";
  EXPECT_EQ(text("../secret"), "01");
}

TEST_F(StorageTest, AFullStorageTakesOldEntriesOnly) {
  serve({"--max-entries", "2"});
  EXPECT_EQ(write(nv(1), {1}), kNone);
  EXPECT_EQ(write(file("a"), {1}), kNone);
  EXPECT_EQ(write(nv(2), {1}), kFull);
  EXPECT_EQ(write(file("d/b"), {1}), kFull);
  EXPECT_FALSE(fs::exists(path("efs-path/0.0/d")));
  EXPECT_EQ(write(nv(1), {2}), kNone);
  EXPECT_EQ(remove(file("a")), kNone);
  EXPECT_EQ(write(rfnv(2), {1}), kNone);
  EXPECT_EQ(remove(nv(1)), kNone);
  EXPECT_EQ(write(efs(2), {1}), kNone);
}

TEST_F(StorageTest, StrangeFilesAreLeftAlone) {
  fs::create_directories(path("nv/1.0.0"));
  fs::create_directories(path("efs-path/0.0"));
  const std::pair<const char*, std::string> files[] = {
      {"nv/2.0.0", "no hex"}, {"nv/3.0", "01"},
      {"nv/3.0.0.0", "01"},   {"nv/03.0.0", "01"},
      {"nv/4.0.70000", "01"}, {"nv/5.0.0", std::string(5000, '0')},
      {"efs-path/file", "x"}, {"efs-path/0.0/big", std::string(257, 'x')}};
  for (const auto& [name, text] : files) std::ofstream(path(name)) << text;
  std::ofstream(path("nv/6.0.0")) << "0a0B\n\n 0c";
  ASSERT_EQ(mkfifo(path("efs-path/0.0/pipe").c_str(), 0600), 0);
  serve();
  EXPECT_EQ(modem_->value("status", "/storage/nv"), 1);
  EXPECT_EQ(modem_->value("status", "/storage/efs_paths"), 0);
  EXPECT_EQ(read(nv(6)), (Bytes{10, 11, 12}));
  EXPECT_EQ(text("nv/2.0.0"), "no hex");
}

TEST_F(StorageTest, IsNotUsedWhereADirectoryCannotBeRead) {
  for (const std::string name : {"nv", "efs", "rfnv", "efs-path", "efs-path/7.1"}) {
    const ScratchDirectory directory;
    fs::create_directories(fs::path(directory.path(name)).parent_path());
    fs::create_symlink(directory.path(name), directory.path(name));
    const Outcome outcome =
        run_program({MODEM_SIM, "serve", "--socket", directory.path("q"), "--storage", directory.path("")});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("open " + name + ' '), std::string::npos) << outcome.output;
  }
}

TEST_F(StorageTest, AWriteThatTheSystemRefusesLeavesTheOldContent) {
  serve();
  EXPECT_EQ(write(rfnv(10), {'a'}), kNone);
  const rlimit small = {0, 0};
  ASSERT_EQ(prlimit(modem_->process(), RLIMIT_FSIZE, &small, nullptr), 0);
  EXPECT_EQ(write(rfnv(10), {'b', 'c'}), kFull);
  EXPECT_EQ(read(rfnv(10)), Bytes{'a'});
  EXPECT_EQ(text("rfnv/10"), "61\n");
}

}  // namespace

}  // namespace pelmar::sim::test
