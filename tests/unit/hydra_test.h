// A modem under hydra: it answers the statistics commands from values that a test gives it.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "library_test.h"
#include "modem_hydra.h"
#include "vs_messages.h"

namespace scripted {

namespace vs = pelmar::vs;

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

class HydraTest : public LibraryTest {
 protected:
  HydraTest() {
    on_send = [this](const Call& call) {
      const auto answer = answers.find(call.msg_id);
      if (answer != answers.end()) return answer->second;
      return call.msg_id == vs::kGetStatsParameter ? give_value(call) : Answer{};
    };
  }
  ~HydraTest() override { on_send = nullptr; }

  static void open_hydra() {
    ASSERT_EQ(modem_hydra_api_init(), 1);
    forget();
  }

  // What a function wrote, as "E body" or "D body", without the usual entry and exit.
  static Lines lines_of(const std::string& function) {
    Lines lines;
    const std::string name = " " + function + ": ";
    for (const std::string& line : messages_and_exits()) {
      if (line.compare(1, name.size(), name) == 0) lines.push_back(line.substr(0, 2) + line.substr(1 + name.size()));
    }
    return lines;
  }

  static std::vector<Bytes> requests() {
    std::vector<Bytes> requests;
    for (const Call& call : calls("send_msg_sync")) requests.push_back(call.request);
    return requests;
  }

  std::map<std::pair<uint32_t, uint32_t>, Bytes> values;       // by subscription and statistics identifier
  std::function<void(vs::GetStatsParameterResponse&)> tamper;  // with the answer, before it goes out
  std::map<unsigned, Answer> answers;                          // to other messages; success where none

 private:
  static Lines messages_and_exits() {
    Lines lines = log_bodies();
    std::erase_if(lines, [](const std::string& line) {
      return line.ends_with(": function entry ------------->") || line.find(": function exit, ret(") != line.npos;
    });
    return lines;
  }

  Answer give_value(const Call& call) const {
    const auto* const request = reinterpret_cast<const vs::GetStatsParameterRequest*>(call.request.data());
    vs::GetStatsParameterResponse response = {};
    vs::DataRecord& record = response.records[0];
    record = {request->sub, 0, request->records[0].id, 0, {}};
    const auto value = values.find({record.sub, record.id});
    if (value != values.end()) {
      response.records_valid = 1;
      response.record_count = 1;
      record.data_len = static_cast<uint32_t>(value->second.size());
      std::copy(value->second.begin(), value->second.end(), record.data);
    }
    if (tamper) tamper(response);
    const auto* const begin = reinterpret_cast<const uint8_t*>(&response);
    return {0, {begin, begin + sizeof(response)}};
  }
};

}  // namespace scripted
