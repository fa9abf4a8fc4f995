// What is kept, where it is on disk, and that no path leaves its tree.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include "qmux_client.h"
#include "sim_process.h"

namespace pelmar::sim::test {

namespace {

namespace fs = std::filesystem;

enum Error : uint16_t { kNone = 0, kTooLong = 19, kInvalid = 48, kNoEntry = 50, kFull = 51 };

Bytes item_key(uint32_t item) {
  return tlv(0x01, bytes_of(item));
}
Bytes efs_key(uint32_t item, uint16_t qualifier) {
  return item_key(item) + tlv(0x02, bytes_of(qualifier));
}
Bytes nv_key(uint32_t item, uint8_t qualifier, uint16_t index) {
  return item_key(item) + tlv(0x02, {qualifier}) + tlv(0x03, bytes_of(index));
}
Bytes file_key(const std::string& path, uint16_t qualifier = 0, uint8_t index = 0) {
  return tlv(0x01, Bytes(path.begin(), path.end())) + tlv(0x02, bytes_of(qualifier)) + tlv(0x03, {index});
}

// A kind of item: its read message, which those of writing and deleting follow, and the TLV of data written.
struct Kind {
  uint16_t read;
  uint8_t data;
};
constexpr Kind kNv = {0x0100, 0x04};
constexpr Kind kEfs = {0x0103, 0x03};
constexpr Kind kFile = {0x0106, 0x04};
constexpr Kind kRfnv = {0x0109, 0x02};

class StorageTest : public testing::Test {
 protected:
  StorageTest() { fs::create_directories(path("")); }

  std::string path(const std::string& name) const { return directory_.path("storage/" + name); }
  void serve(const std::vector<std::string>& options = {}) {
    client_.reset();
    modem_.reset();
    modem_ = std::make_unique<SimProcess>(directory_, options);
    client_ = std::make_unique<ServiceClient>(modem_->socket(), kVs);
  }

  uint16_t write(const Kind& kind, const Bytes& key, const Bytes& value) {
    const Bytes data = tlv(kind.data, bytes_of(static_cast<uint16_t>(value.size())) + value);
    return client_->ask(static_cast<uint16_t>(kind.read + 1), key + data).error();
  }
  uint16_t remove(const Kind& kind, const Bytes& key) {
    return client_->ask(static_cast<uint16_t>(kind.read + 2), key).error();
  }
  uint16_t error_of_read(const Kind& kind, const Bytes& key) { return client_->ask(kind.read, key).error(); }
  Bytes read(const Kind& kind, const Bytes& key) {
    const Bytes value = client_->ask(kind.read, key).value(0x03);
    EXPECT_GE(value.size(), 2u);
    return value.size() < 2 ? Bytes() : Bytes(value.begin() + 2, value.end());
  }
  std::string text(const std::string& name) const {
    std::stringstream text;
    text << std::ifstream(path(name)).rdbuf();
    return text.str();
  }

