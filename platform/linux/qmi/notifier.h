// A notifier handle: reports when a service comes and goes.
//
// The first look at the service is part of the registration, on the caller's thread; after it a thread of the handle
// looks again and again, sooner when the transport has news. A service that does not stay is announced at its pace
// (service_pace.h), and counts as absent until then.
#pragma once

#include <memory>
#include <mutex>

#include "framework_thread.h"
#include "qmi_client.h"
#include "service_pace.h"
#include "transport.h"

namespace pelmar::platform {

class Notifier : public std::enable_shared_from_this<Notifier> {
 public:
  Notifier(qmi_idl_service_object_type service, std::unique_ptr<ServiceWatch> watch, qmi_client_type handle);

  int32_t register_callback(qmi_client_notify_cb function, void* data);
  void release();

 private:
  using Lock = std::unique_lock<std::mutex>;

  void run();
  void notify(Lock& lock, bool is_there);
  void wait_for_news(Deadline::Milliseconds rest);

  const qmi_idl_service_object_type service_;
  const std::unique_ptr<ServiceWatch> watch_;  // used by who registers first, then by the handle's thread
  ServicePace& pace_;
  const qmi_client_type handle_;

  std::mutex mutex_;  // not held during a look or a callback
  bool is_stopping_ = false;
  bool is_registered_ = false;
  bool is_there_ = false;  // as the callback was called last
  qmi_client_notify_cb function_ = nullptr;
  void* data_ = nullptr;

  CallerCallbacks caller_callbacks_;
  FrameworkThread thread_;
};

}  // namespace pelmar::platform
