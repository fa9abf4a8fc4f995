#include "client_id_record.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>
#include <sstream>
#include <thread>

#include "deadline.h"
#include "environment.h"
#include "state_directory.h"
#include "unique_fd.h"
#include "unix_address.h"

namespace pelmar::platform {
namespace {

// A process that was stopped while it holds the lock must not stop all others.
constexpr Deadline::Milliseconds kLockTimeout{200};

constexpr size_t kMostEntries = 256;
constexpr size_t kMostBytes = 1 << 16;
constexpr size_t kBlockBytes = 4096;

struct Owner {
  std::string boot;
  std::string pid_namespace;
  pid_t process = 0;  // 0: abandoned
  uint64_t start = 0;
  bool operator==(const Owner&) const = default;
};

struct Entry {
  Owner owner;
  ClientIdRecord::Id id;
  std::string modem;
};

std::string link_target(const char* path) {
  char target[64];
  const ssize_t length = ::readlink(path, target, sizeof target);
  return length > 0 ? std::string(target, static_cast<size_t>(length)) : "-";
}

std::string contents(const std::string& path) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  char bytes[1024];
  const ssize_t length = file ? ::read(file.get(), bytes, sizeof bytes) : -1;
  return length > 0 ? std::string(bytes, static_cast<size_t>(length)) : "";
}

std::string boot_id() {
  std::string id = contents("/proc/sys/kernel/random/boot_id");
  id.erase(std::min(id.find('\n'), id.size()));
  return id;
}

// In clock ticks since the boot; 0 for a process that is dead, nothing where that cannot be told. The first thread of a
// live process may have ended.
std::optional<uint64_t> start_of(pid_t process) {
  if (::kill(process, 0) != 0 && errno == ESRCH) return 0;
  const std::string stat = contents("/proc/" + std::to_string(process) + "/stat");
  const size_t name_end = stat.rfind(')');
  if (name_end == std::string::npos) return std::nullopt;
  std::istringstream rest(stat.substr(name_end + 1));
  std::string state, skipped;
  uint64_t threads = 0, start = 0;
  rest >> state;
  for (int field = 4; field < 20; ++field) rest >> skipped;
  rest >> threads >> skipped >> start;
  if (!rest) return std::nullopt;
  return (state == "Z" || state == "X") && threads <= 1 ? 0 : start;
}

Owner this_process() {
  const pid_t process = ::getpid();
  return {boot_id(), link_target("/proc/self/ns/pid"), process, start_of(process).value_or(0)};
}

// What happens to a process of another pid namespace cannot be seen from here.
bool is_abandoned(const Owner& owner, const Owner& self) {
  if (owner.process == 0) return true;
  return owner.pid_namespace == self.pid_namespace && start_of(owner.process).value_or(owner.start) != owner.start;
}

// Tells a file from its successor of the same name.
std::string identity_of(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return "-";
  return std::to_string(status.st_dev) + '.' + std::to_string(status.st_ino) + '.' +
         std::to_string(status.st_ctim.tv_sec) + '.' + std::to_string(status.st_ctim.tv_nsec);
}

// Of a path that is a field of its own in an entry.
std::string escape(const std::string& text) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string escaped;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte > ' ' && byte != '%' && byte != ',' && byte != 0x7F) {
      escaped += c;
    } else {
      escaped.append({'%', kDigits[byte >> 4], kDigits[byte & 0xF]});
    }
  }
  return escaped;
}

// $XDG_RUNTIME_DIR ends with the user's last session, and client ids outlive no boot.
UniqueFd open_place() {
  if (const std::string runtime = environment_path("XDG_RUNTIME_DIR"); !runtime.empty()) {
    if (UniqueFd place = open_private_directory(runtime + "/pelmar", IfMissing::kMake)) return place;
  }
  return open_state_directory("client-ids", IfMissing::kMake);
}

bool is_own(int file, mode_t type, mode_t forbidden) {
  struct stat status {};
  return ::fstat(file, &status) == 0 && (status.st_mode & S_IFMT) == type && status.st_uid == ::geteuid() &&
         (status.st_mode & forbidden) == 0;
}

