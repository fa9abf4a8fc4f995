// Stored items: their files on disk, and paths that must not leave the directory.
#include <sys/resource.h>

#include <fstream>
#include <optional>

#include "simulator_test.h"

namespace pelmar::sim::test {

namespace {

namespace fs = std::filesystem;

enum Error : uint16_t { kNone = 0, kTooLong = 19, kInvalid = 48, kNoEntry = 50, kFull = 51 };

// All items are stored in the same way; these tests use EFS paths.
class StorageTest : public testing::Test {
 protected:
  static constexpr uint16_t kRead = 0x0106, kWrite = 0x0107, kDelete = 0x0108;

  std::string path(const std::string& name) const { return directory_.path("storage/efs-path/0.0/" + name); }
  void serve(const std::vector<std::string>& options = {}) {
    client_.reset();
    modem_.reset();
    modem_.emplace(directory_, options);
    client_.emplace(modem_->socket(), kVs);
  }

  Received exchange(uint16_t message, const std::string& name, const Bytes& data = {}) {
    return client_->exchange(message,
                             tlv(0x01, Bytes(name.begin(), name.end())) + tlv(0x02, u16(0)) + tlv(0x03, {0}) + data);
  }
  uint16_t write(const std::string& name, const Bytes& value) {
    return exchange(kWrite, name, tlv(0x04, u16(value.size()) + value)).error();
  }
  uint16_t remove(const std::string& name) { return exchange(kDelete, name).error(); }
  uint16_t error_of_read(const std::string& name) { return exchange(kRead, name).error(); }
  Bytes read(const std::string& name) { return exchange(kRead, name).value(0x03); }
  ScratchDirectory directory_;
  std::optional<SimProcess> modem_;
  std::optional<QmuxClient> client_;
};

TEST_F(StorageTest, ItemsAreFilesAndRemainAfterTheProcess) {
  serve();
  for (const char* name : {"/nv//item_files/x", "y"}) {
    EXPECT_EQ(error_of_read(name), kNoEntry);
    EXPECT_EQ(write(name, Bytes(257)), kTooLong);
    EXPECT_EQ(write(name, {1}), kNone);
    EXPECT_EQ(write(name, Bytes(256, 'Z')), kNone);
  }
  EXPECT_EQ(fs::file_size(path("nv/item_files/x")), 256u);
  serve();
  for (const char* name : {"nv/item_files/x", "y"}) {
    EXPECT_EQ(read(name), u16(256) + Bytes(256, 'Z'));
    EXPECT_EQ(remove(name), kNone);
    EXPECT_EQ(remove(name), kNoEntry);
  }
  EXPECT_EQ(write("nv", {2}), kNone) << "the empty directory was removed, so its name is free";
}

TEST_F(StorageTest, NoPathAndNoSymbolicLinkLeavesTheTree) {
  std::ofstream(directory_.path("secret")) << "01";
  fs::create_directories(path(""));
  fs::create_symlink(directory_.path("secret"), path("file"));
  fs::create_symlink(directory_.path(""), path("link"));
  serve();
  for (const char* bad : {"", "/", "..", "../x", "a/../../x", "a/..", "./x", "x/"}) {
    EXPECT_EQ(write(bad, {1}), kInvalid) << bad;
    EXPECT_EQ(error_of_read(bad), kInvalid) << bad;
    EXPECT_EQ(remove(bad), kInvalid) << bad;
  }
  EXPECT_EQ(write("link/secret", {1}), kInvalid);
  for (const char* name : {"link/secret", "file"}) EXPECT_EQ(error_of_read(name), kNoEntry);
  EXPECT_EQ(write("file", {1}), kNone) << "replaces the link itself";
  EXPECT_EQ(fs::file_size(directory_.path("secret")), 2u);
  EXPECT_EQ(write("/etc/passwd", {1}), kNone) << "an absolute path starts at the directory of the storage";
  EXPECT_TRUE(fs::exists(path("etc/passwd")));
  EXPECT_EQ(write("/etc/passwd/below", {1}), kInvalid);
}

TEST_F(StorageTest, AFullStorageAcceptsOnlyExistingEntries) {
  serve({"--max-entries", "1"});
  EXPECT_EQ(write("a", {1}), kNone);
  EXPECT_EQ(write("d/b", {1}), kFull);
  EXPECT_FALSE(fs::exists(path("d")));
  EXPECT_EQ(write("a", {2}), kNone);
  EXPECT_EQ(remove("a"), kNone);
  EXPECT_EQ(write("d/b", {1}), kNone);
}

TEST_F(StorageTest, AFailedWriteKeepsTheOldContent) {
  serve();
  EXPECT_EQ(write("a", {'a'}), kNone);
  const rlimit small = {0, 0};
  ASSERT_EQ(prlimit(modem_->process(), RLIMIT_FSIZE, &small, nullptr), 0);
  EXPECT_EQ(write("a", {'b', 'c'}), kFull);
  EXPECT_EQ(read("a"), u16(1) + Bytes{'a'});
  EXPECT_EQ(fs::file_size(path("a")), 1u);
}

}  // namespace

}  // namespace pelmar::sim::test
