/* The operating system's parameters of a handle of the QMI client framework. The handle's user owns them. */
#ifndef QMI_CCI_TARGET_EXT_H
#define QMI_CCI_TARGET_EXT_H

#include <pthread.h>
#include <stdint.h>

typedef struct {
  uint32_t sig_set;
  uint32_t timed_out;
  uint32_t clock;
  pthread_cond_t cond;
  pthread_condattr_t attr;
  pthread_mutex_t mutex;
} qmi_client_os_params;

#endif