bool lock(int file) {
  const Deadline deadline = Deadline::after(kLockTimeout);
  while (::flock(file, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK || deadline.has_passed()) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

UniqueFd open_locked() {
  const UniqueFd place = open_place();
  if (!place || !is_own(place.get(), S_IFDIR, S_IWGRP | S_IWOTH)) return UniqueFd();
  UniqueFd file(
      ::openat(place.get(), "client-ids", O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!file || !is_own(file.get(), S_IFREG, S_IRWXG | S_IRWXO) || !lock(file.get())) return UniqueFd();
  return file;
}

// What is no entry, or one of another boot, is left out.
std::vector<Entry> read_entries(int file, const std::string& boot) {
  struct stat status {};
  if (::fstat(file, &status) != 0) return {};
  std::string text(std::min(static_cast<size_t>(status.st_size), kMostBytes), '\0');
  const ssize_t length = ::pread(file, text.data(), text.size(), 0);
  text.resize(length > 0 ? static_cast<size_t>(length) : 0);
  text.erase(text.find_last_not_of(' ') + 1);  // what fills the last block
  std::vector<Entry> entries;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    Entry entry;
    unsigned service = 0, client = 0;
    fields >> entry.owner.boot >> entry.owner.pid_namespace >> entry.owner.process >> entry.owner.start >> service >>
        client >> entry.modem;
    if (!fields || entry.owner.boot != boot || service > UINT8_MAX || client > UINT8_MAX) continue;
    entry.id = {static_cast<uint8_t>(service), static_cast<uint8_t>(client)};
    entries.push_back(std::move(entry));
  }
  return entries;
}

// In whole blocks that are filled with blanks: the file never shrinks, and one write replaces it.
void write_entries(int file, const std::vector<Entry>& entries) {
  std::ostringstream text;
  for (const Entry& entry : entries) {
    text << entry.owner.boot << ' ' << entry.owner.pid_namespace << ' ' << entry.owner.process << ' '
         << entry.owner.start << ' ' << unsigned{entry.id.service} << ' ' << unsigned{entry.id.client} << ' '
         << entry.modem << '\n';
  }
  std::string bytes = text.str();
  struct stat status {};
  if (::fstat(file, &status) != 0 || bytes.size() > kMostBytes) return;
  const size_t blocks = (bytes.size() + kBlockBytes - 1) / kBlockBytes;
  bytes.resize(std::max(blocks * kBlockBytes, static_cast<size_t>(status.st_size)), ' ');
  // An id that stays taken harms less than one that is given back while another program uses it.
  if (::pwrite(file, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) ::ftruncate(file, 0);
}

// `change` takes the entries and this process, and says whether it changed any.
template <typename Change>
void update(const Change& change) {
  const Owner self = this_process();
  if (self.start == 0 || self.boot.empty()) return;  // no /proc: who is dead cannot be told
  const UniqueFd file = open_locked();
  if (!file) return;
  std::vector<Entry> entries = read_entries(file.get(), self.boot);
  if (change(entries, self)) write_entries(file.get(), entries);
  ::flock(file.get(), LOCK_UN);  // a child that was forked meanwhile has the descriptor, too
}

// Another modem's socket is not there any more, so nobody can use its entries.
bool is_past(const std::string& modem) {
  const size_t name_end = modem.find(',');
  const std::string socket = modem.substr(0, name_end);
  if (is_abstract(socket) || socket.find('%') != std::string::npos) return false;
  return modem.compare(name_end + 1, modem.find(',', name_end + 1) - name_end - 1, identity_of(socket)) != 0;
}

auto find_own(std::vector<Entry>& entries, const std::string& modem, ClientIdRecord::Id id, const Owner& self) {
  return std::find_if(entries.begin(), entries.end(), [&](const Entry& entry) {
    return entry.modem == modem && entry.id == id && entry.owner == self;
  });
}

std::vector<ClientIdRecord::Id> take_over(std::vector<Entry>& entries, const std::string& modem, const Owner& self) {
  std::vector<ClientIdRecord::Id> ids;
  for (Entry& entry : entries) {
    if (entry.modem != modem || !is_abandoned(entry.owner, self)) continue;
    entry.owner = self;
    ids.push_back(entry.id);
  }
  return ids;
}

}  // namespace

ClientIdRecord::ClientIdRecord(const std::string& socket, const std::string& device)
    : modem_(escape(socket) + ',' + (is_abstract(socket) ? link_target("/proc/self/ns/net") : identity_of(socket)) +
             ',' + escape(device) + ',' + identity_of(device)) {}

std::vector<ClientIdRecord::Id> ClientIdRecord::add(Id id) const {
  std::vector<Id> abandoned;
  update([&](std::vector<Entry>& entries, const Owner& self) {
    const auto is_here = [&](const Entry& entry) { return entry.modem == modem_; };
    // What the modem gives out although it is taken was void, and whatever made it void may have done so to all.
    const auto is_same = [&](const Entry& entry) { return is_here(entry) && entry.id == id; };
    if (std::any_of(entries.begin(), entries.end(), is_same)) std::erase_if(entries, is_here);
    abandoned = take_over(entries, modem_, self);
    std::erase_if(entries, [&](const Entry& entry) { return !is_here(entry) && is_past(entry.modem); });
    if (entries.size() >= kMostEntries) entries.erase(entries.begin());
    entries.push_back({self, id, modem_});
    return true;
  });
  return abandoned;
}

bool ClientIdRecord::remove(Id id) const {
  bool was_there = true;
  update([&](std::vector<Entry>& entries, const Owner& self) {
    const auto own = find_own(entries, modem_, id, self);
    was_there = own != entries.end();
    if (was_there) entries.erase(own);
    return was_there;
  });
  return was_there;
}

void ClientIdRecord::abandon(Id id) const {
  update([&](std::vector<Entry>& entries, const Owner& self) {
    const auto own = find_own(entries, modem_, id, self);
    if (own != entries.end()) own->owner.process = 0;
    return own != entries.end();
  });
}

std::vector<ClientIdRecord::Id> ClientIdRecord::take_abandoned() const {
  std::vector<Id> abandoned;
  update([&](std::vector<Entry>& entries, const Owner& self) {
    abandoned = take_over(entries, modem_, self);
    return !abandoned.empty();
  });
  return abandoned;
}

void ClientIdRecord::clear() const {
  update([&](std::vector<Entry>& entries, const Owner&) {
    return std::erase_if(entries, [&](const Entry& entry) { return entry.modem == modem_; }) > 0;
  });
}

}  // namespace pelmar::platform
