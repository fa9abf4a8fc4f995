// Detached threads, and the guarded allocation pair.
#include <pthread.h>

#include <cerrno>
#include <cstdlib>

#include "pelmar_log_site.h"
#include "pelmar_string.h"

namespace pelmar {
namespace {

int32_t create_detached(void* (*start_routine)(void*), void* arg) {
  pthread_attr_t attributes;
  const int32_t initialised = pthread_attr_init(&attributes);
  if (initialised != 0) return initialised;
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t thread;
  const int32_t created = pthread_create(&thread, &attributes, start_routine, arg);
  pthread_attr_destroy(&attributes);
  return created;
}

}  // namespace
}  // namespace pelmar

extern "C" {

int32_t pelmar_create_pthread(const char* name, void* (*start_routine)(void*), void* arg) {
  PELMAR_LOG_ENTRY();
  int32_t result = EINVAL;
  if (start_routine == nullptr) {
    PELMAR_LOG_ERROR("p_thread_proc_cb is NULL, do nothing");
  } else {
    PELMAR_LOG_DEBUG("pthread[%s] will be created", name != nullptr ? name : "Unkown name");
    result = pelmar::create_detached(start_routine, arg);
    PELMAR_LOG_DEBUG("result = %d", result);
  }
  PELMAR_LOG_EXIT_RET(result);
  return result;
}

void* pelmar_mem_malloc(uint32_t size) {
  PELMAR_LOG_ENTRY();
  void* const block = size != 0 ? std::malloc(size) : nullptr;
  PELMAR_LOG_EXIT();
  return block;
}

void pelmar_mem_free(void** p) {
  PELMAR_LOG_ENTRY();
  if (p != nullptr && *p != nullptr) {
    std::free(*p);
    *p = nullptr;
  }
  PELMAR_LOG_EXIT();
}
}
