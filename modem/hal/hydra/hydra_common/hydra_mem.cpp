// Traced allocation: zeroed blocks, and the list of the allocated ones while tracing is on.
//
// The first allocation decides whether tracing is on. The lock guards the list. The tracing flag is also read without
// the lock, so that an untraced process takes no lock.
#include "hydra_mem.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include "cutils/properties.h"
#include "pelmar_log_site.h"
#include "pelmar_thread.h"

namespace pelmar {
namespace {

struct hydra_mem_trace_node {
  hydra_mem_trace_node* prev;  // older
  hydra_mem_trace_node* next;  // newer
  void* ptr;
  uint64_t size;
  int32_t pid;
  const char* func;
  int32_t year, month, day, hour, min, sec;  // local time; month from 1, year in full
};

constexpr char kTraceProperty[] = "persist.hydra.mem_trace";
constexpr size_t kProcessNameBytes = 50;

std::atomic<bool> hydra_mem_inited{false};
std::atomic<bool> hydra_mem_trace_on{false};
constinit Lock hydra_mem_trace_lock;
hydra_mem_trace_node* hydra_mem_trace_head = nullptr;
hydra_mem_trace_node* hydra_mem_trace_tail = nullptr;
uint64_t hydra_mem_trace_count = 0;  // read in core dumps

bool tracing() {
  return hydra_mem_trace_on.load(std::memory_order_relaxed);
}

void hydra_mem_init() {
  char value[PROPERTY_VALUE_MAX] = {};
  if (property_get(kTraceProperty, value, nullptr) < 1) {
    PELMAR_LOG_DEBUG("HYDRA_MEM_TRACE_PROP not exist");
    return;
  }
  if (std::strcmp(value, "true") == 0) hydra_mem_trace_on.store(true, std::memory_order_relaxed);
}

void stamp_local_time(hydra_mem_trace_node& node) {
  timeval now;
  tm local;
  if (gettimeofday(&now, nullptr) != 0 || localtime_r(&now.tv_sec, &local) == nullptr) return;
  node.year = local.tm_year + 1900;
  node.month = local.tm_mon + 1;
  node.day = local.tm_mday;
  node.hour = local.tm_hour;
  node.min = local.tm_min;
  node.sec = local.tm_sec;
}

// If there is no memory for a record, the block is not traced.
void trace(void* block, size_t size, const char* func) {
  auto* const node = static_cast<hydra_mem_trace_node*>(std::calloc(1, sizeof(hydra_mem_trace_node)));
  if (node == nullptr) return;
  node->ptr = block;
  node->size = size;
  node->pid = getpid();
  node->func = func;
  stamp_local_time(*node);

  const std::lock_guard lock(hydra_mem_trace_lock);
  node->prev = hydra_mem_trace_tail;
  (hydra_mem_trace_tail != nullptr ? hydra_mem_trace_tail->next : hydra_mem_trace_head) = node;
  hydra_mem_trace_tail = node;
  ++hydra_mem_trace_count;
}

// Removes the oldest record of the address: the block is freed before its record, so another thread may have allocated
// and recorded the address again.
void untrace(uintptr_t address) {
  const std::lock_guard lock(hydra_mem_trace_lock);
  auto* node = hydra_mem_trace_head;
  while (node != nullptr && reinterpret_cast<uintptr_t>(node->ptr) != address) node = node->next;
  if (node == nullptr) return;
  (node->prev != nullptr ? node->prev->next : hydra_mem_trace_head) = node->next;
  (node->next != nullptr ? node->next->prev : hydra_mem_trace_tail) = node->prev;
  --hydra_mem_trace_count;
  std::free(node);
}

// The last part of a process's program path; empty if it cannot be read.
void hydra_mem_get_proc_name(int32_t pid, char (&name)[kProcessNameBytes]) {
  name[0] = '\0';
  char path[50];
  std::snprintf(path, sizeof(path), "/proc/%d/cmdline", pid);
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) {
    PELMAR_LOG_ERROR("failed to open proc_entry=%s, errno=[%d:%s]", path, errno, std::strerror(errno));
    return;
  }
  char command[kProcessNameBytes] = {};  // also terminates it
  if (read(file, command, sizeof(command) - 1) <= 0) {
    PELMAR_LOG_ERROR("read failed errno=[%d:%s]", errno, std::strerror(errno));
  } else {
    const char* const slash = std::strrchr(command, '/');
    std::snprintf(name, sizeof(name), "%s", slash != nullptr ? slash + 1 : command);
  }
  close(file);
}

// Appends one record to the dump. Returns the entry's length, or 0 if the whole entry does not fit.
size_t write_entry(const hydra_mem_trace_node& node, char* out, size_t room) {
  char process[kProcessNameBytes];
  hydra_mem_get_proc_name(node.pid, process);
  const auto length = static_cast<size_t>(
      std::snprintf(out, room,
                    "\r\n\t<TraceMemData address=\"0x%p\" size=\"0x%lx\" caller_proc=\"%s\" caller_func=\"%s\" "
                    "time=\"%d:%d:%d day%d, month%d, year%d\"/>",
                    node.ptr, static_cast<unsigned long>(node.size), process, node.func, node.hour, node.min, node.sec,
                    node.day, node.month, node.year));
  return length < room ? length : 0;
}

// False if not all entries fit; the text then ends after the last whole entry.
bool write_entries(char* buf, size_t size) {
  size_t offset = 0;
  for (const auto* node = hydra_mem_trace_head; node != nullptr; node = node->next) {
    const size_t length = offset + 1 < size ? write_entry(*node, buf + offset, size - offset) : 0;
    if (length == 0) {
      if (size > offset) std::memset(buf + offset, 0, size - offset);
      return false;
    }
    offset += length;
  }
  return true;
}

}  // namespace
}  // namespace pelmar

using namespace pelmar;

extern "C" {

void* hydra_malloc_adv(size_t size, const char* func, int32_t) {
  Operation operation(PELMAR_HERE);
  if (!hydra_mem_inited.load(std::memory_order_relaxed) && !hydra_mem_inited.exchange(true)) hydra_mem_init();
  // A large block's zero pages are allocated at the first write, so a wrong length from a modem takes no memory.
  void* const block = std::calloc(1, size);
  if (block == nullptr) {
    PELMAR_LOG_ERROR("Fail to allocate memory");
  } else if (tracing()) {
    trace(block, size, func);
  }
  return block;
}

void hydra_free_adv(void* ptr, const char*, int32_t) {
  Operation operation(PELMAR_HERE);
  if (ptr == nullptr) return;
  // Only compared. Volatile, because compilers warn about any use of a freed pointer's number.
  const volatile uintptr_t address = reinterpret_cast<uintptr_t>(ptr);
  std::free(ptr);
  if (tracing()) untrace(address);
}

// Holds the lock from the first entry to the last, so that no thread frees a record meanwhile.
int32_t hydra_mem_trace_dump(char* buf, int32_t size) {
  Operation operation(PELMAR_HERE);
  const size_t room = buf != nullptr && size > 0 ? static_cast<size_t>(size) : 0;
  bool whole;
  {
    const std::lock_guard lock(hydra_mem_trace_lock);
    const bool was_on = hydra_mem_trace_on.exchange(false, std::memory_order_relaxed);
    if (room > 0) std::memset(buf, 0, room);
    whole = write_entries(buf, room);
    if (!whole) PELMAR_LOG_ERROR("Not enough memory");
    hydra_mem_trace_on.store(was_on, std::memory_order_relaxed);
  }
  return operation.exit(whole ? 1 : 0);
}
}