  ScratchDirectory directory_;
  std::unique_ptr<SimProcess> modem_;
  std::unique_ptr<ServiceClient> client_;
};

TEST_F(StorageTest, ItemsAreReadableFilesAndOutliveTheProcess) {
  const Bytes value = {0x00, 0x7F, 0xFF};
  const struct {
    const Kind& kind;
    Bytes key, value;
    const char* file;
    std::string text;
  } cases[] = {
      {kNv, nv_key(4294967295, 2, 1), value, "nv/4294967295.2.1", "00 7f ff\n"},
      {kNv, nv_key(10, 0, 1), {}, "nv/10.0.1", ""},
      {kEfs, efs_key(10, 65535), value, "efs/10.65535", "00 7f ff\n"},
      {kRfnv, item_key(10), value, "rfnv/10", "00 7f ff\n"},
      {kFile, file_key("/nv//item_files/x"), value, "efs-path/0.0/nv/item_files/x", std::string("\0\x7F\xFF", 3)},
      {kFile, file_key("nv/item_files/x", 1, 2), Bytes(256, 'Z'), "efs-path/1.2/nv/item_files/x",
       std::string(256, 'Z')},
  };
  serve();
  for (const auto& each : cases) {
    EXPECT_EQ(error_of_read(each.kind, each.key), kNoEntry);
    EXPECT_EQ(write(each.kind, each.key, Bytes(257)), kTooLong);
    EXPECT_EQ(write(each.kind, each.key, {1}), kNone);
    EXPECT_EQ(write(each.kind, each.key, each.value), kNone);
    EXPECT_EQ(text(each.file), each.text);
  }
  EXPECT_EQ(error_of_read(kNv, nv_key(10, 1, 0)), kNoEntry) << "another qualifier is another item";
  EXPECT_EQ(error_of_read(kFile, file_key(std::string(101, 'x'))), kTooLong);
  EXPECT_EQ(client_->ask(0x010C, tlv(0x01, {0}) + tlv(0x02, {1, 0, 0, 0}) + tlv(0x03, {1, 0})).error(), kNone);
  serve();
  for (const auto& each : cases) {
    EXPECT_EQ(read(each.kind, each.key), each.value) << each.file;
    EXPECT_EQ(remove(each.kind, each.key), kNone);
    EXPECT_EQ(remove(each.kind, each.key), kNoEntry);
  }
  EXPECT_EQ(write(kFile, file_key("nv"), {2}), kNone) << "the empty directory is gone, its name is free";
  serve();
  for (const auto& each : cases) EXPECT_EQ(error_of_read(each.kind, each.key), kNoEntry) << each.file;
}

TEST_F(StorageTest, NoPathLeavesTheTree) {
  serve();
  for (const char* bad : {"", "/", "..", "../x", "a/../../x", "a/..", "./x", "a/./b", "x/", "a//"}) {
    EXPECT_EQ(write(kFile, file_key(bad), {1}), kInvalid) << bad;
    EXPECT_EQ(error_of_read(kFile, file_key(bad)), kInvalid) << bad;
    EXPECT_EQ(remove(kFile, file_key(bad)), kInvalid) << bad;
  }
  EXPECT_EQ(write(kFile, file_key("/etc/passwd"), {1}), kNone) << "absolute means from the tree's top";
  EXPECT_TRUE(fs::exists(path("efs-path/0.0/etc/passwd")));
  EXPECT_EQ(write(kFile, file_key("/etc/passwd/below"), {1}), kInvalid);
  EXPECT_EQ(write(kFile, file_key("etc"), {1}), kInvalid) << "a directory";
}

TEST_F(StorageTest, SymbolicLinksAreNotFollowed) {
  std::ofstream(directory_.path("secret")) << "01";
  for (const char* name : {"efs-path/0.0", "nv"}) fs::create_directories(path(name));
  for (const char* name : {"efs-path/0.0/file", "nv/1.0.0"}) fs::create_symlink(directory_.path("secret"), path(name));
  fs::create_symlink(directory_.path(""), path("efs-path/0.0/link"));
  serve();
  EXPECT_EQ(write(kFile, file_key("link/secret"), {1}), kInvalid);
  for (const char* name : {"link/secret", "file"}) EXPECT_EQ(error_of_read(kFile, file_key(name)), kNoEntry);
  EXPECT_EQ(error_of_read(kNv, nv_key(1, 0, 0)), kNoEntry);
  EXPECT_EQ(write(kFile, file_key("file"), {1}), kNone) << "replaces the link itself";
  EXPECT_EQ(text("../secret"), "01");
}

TEST_F(StorageTest, AFullStorageTakesOldEntriesOnly) {
  serve({"--max-entries", "2"});
  EXPECT_EQ(write(kNv, nv_key(1, 0, 0), {1}), kNone);
  EXPECT_EQ(write(kFile, file_key("a"), {1}), kNone);
  EXPECT_EQ(write(kNv, nv_key(2, 0, 0), {1}), kFull);
  EXPECT_EQ(write(kFile, file_key("d/b"), {1}), kFull);
  EXPECT_FALSE(fs::exists(path("efs-path/0.0/d")));
  EXPECT_EQ(write(kNv, nv_key(1, 0, 0), {2}), kNone);
  EXPECT_EQ(remove(kFile, file_key("a")), kNone);
  EXPECT_EQ(write(kRfnv, item_key(2), {1}), kNone);
  EXPECT_EQ(remove(kNv, nv_key(1, 0, 0)), kNone);
  EXPECT_EQ(write(kEfs, efs_key(2, 0), {1}), kNone);
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
  EXPECT_EQ(modem_->value("status", "/storage/nv"), "1");
  EXPECT_EQ(modem_->value("status", "/storage/efs_paths"), "0");
  EXPECT_EQ(read(kNv, nv_key(6, 0, 0)), (Bytes{10, 11, 12}));
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
  EXPECT_EQ(write(kRfnv, item_key(10), {'a'}), kNone);
  const rlimit small = {0, 0};
  ASSERT_EQ(prlimit(modem_->process(), RLIMIT_FSIZE, &small, nullptr), 0);
  EXPECT_EQ(write(kRfnv, item_key(10), {'b', 'c'}), kFull);
  EXPECT_EQ(read(kRfnv, item_key(10)), Bytes{'a'});
  EXPECT_EQ(text("rfnv/10"), "61\n");
}

}  // namespace

}  // namespace pelmar::sim::test
