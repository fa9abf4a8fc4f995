// raw: a pass-through command to the vendor-specific service, waited for or asynchronous.
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>

#include "command_line.h"
#include "commands/commands.h"
#include "failure.h"
#include "hydra_mem.h"
#include "json.h"
#include "options.h"
#include "result_codes.h"

namespace pelmar::cli {

namespace {

constexpr const char* kStep = "the pass-through command";
constexpr std::chrono::seconds kAnswerPatience{30};
constexpr Advice kTooMuchData = {MODEM_API_ERR_INVALID_PARAM,
                                 "A pass-through command has at most 512 bytes: send less."};
static_assert(MODEM_API_MAX_PASS_THROUGH_BYTES == 512);

struct RawValues {
  DataInput input;
  bool is_async = false;
};

// The callbacks of one asynchronous exchange, in order. They run on a thread of the framework.
class Exchange {
 public:
  struct Callback {
    bool has_data;
    Bytes data;
    uint32_t result;
  };

  static void on_response(const uint8_t* data, uint32_t length, void* user_data, uint32_t result) {
    Callback callback = {data != nullptr, {data, data + length}, result};
    hydra_free_adv(const_cast<uint8_t*>(data), __func__, __LINE__);
    auto& exchange = *static_cast<Exchange*>(user_data);
    const std::lock_guard lock(exchange.mutex_);
    exchange.callbacks_.push_back(std::move(callback));
    exchange.changed_.notify_all();
  }

  std::optional<Callback> next(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_until(lock, deadline, [this] { return !callbacks_.empty(); })) return std::nullopt;
    Callback callback = std::move(callbacks_.front());
    callbacks_.pop_front();
    return callback;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Callback> callbacks_;
};

void print_data(Output& output, const Bytes& bytes) {
  Json document = {{"callback", "data"}};
  put_bytes(document, bytes);
  output.print(document, "data: " + byte_count(bytes.size()) + "\n" + hex_dump(bytes, 2));
}

void follow(const Context& context, Exchange& exchange) {
  const auto deadline = std::chrono::steady_clock::now() + kAnswerPatience;
  for (;;) {
    const auto callback = exchange.next(deadline);
    if (!callback) throw Failure::of_result(kStep, MODEM_API_ERR_TIMEOUT);
    if (callback->result == MODEM_API_RESP_END) {
      context.output.print({{"callback", "end"}, {"name", describe_result(MODEM_API_RESP_END).name}}, "end");
      return;
    }
    check(static_cast<modem_api_result>(callback->result), kStep);
    if (callback->has_data) print_data(context.output, callback->data);
  }
}

void send_raw(const Context& context, const RawValues& values) {
  const Bytes bytes = values.input.read();
  const auto length = static_cast<int32_t>(bytes.size());
  const int32_t client = context.session.open(MODEM_API_CLIENT_VS);
  if (!values.is_async) {
    check(modem_api_common_command(client, bytes.data(), length), kStep, {kTooMuchData});
    const std::string text = "pass-through command: " + byte_count(bytes.size()) + " accepted";
    return context.output.print({{"accepted", bytes.size()}}, text);
  }
  // It outlives the client, whose callbacks use it.
  static Exchange exchange;
  check(modem_api_common_command_async(client, bytes.data(), length, &exchange, Exchange::on_response), kStep,
        {kTooMuchData});
  context.output.print({{"sent", bytes.size()}}, "pass-through command: " + byte_count(bytes.size()) + " sent");
  follow(context, exchange);
}

}  // namespace

void add_raw_command(CommandLine& line) {
  auto [command, values] = line.add("raw", "send a pass-through command of at most 512 bytes", send_raw);
  values.input.add_to(command);
  command.add_flag("--async", values.is_async, "do not wait in the call: show the data and the end as they arrive");
}

}  // namespace pelmar::cli
