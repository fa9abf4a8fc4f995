// A modem under hydra: it responds to the statistics commands with values that a test gives it.
#pragma once

#include "golden_log.h"
#include "modem_hydra.h"
#include "vs_messages.h"

namespace scripted {

namespace vs = pelmar::vs;

class HydraTest : public LibraryTest {
 protected:
  HydraTest() {
    on_send = [this](const Call& call) {
      if (responses.contains(call.msg_id)) return Outcome{0, responses[call.msg_id]};
      return call.msg_id == vs::kGetStatsParameter ? give_value(call) : Outcome{};
    };
  }
  ~HydraTest() override { on_send = nullptr; }

  static void open_hydra() {
    ASSERT_EQ(modem_hydra_api_init(), 1);
    forget();
  }

  static std::vector<Bytes> requests() {
    std::vector<Bytes> requests;
    for (const Call& call : calls()) requests.push_back(call.request);
    return requests;
  }

  std::map<std::pair<uint32_t, uint32_t>, Bytes> values;  // by subscription and statistics identifier
  std::function<void(Bytes& response)> on_fetch;          // may change what it gives; may be empty
  std::map<unsigned, Bytes> responses;                    // to other messages; success where none

 private:
  Outcome give_value(const Call& call) const {
    Bytes response(sizeof(vs::GetStatsParameterResponse));
    uint16_t sub = 0;
    uint32_t id = 0;
    std::memcpy(&sub, &call.request[0], sizeof(sub));
    std::memcpy(&id, &call.request[12], sizeof(id));
    const auto value = values.find({sub, id});
    if (value != values.end()) {
      response[8] = response[12] = 1;
      put(response, 16, sub);
      put(response, 20, id);
      put(response, 24, static_cast<uint32_t>(value->second.size()));
      std::copy(value->second.begin(), value->second.end(), response.begin() + 28);
    }
    if (on_fetch) on_fetch(response);
    return {0, response};
  }
};

}  // namespace scripted
