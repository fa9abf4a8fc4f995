// Detached threads, and the checked allocation functions.
#include <pthread.h>

#include <cerrno>
#include <cstdlib>

#include "pelmar_log_site.h"
#include "pelmar_string.h"
#include "pelmar_thread.h"

namespace pelmar {

int32_t start_detached(void* (*routine)(void*), void* argument) {
  pthread_attr_t attributes;
  const int32_t initialised = pthread_attr_init(&attributes);
  if (initialised != 0) return initialised;
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t thread;
  const int32_t created = pthread_create(&thread, &attributes, routine, argument);
  pthread_attr_destroy(&attributes);
  return created;
}

}  // namespace pelmar

using namespace pelmar;

extern "C" {

int32_t pelmar_create_pthread(const char* name, void* (*start_routine)(void*), void* arg) {
  Operation operation(PELMAR_HERE);
  if (start_routine == nullptr) return operation.fail(EINVAL, "p_thread_proc_cb is NULL, do nothing");
  PELMAR_LOG_DEBUG("pthread[%s] will be created", name != nullptr ? name : "Unkown name");
  const int32_t result = start_detached(start_routine, arg);
  PELMAR_LOG_DEBUG("result = %d", result);
  return operation.exit(result);
}

void* pelmar_mem_malloc(uint32_t size) {
  Operation operation(PELMAR_HERE);
  return size != 0 ? std::malloc(size) : nullptr;
}

void pelmar_mem_free(void** p) {
  Operation operation(PELMAR_HERE);
  if (p == nullptr || *p == nullptr) return;
  std::free(*p);
  *p = nullptr;
}
}
