// raw: a pass-through command to the vendor-specific service, waited for or asynchronous.
#include <chrono>

#include "command_line.h"
#include "commands/commands.h"
#include "failure.h"
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

void print_data(Output& output, const Bytes& bytes) {
  Json document = {{"callback", "data"}};
  put_bytes(document, bytes);
  output.print(document, "data: " + byte_count(bytes.size()) + "\n" + hex_dump(bytes, 2));
}

// Until the last callback of the exchange.
void follow(const Context& context) {
  const auto deadline = Clock::now() + kAnswerPatience;
  const Signals::Follower ends_by_itself(context.signals);
  while (const auto arrival = context.inbox.next(deadline)) {
    if (arrival->kind != Arrival::Kind::kResponse) continue;
    if (arrival->number == MODEM_API_RESP_END) {
      const char* const name = describe_result(MODEM_API_RESP_END).name;
      return context.output.print({{"callback", "end"}, {"name", name}}, "end");
    }
    const auto result = static_cast<modem_api_result>(arrival->number);
    if (result != MODEM_API_SUCCESS) throw Failure::of_result(kStep, result, {}, arrival->exchange);
    print_data(context.output, arrival->payload);
  }
  if (!context.inbox.is_interrupted()) throw Failure::of_result(kStep, MODEM_API_ERR_TIMEOUT);
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
  check(modem_api_common_command_async(client, bytes.data(), length, nullptr, Inbox::receive_response), kStep,
        {kTooMuchData});
  context.output.print({{"sent", bytes.size()}}, "pass-through command: " + byte_count(bytes.size()) + " sent");
  follow(context);
}

}  // namespace

void add_raw_command(CommandLine& line) {
  auto [command, values] = line.add("raw", "send a pass-through command of at most 512 bytes", send_raw);
  values.input.add_to(command);
  command.add_flag("--async", values.is_async, "do not wait in the call: show the data and the end as they arrive");
}

}  // namespace pelmar::cli
