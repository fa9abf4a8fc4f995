// The rules by which the framework runs callbacks and treats requests.
//
// By default a callback may send on its own handle, and may release it. The framework of a phone is stricter, and a
// program that breaks its rules waits for ever. With PELMAR_PLATFORM_RULES=phone this framework has the phone's rules,
// and ends a program that breaks them with a message:
//   - The thread of a handle reads one message after the other, and none while one of its callbacks runs. So a
//     synchronous send inside the handle's own callback gets no response.
//   - A handle is not released inside its own callback.
//   - A request's length is that of its structure, or 0; then the request is sent without TLVs.
//   - A release calls the callbacks of the pending asynchronous requests with QMI_INTERNAL_ERR and length 0, on the
//     thread that releases. The loss of the service calls them with QMI_SERVICE_ERR and length 0; no send on the handle
//     returns meanwhile.
//   - A send without response leaves the response's structure unchanged, and a response that is cut off is dropped.
//   - Indications that wait behind a slow callback take at most the memory of a socket's default receive buffer; more
//     are dropped.
#pragma once

#include <cstddef>
#include <cstdint>

namespace pelmar::platform {

// Returns whether the phone's rules apply. The environment is read once.
bool phone_rules();

// The most bytes of indications that wait for a callback under the phone's rules: the default of
// /proc/sys/net/core/rmem_default.
inline constexpr size_t kPhoneReceiveBuffer = 212'992;

// The callback of a handle that runs on this thread. Nested ones of several handles form a list.
class RunningCallback {
 public:
  // `what`: for example "an indication callback".
  RunningCallback(const void* owner, const char* what) : owner_(owner), what_(what), outer_(innermost_) {
    innermost_ = this;
  }
  ~RunningCallback() { innermost_ = outer_; }
  RunningCallback(const RunningCallback&) = delete;
  RunningCallback& operator=(const RunningCallback&) = delete;

  // Returns the innermost callback of this owner that runs on this thread; null: none.
  static const char* of(const void* owner);

 private:
  const void* const owner_;
  const char* const what_;
  const RunningCallback* const outer_;
  static thread_local constinit const RunningCallback* innermost_;
};

// Ends the process, which on a phone would wait for ever: prints one message on standard error and in the system log.
[[noreturn]] void end_blocked_process(uint32_t service, const char* call, const char* callback, const char* remedy);

}  // namespace pelmar::platform
