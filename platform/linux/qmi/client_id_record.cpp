#include "client_id_record.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <locale>
#include <optional>
#include <sstream>
#include <thread>

#include "deadline.h"
#include "environment.h"
#include "unique_fd.h"
#include "unix_socket.h"

namespace pelmar::platform {
namespace {

// A process that was stopped while it holds the lock must not block the others.
constexpr Deadline::Milliseconds kLockTimeout{200};

constexpr size_t kMostEntries = 256;
constexpr size_t kMostLineLength = 1024;
constexpr size_t kMostModemLength = 768;  // leaves room for the other fields of a line
constexpr size_t kMostBytes = kMostEntries * kMostLineLength;
constexpr size_t kBlockBytes = 4096;

struct Owner {
  std::string boot;
  std::string pid_namespace;
  pid_t process = 0;  // 0: abandoned
  uint64_t start = 0;
  uint64_t connection = 0;
  bool operator==(const Owner&) const = default;
};

struct Entry {
  Owner owner;
  ClientIdRecord::Id id;
  bool is_void;
  std::string modem;
};

// A stream whose numbers do not depend on the program's locale.
template <typename Stream>
Stream numbers(const std::string& text = "") {
  Stream stream(text);
  stream.imbue(std::locale::classic());
  return stream;
}

std::string link_target(const char* path) {
  char target[64];
  const ssize_t length = ::readlink(path, target, sizeof target);
  return length > 0 ? std::string(target, static_cast<size_t>(length)) : "-";
}

// In clock ticks since the boot; 0 for a dead process, nothing if it is unknown. The first thread of a live process may
// have ended. We read the thread's line, because qemu-user replaces the line of its own process.
std::optional<uint64_t> start_of(pid_t process) {
  if (::kill(process, 0) != 0 && errno == ESRCH) return 0;
  const std::string number = std::to_string(process);
  const std::string stat = read_small_file("/proc/" + number + "/task/" + number + "/stat");
  const size_t name_end = stat.rfind(')');
  if (name_end == std::string::npos) return std::nullopt;
  auto rest = numbers<std::istringstream>(stat.substr(name_end + 1));
  std::string state, skipped;
  uint64_t threads = 0, start = 0;
  rest >> state;
  for (int field = 4; field < 20; ++field) rest >> skipped;
  rest >> threads >> skipped >> start;
  if (!rest) return std::nullopt;
  return (state == "Z" || state == "X") && threads <= 1 ? 0 : start;
}

// The start is 0 if /proc is missing or shows another pid namespace: we cannot see then whether a process is dead.
Owner this_owner(uint64_t connection) {
  const pid_t process = ::getpid();
  const bool is_seen = link_target("/proc/self") == std::to_string(process);
  return {boot_id(), link_target("/proc/self/ns/pid"), process, is_seen ? start_of(process).value_or(0) : 0,
          connection};
}

// We cannot see whether a process of another pid namespace or another machine is dead.
bool is_abandoned(const Owner& owner, const Owner& self) {
  if (owner.boot != self.boot) return false;
  if (owner.process == 0) return true;
  return owner.pid_namespace == self.pid_namespace && start_of(owner.process).value_or(owner.start) != owner.start;
}

// Differs between a file and its successor of the same name.
std::string identity_of(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return "-";
  return std::to_string(status.st_dev) + '.' + std::to_string(status.st_ino) + '.' +
         std::to_string(status.st_ctim.tv_sec) + '.' + std::to_string(status.st_ctim.tv_nsec);
}

// Escapes a path for a field of an entry.
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

bool is_own(int file, mode_t type, mode_t forbidden) {
  struct stat status {};
  return ::fstat(file, &status) == 0 && (status.st_mode & S_IFMT) == type && status.st_uid == ::geteuid() &&
         (status.st_mode & forbidden) == 0;
}

bool lock(int file, const Deadline& until) {
  const Deadline deadline = earlier(until, Deadline::after(kLockTimeout));
  while (::flock(file, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK || deadline.has_passed()) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// The user's umask may let a group write to new directories.
bool make_private(int directory) {
  return is_own(directory, S_IFDIR, S_IWGRP | S_IWOTH) ||
         (is_own(directory, S_IFDIR, 0) && ::fchmod(directory, S_IRWXU) == 0);
}

UniqueFd open_locked(const Deadline& deadline) {
  const UniqueFd place = open_state_directory("client-ids", IfMissing::kMake);
  if (!place || !make_private(place.get())) return UniqueFd();
  UniqueFd file(
      ::openat(place.get(), "record", O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!file || !is_own(file.get(), S_IFREG, S_IRWXG | S_IRWXO) || !lock(file.get(), deadline)) return UniqueFd();
  return file;
}

// Skips lines that are no entries.
std::vector<Entry> read_entries(int file) {
  struct stat status {};
  if (::fstat(file, &status) != 0) return {};
  std::string text(std::min(static_cast<size_t>(status.st_size), kMostBytes), '\0');
  const ssize_t length = ::pread(file, text.data(), text.size(), 0);
  text.resize(length > 0 ? static_cast<size_t>(length) : 0);
  std::vector<Entry> entries;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    auto fields = numbers<std::istringstream>(line);
    Entry entry{};
    unsigned service = 0, client = 0;
    fields >> entry.owner.boot >> entry.owner.pid_namespace >> entry.owner.process >> entry.owner.start >>
        entry.owner.connection >> service >> client >> entry.is_void >> entry.modem;
    if (!fields || line.size() > kMostLineLength || service > UINT8_MAX || client > UINT8_MAX) continue;
    entry.id = {static_cast<uint8_t>(service), static_cast<uint8_t>(client)};
    entries.push_back(std::move(entry));
    if (entries.size() == kMostEntries) break;
  }
  return entries;
}

// Writes whole blocks, filled with blanks, so that the file never shrinks and one write replaces it.
void write_entries(int file, const std::vector<Entry>& entries) {
  auto text = numbers<std::ostringstream>();
  for (const Entry& entry : entries) {
    text << entry.owner.boot << ' ' << entry.owner.pid_namespace << ' ' << entry.owner.process << ' '
         << entry.owner.start << ' ' << entry.owner.connection << ' ' << unsigned{entry.id.service} << ' '
         << unsigned{entry.id.client} << ' ' << entry.is_void << ' ' << entry.modem << '\n';
  }
  std::string bytes = text.str();
  struct stat status {};
  if (::fstat(file, &status) != 0) return;
  const size_t blocks = (bytes.size() + kBlockBytes - 1) / kBlockBytes;
  const size_t before = std::min(static_cast<size_t>(status.st_size), kMostBytes);
  bytes.resize(std::max(blocks * kBlockBytes, before), ' ');
  // An id that stays taken does less harm than one that is released while another program uses it.
  if (::pwrite(file, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) ::ftruncate(file, 0);
}

// Calls `change` with the entries and with this connection as an owner; it returns whether it changed an entry. False
// if `change` did not run.
template <typename Change>
bool update(uint64_t connection, const Deadline& deadline, const Change& change) {
  const Owner self = this_owner(connection);
  if (self.start == 0 || self.boot.empty()) return false;
  const UniqueFd file = open_locked(deadline);
  if (!file) return false;
  std::vector<Entry> entries = read_entries(file.get());
  if (change(entries, self)) write_entries(file.get(), entries);
  ::flock(file.get(), LOCK_UN);  // a child that was forked meanwhile has the descriptor too
  return true;
}

auto find_own(std::vector<Entry>& entries, const Owner& self) {
  return std::find_if(entries.begin(), entries.end(), [&](const Entry& entry) { return entry.owner == self; });
}

bool is_valid(const Entry& entry, const std::string& modem, const Owner& self) {
  return entry.modem == modem && entry.owner.boot == self.boot && !entry.is_void;
}

// Marks the modem's entries among the first `count` as void.
void void_first(std::vector<Entry>& entries, ptrdiff_t count, const std::string& modem, const Owner& self) {
  std::for_each_n(entries.begin(), count, [&](Entry& entry) { entry.is_void |= is_valid(entry, modem, self); });
}

std::vector<ClientIdRecord::Id> take_out_abandoned(std::vector<Entry>& entries, const std::string& modem,
                                                   const Owner& self) {
  std::vector<ClientIdRecord::Id> ids;
  std::erase_if(entries, [&](const Entry& entry) {
    if (entry.modem != modem || !is_abandoned(entry.owner, self)) return false;
    if (!entry.is_void) ids.push_back(entry.id);
    return true;
  });
  return ids;
}

// Removes the oldest entry without a live owner if the record is full. False if all owners live: then nothing is
// entered.
bool make_room(std::vector<Entry>& entries, const Owner& self) {
  if (entries.size() < kMostEntries) return true;
  const auto oldest = std::find_if(entries.begin(), entries.end(), [&](const Entry& entry) {
    return entry.owner.boot != self.boot || is_abandoned(entry.owner, self);
  });
  if (oldest == entries.end()) return false;
  entries.erase(oldest);
  return true;
}

uint64_t next_connection() {
  static std::atomic<uint64_t> last{0};
  return ++last;
}

}  // namespace

ClientIdRecord::ClientIdRecord(const std::string& socket, const std::string& device)
    : modem_(escape(socket) + ',' + (is_abstract(socket) ? link_target("/proc/self/ns/net") : identity_of(socket)) +
             ',' + escape(device) + ',' + identity_of(device)),
      connection_(next_connection()) {}

std::vector<ClientIdRecord::Id> ClientIdRecord::add(Id id, const Deadline& deadline) {
  std::vector<Id> abandoned;
  if (modem_.size() > kMostModemLength) return abandoned;
  update(connection_, deadline, [&](std::vector<Entry>& entries, const Owner& self) {
    // An id that the modem allocates although it has an entry was void.
    const auto same = std::find_if(entries.rbegin(), entries.rend(),
                                   [&](const Entry& entry) { return entry.id == id && is_valid(entry, modem_, self); });
    void_first(entries, entries.rend() - same, modem_, self);
    abandoned = take_out_abandoned(entries, modem_, self);
    has_entry_ = make_room(entries, self);
    if (has_entry_) entries.push_back({self, id, false, modem_});
    return true;
  });
  return abandoned;
}

bool ClientIdRecord::remove(const Deadline& deadline) {
  bool is_void = false;
  const bool is_done = update(connection_, deadline, [&](std::vector<Entry>& entries, const Owner& self) {
    const auto own = find_own(entries, self);
    if (own == entries.end()) return false;
    is_void = own->is_void;
    entries.erase(own);
    return true;
  });
  // If the entry stays, another process removes it when it finds this one dead.
  return is_done ? !is_void : !has_entry_;
}

void ClientIdRecord::restore(const std::vector<Id>& ids, const Deadline& deadline) const {
  if (ids.empty()) return;
  update(connection_, deadline, [&](std::vector<Entry>& entries, const Owner& self) {
    Owner free_owner = self;
    free_owner.process = 0;
    for (const Id id : ids) {
      const bool has_entry = std::any_of(entries.begin(), entries.end(), [&](const Entry& entry) {
        return entry.id == id && is_valid(entry, modem_, self);
      });
      if (!has_entry && make_room(entries, self)) entries.insert(entries.begin(), {free_owner, id, false, modem_});
    }
    return true;
  });
}

std::vector<ClientIdRecord::Id> ClientIdRecord::take_abandoned(const Deadline& deadline) const {
  std::vector<Id> abandoned;
  update(connection_, deadline, [&](std::vector<Entry>& entries, const Owner& self) {
    const size_t count = entries.size();
    abandoned = take_out_abandoned(entries, modem_, self);
    return entries.size() != count;
  });
  return abandoned;
}

std::vector<HeldClientId> ClientIdRecord::held(const Deadline& deadline) const {
  std::vector<HeldClientId> ids;
  update(connection_, deadline, [&](std::vector<Entry>& entries, const Owner& self) {
    for (const Entry& entry : entries) {
      if (!is_valid(entry, modem_, self)) continue;
      ids.push_back({entry.id.service, entry.id.client, is_abandoned(entry.owner, self) ? 0 : entry.owner.process});
    }
    return false;
  });
  return ids;
}

void ClientIdRecord::void_own(const Deadline& deadline) {
  update(connection_, deadline, [&](std::vector<Entry>& entries, const Owner& self) {
    const auto own = find_own(entries, self);
    if (own == entries.end()) return false;
    const auto older = own - entries.begin();
    const bool is_void = own->is_void;  // if so, the older ones are marked already
    entries.erase(own);
    if (!is_void) void_first(entries, older, modem_, self);
    return true;
  });
}

}  // namespace pelmar::platform
