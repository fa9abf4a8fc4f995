// A platform for the library that behaves as a test sets and records the library's calls.
//
// The test executable defines the platform's operations (qmi_client_*, property_*, pm_client_*, vsyslog, sleep) and
// exports them, so that libpelmar_modemapi.so finds them at load time. Nothing sleeps. The codec behind message
// decoding and the service objects are the real ones. A mutex guards the records, because the library may call from any
// thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "pm-service.h"
#include "qmi_client.h"

namespace scripted {

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;
using Guard = std::unique_lock<std::mutex>;

// Converts to an object of any type that is never destroyed: detached threads of the library may outlive main().
inline constexpr struct {
  template <typename T>
  operator T&() const {
    return *new T;
  }
} kNewObject;

// --- calls ---

// One call of the QMI framework, of the peripheral manager, or of a sleep.
struct Call {
  std::string name;  // without "qmi_client_" and "pm_client_"; the arguments of the latter follow
  qmi_client_type handle = nullptr;
  unsigned msg_id = 0;  // of init_instance: the instance
  Bytes request = {};
  unsigned response_length = 0;
  unsigned timeout = 0;  // of a sleep: seconds

  bool operator==(const Call&) const = default;
};
std::vector<Call> calls();
Lines call_names();
void clear_calls();

struct Outcome {
  Outcome(int result = 0, Bytes content = {}) : code(result), response(std::move(content)) {}

  int code;
  Bytes response;  // the beginning of the structure; the rest is zero
};

// Scripts by the name of the call. A script runs in the call and returns its outcome; a call without a script succeeds.
// The script of a registration may call the registered callback.
using Script = std::function<Outcome(const Call&)>;
extern std::map<std::string, Script>& on_call;
extern Script& on_send;  // the script of send_msg_sync
Script returns(int code);

// Records a call and runs its script. The platform's operations use it.
Outcome play(const Call& call);

// --- system log ---

struct LogLine {
  int priority;
  std::string text;
};
// The lines since clear_log(), or since reset_golden_log().
std::vector<LogLine> log_lines(bool since_reset = false);
void clear_log();
void reset_golden_log();

// Each line with its level and function, such as "E vs_client_init: body", without process, file and line number; lines
// without prefix as "E|text".
Lines log_bodies();
bool logged(const std::string& body);

// --- properties ---

extern std::map<std::string, std::string>& properties;
extern Lines& property_writes;  // "name=value"

// --- files ---

// Opens of a path that ends with `suffix` go to `target`, which need not exist.
void redirect_opens(const std::string& suffix, const std::string& target);
// The path of a file in memory with this content.
std::string file_with(const std::string& content);

// Runs in each read() or write(): returns the number of bytes to transfer, at most as many as were requested, or -1
// with errno set.
using Transfer = std::function<long(long requested)>;
extern Transfer on_read;
extern Transfer on_write;

// --- threads ---

// pthread_create() starts the thread, returns an error, or stores the thread for run_held().
enum class Threads { kRun, kFail, kHold };
void set_threads(Threads behaviour);
// With kHold: the number of threads that were created and not run. run_held() runs them and those that are created
// meanwhile, one by one, each on a real thread that it waits for.
size_t held_threads();
void run_held();

// --- QMI ---

// The framework has the phone's rules. On the phone a release or a synchronous send inside a callback of the same
// handle does not return; here it fails the test. Asynchronous sends that are pending end with their callback and a
// response of length 0: at a release on the releasing thread with QMI_INTERNAL_ERR, at a loss with QMI_SERVICE_ERR.

// Fills the decoded structure of an indication (length bytes, zero) in place of the codec; empty: the codec decodes.
extern std::function<int(unsigned msg_id, uint8_t* structure, unsigned length)>& on_decode;

bool is_open(qmi_client_type handle);
size_t open_handles();

// These call the handle's callback on the caller's thread. They return false if the handle is released or has no such
// callback. A release waits for the handle's callbacks, except those that it is called from.
bool indicate(qmi_client_type handle, unsigned msg_id, const Bytes& wire);
bool lose_service(qmi_client_type handle);
bool announce_service(qmi_client_type notifier, qmi_client_notify_event_type event = QMI_CLIENT_SERVICE_COUNT_INC);
// Ends a handle's oldest asynchronous send with the beginning of a response structure and a transport code.
void complete_send(qmi_client_type handle, const Bytes& response, int code = 0);

// --- peripheral manager ---

extern std::function<void(pm_event)>& announce_power;  // calls back the voter that registered

}  // namespace scripted
