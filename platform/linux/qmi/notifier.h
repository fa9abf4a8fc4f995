// A notifier handle, which reports that a service comes or goes, and the back-off of its reports.
//
// The registration looks for the service on the caller's thread. After that a thread of the handle looks when the
// transport's descriptor becomes readable and, unless the transport reports every change, again and again.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "deadline.h"
#include "handle.h"
#include "qmi_client.h"
#include "transport.h"

namespace pelmar::platform {

// Delays the announcement of a service that keeps going away.
//
// A client that connects whenever its service is announced would connect thousands of times a second to a service that
// goes away right after each connection. So a notifier delays the report of such a service, by a pause that grows up to
// a second, until a connection to the service lasts. The process has one object for each service.
//
// There is no lock, because a child of fork() could inherit it locked. Each of several losses at the same moment may
// count.
class ServiceBackoff {
 public:
  using Duration = Deadline::Clock::duration;

  static ServiceBackoff& of(uint32_t service);

  // A connection ended after this lifetime: the service went away (lost) or its client released it.
  void lost(Duration lifetime);
  void released(Duration lifetime);

  // The time until the service may be announced; mostly 0.
  Deadline::Milliseconds remaining() const;

 private:
  std::atomic<Duration> pause_{Duration(0)};
  std::atomic<Duration> held_until_{Duration(0)};  // since the epoch of Deadline::Clock
};

class Notifier : public std::enable_shared_from_this<Notifier> {
 public:
  Notifier(qmi_idl_service_object_type service, qmi_client_type handle);

  int32_t register_callback(qmi_client_notify_cb function, void* data);
  void release();

 private:
  using Lock = std::unique_lock<std::mutex>;

  void run();
  void notify(Lock& lock, bool is_there);
  void wait_for_news(Deadline::Milliseconds wait, bool is_announced);
  void call(qmi_client_notify_cb function, qmi_client_notify_event_type event, void* data) const;

  const qmi_idl_service_object_type service_;
  const std::unique_ptr<ServiceWatch> watch_;  // used by the first registration, then by the handle's thread
  ServiceBackoff& backoff_;
  const qmi_client_type handle_;

  std::mutex mutex_;  // not held during a look or a callback
  bool is_stopping_ = false;
  bool is_registered_ = false;
  bool is_there_ = false;  // as last reported
  qmi_client_notify_cb function_ = nullptr;
  void* data_ = nullptr;

  CallerCallbacks caller_callbacks_;
  FrameworkThread thread_;
};

}  // namespace pelmar::platform
