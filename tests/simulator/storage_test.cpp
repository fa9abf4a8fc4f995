// What is kept, where it is on disk, and that no path leaves its tree.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "qmux_client.h"
#include "sim_process.h"
#include "storage/storage.h"

namespace pelmar::sim::test {

namespace {

namespace fs = std::filesystem;

constexpr QmiError kNone = QMI_ERR_NONE_V01;
constexpr QmiError kNoEntry = QMI_ERR_NO_ENTRY_V01;
constexpr QmiError kInvalid = QMI_ERR_INVALID_ARG_V01;
constexpr QmiError kFull = QMI_ERR_DEVICE_STORAGE_FULL_V01;

std::string file_text(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

Bytes read(auto& store, const auto& key) {
  std::span<const uint8_t> bytes;
  EXPECT_EQ(store.read(key, bytes), kNone);
  return {bytes.begin(), bytes.end()};
}

QmiError error_of_read(auto& store, const auto& key) {
  std::span<const uint8_t> bytes;
  return store.read(key, bytes);
}

class StorageTest : public testing::Test {
 protected:
  std::string path(const std::string& name) const { return directory_.path("s/" + name); }

  ScratchDirectory directory_;
};

TEST_F(StorageTest, ItemsAreReadableFilesAndOutliveTheProcess) {
  const Bytes value = {0x00, 0x7F, 0xFF};
  Bytes largest(256, 0x5A);
  {
    Storage storage(path(""));
    EXPECT_EQ(storage.nv.write({4294967295, 2, 1}, value), kNone);
    EXPECT_EQ(storage.nv.write({10, 0, 0}, largest), kNone);
    EXPECT_EQ(storage.nv.write({10, 0, 1}, {}), kNone);
    EXPECT_EQ(storage.efs.write({10, 65535, 0}, value), kNone);
    EXPECT_EQ(storage.rfnv.write({10, 0, 0}, value), kNone);
    EXPECT_EQ(storage.files.write({"/nv//item_files/x", 0, 0}, value), kNone);
    EXPECT_EQ(storage.files.write({"nv/item_files/x", 1, 2}, largest), kNone);
    EXPECT_EQ(error_of_read(storage.nv, ItemStore::Key{10, 1, 0}), kNoEntry) << "another qualifier is another item";
  }
  EXPECT_EQ(file_text(path("nv/4294967295.2.1")), "00 7f ff\n");
  EXPECT_EQ(file_text(path("efs/10.65535")), "00 7f ff\n");
  EXPECT_EQ(file_text(path("rfnv/10")), "00 7f ff\n");
  EXPECT_EQ(file_text(path("efs-path/0.0/nv/item_files/x")), std::string("\0\x7F\xFF", 3));

  Storage storage(path(""));
  EXPECT_EQ(read(storage.nv, ItemStore::Key{4294967295, 2, 1}), value);
  EXPECT_EQ(read(storage.nv, ItemStore::Key{10, 0, 0}), largest);
  EXPECT_EQ(read(storage.nv, ItemStore::Key{10, 0, 1}), Bytes());
  EXPECT_EQ(read(storage.efs, ItemStore::Key{10, 65535, 0}), value);
  EXPECT_EQ(read(storage.rfnv, ItemStore::Key{10, 0, 0}), value);
  EXPECT_EQ(read(storage.files, FileTree::Key{"/nv/item_files/x", 0, 0}), value);
  EXPECT_EQ(read(storage.files, FileTree::Key{"nv/item_files/x", 1, 2}), largest);
}

TEST_F(StorageTest, ADeletedEntryIsGoneForGood) {
  {
    Storage storage(path(""));
    EXPECT_EQ(storage.nv.remove({1, 0, 0}), kNoEntry);
    EXPECT_EQ(storage.files.remove({"a/b/c", 0, 0}), kNoEntry);
    EXPECT_EQ(storage.nv.write({1, 0, 0}, Bytes{1}), kNone);
    EXPECT_EQ(storage.files.write({"a/b/c", 0, 0}, Bytes{1}), kNone);
    EXPECT_EQ(storage.nv.remove({1, 0, 0}), kNone);
    EXPECT_EQ(storage.files.remove({"a/b/c", 0, 0}), kNone);
    EXPECT_EQ(storage.files.write({"a", 0, 0}, Bytes{2}), kNone) << "the directory's name is free again";
  }
  Storage storage(path(""));
  EXPECT_EQ(error_of_read(storage.nv, ItemStore::Key{1, 0, 0}), kNoEntry);
  EXPECT_EQ(error_of_read(storage.files, FileTree::Key{"a/b/c", 0, 0}), kNoEntry);
}

TEST_F(StorageTest, NoPathLeavesTheTree) {
  Storage storage(path(""));
  for (const char* bad : {"", "/", "..", "../x", "a/../../x", "a/..", "./x", "a/./b", "x/", "a//"}) {
    EXPECT_EQ(storage.files.write({bad, 0, 0}, Bytes{1}), kInvalid) << bad;
    EXPECT_EQ(error_of_read(storage.files, FileTree::Key{bad, 0, 0}), kInvalid) << bad;
    EXPECT_EQ(storage.files.remove({bad, 0, 0}), kInvalid) << bad;
  }
  EXPECT_EQ(storage.files.write({"/etc/passwd", 0, 0}, Bytes{1}), kNone) << "absolute means from the tree's top";
  EXPECT_TRUE(fs::exists(path("efs-path/0.0/etc/passwd")));

  EXPECT_EQ(storage.files.write({"file", 0, 0}, Bytes{1}), kNone);
  EXPECT_EQ(storage.files.write({"file/below", 0, 0}, Bytes{1}), kInvalid);
  EXPECT_EQ(storage.files.write({"etc", 0, 0}, Bytes{1}), kInvalid) << "a directory";
}

TEST_F(StorageTest, SymbolicLinksAreNotFollowed) {
  fs::create_directories(directory_.path("outside"));
  std::ofstream(directory_.path("outside/secret")) << "secret";
  fs::create_directories(path("efs-path/0.0"));
  fs::create_symlink(directory_.path("outside"), path("efs-path/0.0/link"));
  fs::create_symlink(directory_.path("outside/secret"), path("efs-path/0.0/file"));
  fs::create_directories(path("nv"));
  fs::create_symlink(directory_.path("outside/secret"), path("nv/1.0.0"));

  Storage storage(path(""));
  EXPECT_EQ(storage.files.write({"link/secret", 0, 0}, Bytes{1}), kInvalid);
  EXPECT_EQ(error_of_read(storage.files, FileTree::Key{"link/secret", 0, 0}), kNoEntry);
  EXPECT_EQ(error_of_read(storage.files, FileTree::Key{"file", 0, 0}), kNoEntry);
  EXPECT_EQ(error_of_read(storage.nv, ItemStore::Key{1, 0, 0}), kNoEntry);
  EXPECT_EQ(storage.files.write({"file", 0, 0}, Bytes{1}), kNone) << "replaces the link itself";
  EXPECT_EQ(file_text(directory_.path("outside/secret")), "secret");
}

TEST_F(StorageTest, AFullStorageTakesOldEntriesOnly) {
  Storage storage(path(""), 2);
  EXPECT_EQ(storage.nv.write({1, 0, 0}, Bytes{1}), kNone);
  EXPECT_EQ(storage.files.write({"a", 0, 0}, Bytes{1}), kNone);
  EXPECT_EQ(storage.nv.write({2, 0, 0}, Bytes{1}), kFull);
  EXPECT_EQ(storage.files.write({"d/b", 0, 0}, Bytes{1}), kFull);
  EXPECT_FALSE(fs::exists(path("efs-path/0.0/d")));
  EXPECT_EQ(storage.nv.write({1, 0, 0}, Bytes{2}), kNone);
  EXPECT_EQ(storage.files.remove({"a", 0, 0}), kNone);
  EXPECT_EQ(storage.rfnv.write({2, 0, 0}, Bytes{1}), kNone);
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
  Storage storage(path(""));
  EXPECT_EQ(storage.nv.count(), 1u);
  EXPECT_EQ(storage.files.count(), 0u);
  EXPECT_EQ(read(storage.nv, ItemStore::Key{6, 0, 0}), (Bytes{10, 11, 12}));
  EXPECT_EQ(file_text(path("nv/2.0.0")), "no hex");
}

TEST_F(StorageTest, IsNotUsedWhereADirectoryCannotBeRead) {
  for (const char* const name : {"nv", "efs", "rfnv", "efs-path", "efs-path/7.1"}) {
    const ScratchDirectory directory;
    const std::string top = directory.path("s/");
    fs::create_directories(fs::path(top + name).parent_path());
    fs::create_symlink(top + name, top + name);
    try {
      Storage storage(top);
      ADD_FAILURE() << name;
    } catch (const std::runtime_error& error) {
      EXPECT_NE(std::string(error.what()).find(std::string("open ") + name + ' '), std::string::npos) << error.what();
    }
  }
}

TEST_F(StorageTest, AWriteThatTheSystemRefusesLeavesTheOldContent) {
  SimProcess modem(directory_);
  QmuxClient client(modem.socket());
  const uint8_t id = client.allocate(0xE4);
  const auto write = [&](const Bytes& value) {
    return client.ask(0xE4, id, 0x010A, tlv(0x01, {10, 0, 0, 0}) + tlv(0x02, value)).error();
  };
  EXPECT_EQ(write({1, 0, 'a'}), 0);
  const rlimit small = {0, 0};
  ASSERT_EQ(prlimit(modem.process(), RLIMIT_FSIZE, &small, nullptr), 0);
  EXPECT_EQ(write({2, 0, 'b', 'c'}), kFull);
  EXPECT_EQ(client.ask(0xE4, id, 0x0109, tlv(0x01, {10, 0, 0, 0})).value(0x03), (Bytes{1, 0, 'a'}));
  EXPECT_EQ(file_text(directory_.path("storage/rfnv/10")), "61\n");
}

TEST_F(StorageTest, TheServiceAnswersFromIt) {
  SimProcess modem(directory_);
  QmuxClient client(modem.socket());
  const uint8_t id = client.allocate(0xE4);
  const Bytes nv_key = tlv(0x01, {10, 0, 0, 0}) + tlv(0x02, {1}) + tlv(0x03, {2, 0});
  const Bytes path_key = tlv(0x01, {'a', '/', 'b'}) + tlv(0x02, {0, 0}) + tlv(0x03, {0});
  const Bytes data = {3, 0, 'a', 'b', 'c'};
  const struct {
    Bytes key;
    uint16_t read, write, remove;
    uint8_t data_tlv;
  } families[] = {{nv_key, 0x0100, 0x0101, 0x0102, 0x04},
                  {tlv(0x01, {10, 0, 0, 0}) + tlv(0x02, {2, 0}), 0x0103, 0x0104, 0x0105, 0x03},
                  {path_key, 0x0106, 0x0107, 0x0108, 0x04},
                  {tlv(0x01, {10, 0, 0, 0}), 0x0109, 0x010A, 0x010B, 0x02}};
  for (const auto& family : families) {
    const auto ask = [&](uint16_t message, const Bytes& more) {
      return client.ask(0xE4, id, message, family.key + more);
    };
    EXPECT_EQ(ask(family.read, {}).error(), 50) << family.read;
    EXPECT_EQ(ask(family.write, tlv(family.data_tlv, data)).error(), 0) << family.write;
    EXPECT_EQ(ask(family.read, {}).value(0x03), data) << family.read;
    EXPECT_EQ(ask(family.remove, {}).error(), 0) << family.remove;
    EXPECT_EQ(ask(family.remove, {}).error(), 50) << family.remove;
    Bytes too_long = {1, 1};
    too_long.resize(2 + 257);
    EXPECT_EQ(ask(family.write, tlv(family.data_tlv, too_long)).error(), 19) << family.write;
    EXPECT_EQ(ask(family.write, {}).error(), 17) << family.write;
  }
  const Bytes long_path = tlv(0x01, Bytes(101, 'x')) + tlv(0x02, {0, 0}) + tlv(0x03, {0});
  EXPECT_EQ(client.ask(0xE4, id, 0x0106, long_path).error(), 19);
  EXPECT_EQ(client.ask(0xE4, id, 0x010C, tlv(0x01, {0}) + tlv(0x02, {1, 0, 0, 0}) + tlv(0x03, {1, 0})).error(), 0);
}

}  // namespace

}  // namespace pelmar::sim::test
