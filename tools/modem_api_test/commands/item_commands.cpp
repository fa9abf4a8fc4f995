// nv, efs, efs-path and rfnv: each reads, writes and deletes items of one kind. What differs between the four is a row.
// efs-sync has the modem write its EFS to storage; raw sends a pass-through command.
#include <nlohmann/json.hpp>

#include "command_line.h"

namespace pelmar::cli {

namespace {

struct Address {
  uint32_t item = 0;
  std::string path;
  uint16_t qualifier = 0;
  uint16_t index = 0;
};

// Limits are 0 where a kind has no such part.
struct Kind {
  const char* command;
  const char* title;
  const char* summary;
  bool by_path;
  const char* example;  // an address
  int64_t max_qualifier;
  int64_t max_index;
  modem_api_result (*read)(int32_t client, const Address& address, uint8_t* data, uint32_t* length);
  modem_api_result (*write)(int32_t client, const Address& address, const uint8_t* data, uint32_t length);
  modem_api_result (*remove)(int32_t client, const Address& address);
};

uint8_t narrow(uint16_t value) {
  return static_cast<uint8_t>(value);
}

constexpr Kind kKinds[] = {
    {"nv", "NV item", "NV items, by number", false, "10", UINT8_MAX, UINT16_MAX,
     [](int32_t client, const Address& a, uint8_t* data, uint32_t* length) {
       return modem_api_read_nv(client, a.item, narrow(a.qualifier), a.index, data, length);
     },
     [](int32_t client, const Address& a, const uint8_t* data, uint32_t length) {
       return modem_api_write_nv(client, a.item, narrow(a.qualifier), a.index, data, length);
     },
     [](int32_t client, const Address& a) {
       return modem_api_delete_nv(client, a.item, narrow(a.qualifier), a.index);
     }},

    {"efs", "EFS item", "EFS items, by number", false, "77", UINT16_MAX, 0,
     [](int32_t client, const Address& a, uint8_t* data, uint32_t* length) {
       return modem_api_read_efs(client, a.item, a.qualifier, data, length);
     },
     [](int32_t client, const Address& a, const uint8_t* data, uint32_t length) {
       return modem_api_write_efs(client, a.item, a.qualifier, data, length);
     },
     [](int32_t client, const Address& a) { return modem_api_delete_efs(client, a.item, a.qualifier); }},

    {"efs-path", "EFS file", "EFS files, by path", true, "/nv/item_files/a", UINT16_MAX, UINT8_MAX,
     [](int32_t client, const Address& a, uint8_t* data, uint32_t* length) {
       return modem_api_read_efs_path(client, a.path.c_str(), a.qualifier, narrow(a.index), data, length);
     },
     [](int32_t client, const Address& a, const uint8_t* data, uint32_t length) {
       return modem_api_write_efs_path(client, a.path.c_str(), a.qualifier, narrow(a.index), data, length);
     },
     [](int32_t client, const Address& a) {
       return modem_api_delete_efs_path(client, a.path.c_str(), a.qualifier, narrow(a.index));
     }},

    {"rfnv", "RF NV item", "RF NV items, by number", false, "20", 0, 0,
     [](int32_t client, const Address& a, uint8_t* data, uint32_t* length) {
       return modem_api_read_rfnv(client, a.item, data, length);
     },
     [](int32_t client, const Address& a, const uint8_t* data, uint32_t length) {
       return modem_api_write_rfnv(client, a.item, data, length);
     },
     [](int32_t client, const Address& a) { return modem_api_delete_rfnv(client, a.item); }},
};

std::string title_of(const Kind& kind, const Address& address) {
  std::string title = std::string(kind.title) + " " + (kind.by_path ? address.path : std::to_string(address.item));
  if (address.qualifier != 0) title += ", qualifier " + std::to_string(address.qualifier);
  if (address.index != 0) title += ", index " + std::to_string(address.index);
  return title;
}

Json json_of(const Kind& kind, const Address& address) {
  Json object;
  if (kind.by_path) object["path"] = address.path;
  if (!kind.by_path) object["item"] = address.item;
  if (kind.max_qualifier > 0) object["qualifier"] = address.qualifier;
  if (kind.max_index > 0) object["index"] = address.index;
  return object;
}

void add_address(const Command& command, const Kind& kind, Address& address) {
  if (kind.by_path) {
    // The library cuts a longer path, and would address another file.
    command.add_text("path", address.path, "the file's path",
                     {.type = "PATH", .is_required = true, .most_characters = MODEM_API_MAX_PATH_CHARACTERS});
  } else {
    command.add_number("item", address.item, "the item's number", {.is_required = true});
  }
  if (kind.max_qualifier > 0) {
    command.add_number("--qualifier", address.qualifier, "the qualifier", {}, kind.max_qualifier);
  }
  if (kind.max_index > 0) command.add_number("--index", address.index, "the index", {}, kind.max_index);
}

constexpr Advice kNothingThere = {MODEM_API_ERR_GENERIC,
                                  "Nothing is stored there: write it first, or check number, qualifier and index.",
                                  QMI_ERR_NO_ENTRY_V01};
constexpr Advice kNoFile = {MODEM_API_ERR_GENERIC, kNothingThere.text, QMI_ERR_SIM_FILE_NOT_FOUND_V01};
Advice bad_address(const Kind& kind) {
  return {MODEM_API_ERR_INVALID_PARAM,
          kind.by_path
              ? "The modem takes no such path: check it; it may have no '.' or '..' part and no '/' at its end."
              : "The modem takes no such number, qualifier or index: check them.",
          QMI_ERR_INVALID_ARG_V01};
}
constexpr Advice kTooMuchData = {MODEM_API_ERR_INVALID_PARAM, "An item has at most 256 bytes: write less."};
static_assert(MODEM_API_MAX_ITEM_BYTES == 256);
constexpr Advice kNoRoom = {MODEM_API_ERR_GENERIC, "Delete what is not needed.", QMI_ERR_DEVICE_STORAGE_FULL_V01};

struct ReadValues {
  Address address;
  DataOutput output;
};

void read_item(const Context& context, const Kind& kind, const ReadValues& values) {
  const std::string title = title_of(kind, values.address);
  const int32_t client = context.session.open(MODEM_API_CLIENT_VS);
  Bytes bytes(MODEM_API_MAX_ITEM_BYTES);
  auto length = static_cast<uint32_t>(bytes.size());
  check(kind.read(client, values.address, bytes.data(), &length), "reading " + title,
        {kNothingThere, kNoFile, bad_address(kind)});
  bytes.resize(length);
  values.output.report(context.output, bytes, json_of(kind, values.address), title);
}

struct WriteValues {
  Address address;
  DataInput input;
};

void write_item(const Context& context, const Kind& kind, const WriteValues& values) {
  const std::string title = title_of(kind, values.address);
  const Bytes bytes = values.input.read();
  const int32_t client = context.session.open(MODEM_API_CLIENT_VS);
  check(kind.write(client, values.address, bytes.data(), static_cast<uint32_t>(bytes.size())), "writing " + title,
        {bad_address(kind), kTooMuchData, kNoRoom});
  Json document = json_of(kind, values.address);
  document["written"] = bytes.size();
  context.output.print(document, title + ": " + count_of(bytes.size(), "byte") + " written");
}

void delete_item(const Context& context, const Kind& kind, const Address& address) {
  const std::string title = title_of(kind, address);
  const int32_t client = context.session.open(MODEM_API_CLIENT_VS);
  check(kind.remove(client, address), "deleting " + title, {kNothingThere, kNoFile, bad_address(kind)});
  Json document = json_of(kind, address);
  document["deleted"] = true;
  context.output.print(document, title + ": deleted");
}

// The action of a family's command: the function, with the row that it works on.
template <typename Values>
auto on(const Kind& kind, void (*action)(const Context&, const Kind&, const Values&)) {
  return [&kind, action](const Context& context, const Values& values) { action(context, kind, values); };
}

// --- efs-sync ---

struct SyncValues {
  int8_t mode = 0;
  uint32_t value = 0;
  uint16_t option = 0;
};

void sync_efs(const Context& context, const SyncValues& values) {
  const int32_t client = context.session.open(MODEM_API_CLIENT_VS);
  check(modem_api_efs_sync(client, values.mode, values.value, values.option), "synchronising the EFS");
  context.output.print({{"synchronised", true}}, "EFS: synchronised");
}

// --- raw ---

constexpr const char* kRawStep = "the pass-through command";
constexpr std::chrono::seconds kResponsePatience{30};
constexpr Advice kTooManyBytes = {MODEM_API_ERR_INVALID_PARAM,
                                  "A pass-through command has at most 512 bytes: send less."};
static_assert(MODEM_API_MAX_PASS_THROUGH_BYTES == 512);

struct RawValues {
  DataInput input;
  bool is_async = false;
};

void print_data(Output& output, const Bytes& bytes) {
  Json document = {{"callback", "data"}};
  put_bytes(document, bytes);
  output.print(document, "data: " + count_of(bytes.size(), "byte") + "\n" + hex_dump(bytes, 2));
}

// Until the last callback of the exchange.
void follow(const Context& context) {
  const auto deadline = Clock::now() + kResponsePatience;
  const Signals::Follower ends_by_itself(context.signals);
  while (const auto arrival = context.inbox.next(deadline)) {
    if (arrival->kind != Arrival::Kind::kResponse) continue;
    if (arrival->number == MODEM_API_RESP_END) {
      const char* const name = describe_result(MODEM_API_RESP_END).name;
      return context.output.print({{"callback", "end"}, {"name", name}}, "end");
    }
    const auto result = static_cast<modem_api_result>(arrival->number);
    if (result != MODEM_API_SUCCESS) throw Failure::of_result(kRawStep, result, {}, arrival->exchange);
    print_data(context.output, arrival->payload);
  }
  if (!context.inbox.is_interrupted()) throw Failure::of_result(kRawStep, MODEM_API_ERR_TIMEOUT);
}

void send_raw(const Context& context, const RawValues& values) {
  const Bytes bytes = values.input.read();
  const auto length = static_cast<int32_t>(bytes.size());
  const int32_t client = context.session.open(MODEM_API_CLIENT_VS);
  if (!values.is_async) {
    check(modem_api_common_command(client, bytes.data(), length), kRawStep, {kTooManyBytes});
    const std::string text = "pass-through command: " + count_of(bytes.size(), "byte") + " accepted";
    return context.output.print({{"accepted", bytes.size()}}, text);
  }
  check(modem_api_common_command_async(client, bytes.data(), length, nullptr, Inbox::receive_response), kRawStep,
        {kTooManyBytes});
  context.output.print({{"sent", bytes.size()}}, "pass-through command: " + count_of(bytes.size(), "byte") + " sent");
  follow(context);
}

}  // namespace

void add_item_commands(CommandLine& line) {
  for (const Kind& kind : kKinds) {
    CLI::App& group = line.add_group(kind.command, std::string("read, write and delete ") + kind.summary);
    const std::string what = std::string(" an ") + kind.title;
    const std::string example = kind.example;
    {
      auto [command, values] = line.add<ReadValues>(group, "read", "read" + what, on(kind, read_item));
      add_address(command, kind, values.address);
      values.output.add_to(command);
      command.add_examples({example, example + " --output item.bin"});
    }
    {
      auto [command, values] = line.add<WriteValues>(group, "write", "write" + what, on(kind, write_item));
      add_address(command, kind, values.address);
      values.input.add_to(command);
      command.add_examples({example + " 0a 1b 2c", example + " --text hello"});
    }
    {
      auto [command, address] = line.add<Address>(group, "delete", "delete" + what, on(kind, delete_item));
      add_address(command, kind, address);
      command.add_examples({example, example + " --json"});
    }
  }
  {
    auto [command, values] = line.add("efs-sync", "have the modem write its EFS to storage", sync_efs);
    command.add_number("--mode", values.mode, "the mode; only with 0 are the value and the option sent");
    command.add_number("--value", values.value, "the value");
    command.add_number("--option", values.option, "the option");
  }
  {
    auto [command, values] = line.add("raw", "send a pass-through command of at most 512 bytes", send_raw);
    values.input.add_to(command);
    command.add_flag("--async", values.is_async, "do not wait in the call: show the data and the end as they arrive");
    command.add_examples({"01 02 03", "--async --text ping"});
  }
}

}  // namespace pelmar::cli
