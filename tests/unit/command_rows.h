// The synchronous commands of the client API, each with arguments that differ and the exchange that it must
// make: the golden log calls them, and command_test.cpp compares what they send.
#pragma once

#include "library_test.h"

namespace scripted {

struct CommandRow {
  std::string name;  // of the exported function
  modem_api_client_type type;
  unsigned msg_id;
  unsigned response_length;
  Bytes request;
  std::function<int32_t(int32_t client_id)> call;
};

const std::vector<CommandRow>& command_rows();

// What the commands of NV items, EFS items and files are given besides their item and its qualifiers.
struct ItemArguments {
  const char* path;
  uint8_t* data;
  uint32_t* length;
  uint32_t size;  // of a write
};
extern ItemArguments item;

// Those whose names have this part.
void for_each_command(const std::string& part, const std::function<void(const CommandRow&)>& use);

}  // namespace scripted
