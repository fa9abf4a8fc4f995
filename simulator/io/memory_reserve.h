// Memory that is set aside for the time when the system gives no more.
//
// The first allocation that fails frees the reserve and is tried again, so that what has begun can end: a connection
// that is dropped for lack of memory needs some to be dropped. An allocation as large as a connection's input does not
// fit into it and throws. restore() is called between events. One in a process, of one thread.
#pragma once

namespace pelmar::sim {

class MemoryReserve {
 public:
  MemoryReserve();
  ~MemoryReserve();
  MemoryReserve(const MemoryReserve&) = delete;
  MemoryReserve& operator=(const MemoryReserve&) = delete;

  // Whether the reserve is there, again where it has been used.
  bool restore();
};

}  // namespace pelmar::sim
