// Writes the inputs that the fuzzers start from: every message empty, with one of everything, and full; what the
// two ends of a QMUX stream send each other; statistics answers; and conversations with the peripheral manager.
//
//   fuzz_seeds DIRECTORY      writes DIRECTORY/<target>/...
//
// They are made, not kept, so that they follow the services' descriptions. Inputs worth keeping, above all those that
// once found something, are in fuzz/corpus/<target>/.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "frames.h"
#include "manager_protocol.h"
#include "vs_messages.h"

namespace pelmar::fuzz {
namespace {

// Texts are paths, so this one tries to leave.
constexpr std::string_view kPath = "../../x/";

// Sets what a description knows: flags, at most `most` elements everywhere, texts of `most` characters.
class Fill final : public StructureVisitor {
 public:
  explicit Fill(uint32_t most) : most_(most) {}

  void on_valid_flag(uint8_t& flag) override { flag = most_ > 0 ? 1 : 0; }
  void on_count(uint8_t* count, uint32_t maximum) override {
    const uint32_t value = std::min(most_, maximum);
    std::memcpy(count, &value, sizeof value);
  }
  void on_text(std::span<uint8_t> text) override {
    const auto end = text.begin() + static_cast<std::ptrdiff_t>(std::min<size_t>(most_, text.size() - 1));
    size_t at = 0;
    std::generate(text.begin(), end, [&at] { return static_cast<uint8_t>(kPath[at++ % kPath.size()]); });
    std::fill(end, text.end(), 0);
  }

 private:
  const uint32_t most_;
};

Bytes make_structure(const CatalogueMessage& message, uint32_t most) {
  Bytes structure(message.structure_length, most > 0 ? 0x11 : 0);
  Fill fill(most);
  walk(message, structure, fill);
  return structure;
}

class SeedWriter {
 public:
  explicit SeedWriter(std::filesystem::path directory) : directory_(std::move(directory)) {}

  void write(const char* target, const std::string& name, const Bytes& head, const Bytes& rest) {
    const std::filesystem::path folder = directory_ / target;
    std::filesystem::create_directories(folder);
    std::ofstream file(folder / name, std::ios::binary);
    put(file, head);
    put(file, rest);
  }

 private:
  static void put(std::ofstream& file, const Bytes& bytes) {
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }

  const std::filesystem::path directory_;
};

constexpr struct {
  const char* name;
  uint32_t most;
} kSizes[] = {{"empty", 0}, {"one", 1}, {"full", UINT32_MAX}};

void write_frame_seeds(SeedWriter& writer, const CatalogueMessage& message, const char* name, const Bytes& wire) {
  const Bytes frame = service_frame(message, wire);
  if (message.type == QMI_IDL_REQUEST) {
    writer.write("modem_frames", name, {}, frame);
    writer.write("modem", name, {1}, frame);
  } else {
    writer.write("framework_frames", name, {7}, frame);
    writer.write("transport", name, {1}, frame);
  }
}

void write_indication_seeds(SeedWriter& writer, const char* name, const Bytes& wire) {
  for (const uint8_t choice : {0, 1, 2, 3, 4}) {
    writer.write("indication", name + std::to_string(choice), {choice}, wire);
  }
}

void write_message_seeds(SeedWriter& writer) {
  for (size_t choice = 0; choice < catalogue().size(); ++choice) {
    const CatalogueMessage& message = catalogue()[choice];
    for (const auto& size : kSizes) {
      char name[64];
      std::snprintf(name, sizeof name, "%02x-%d-%04x-%s", static_cast<unsigned>(message.service->service_id),
                    static_cast<int>(message.type), static_cast<unsigned>(message.id), size.name);
      const Bytes structure = make_structure(message, size.most);
      Bytes wire;
      require(encode(message, structure, message.max_wire_length, wire) == QMI_IDL_LIB_NO_ERR);
      const auto number = static_cast<uint8_t>(choice);
      writer.write("decode", name, {number}, wire);
      writer.write("encode", name, {number, 0xFF, 0xFF}, structure);
      write_frame_seeds(writer, message, name, wire);
      if (message.type == QMI_IDL_INDICATION) write_indication_seeds(writer, name, wire);
    }
  }
}

void write_control_seeds(SeedWriter& writer) {
  constexpr uint8_t kService = 0xE4;
  const auto request = [](uint16_t id, Bytes value) {
    return control_frame(ControlKind::kRequest, 1, id, 0x01, std::move(value));
  };
  const std::pair<const char*, Bytes> requests[] = {
      {"proxy-open", request(0xFF00, {'/', 'd', 'e', 'v'})},
      {"version-info", request(0x0021, {})},
      {"allocate", request(0x0022, {kService})},
      {"release", request(0x0023, {kService, kClient})},
      {"sync", request(0x0027, {})},
  };
  for (const auto& [name, frame] : requests) {
    writer.write("modem_frames", name, {}, frame);
    writer.write("modem", name, {0}, frame);
  }

  const Bytes revoke = control_frame(ControlKind::kIndication, 0, 0x0024, 0x01, {kService, kClient});
  const Bytes success = control_frame(ControlKind::kResponse, 1, 0xFF00, 0x02, {0, 0, 0, 0});
  const Bytes failure = control_frame(ControlKind::kResponse, 1, 0xFF00, 0x02, {1, 0, 5, 0});
  writer.write("framework_frames", "revoke", {7}, revoke);
  writer.write("framework_frames", "success", {7}, success);
  writer.write("transport", "refused", {0}, failure);
  writer.write("transport", "opened-halfway", {0}, success);
  writer.write("transport", "revoked", {1}, revoke);
}

// Answers that reach a decoder.
void write_statistics_seeds(SeedWriter& writer) {
  const auto is_answer = [](const CatalogueMessage& message) {
    return message.type == QMI_IDL_RESPONSE && message.id == vs::kGetStatsParameter &&
           message.structure_length == sizeof(vs::GetStatsParameterResponse);
  };
  const auto message = std::find_if(catalogue().begin(), catalogue().end(), is_answer);
  for (const uint32_t id : {0x52, 0x67, 0x6C, 0x87, 0x06, 0x64, 0x62, 0x5A, 0x2C}) {
    for (const uint16_t sub : {0, 1}) {
      auto answer = std::make_unique<vs::GetStatsParameterResponse>();
      answer->records_valid = 1;
      answer->record_count = 1;
      answer->records[0].sub = sub;
      answer->records[0].id = id;
      answer->records[0].data_len = vs::kMaxDataBytes;
      const auto* const bytes = reinterpret_cast<const uint8_t*>(answer.get());
      Bytes wire;
      require(encode(*message, {bytes, bytes + sizeof(*answer)}, message->max_wire_length, wire) == QMI_IDL_LIB_NO_ERR);
      writer.write("statistics", std::to_string(id) + '-' + std::to_string(sub), {}, wire);
    }
  }
}

// Whole conversations with the peripheral manager, as either end sends them.
void write_power_seeds(SeedWriter& writer) {
  using namespace platform::power;
  Bytes voter;
  for (const Request& request :
       std::initializer_list<Request>{Register{"modem", "voter"}, Vote{}, Acknowledge{EVENT_PERIPH_GOING_ONLINE},
                                      Acknowledge{EVENT_PERIPH_IS_ONLINE}, AskStatus{}, Withdraw{}, Unregister{}}) {
    const Bytes frame = to_frame(request);
    writer.write("peripheral_manager", "request-" + std::to_string(request.index()), {}, frame);
    voter.insert(voter.end(), frame.begin(), frame.end());
  }
  writer.write("peripheral_manager", "requests", {}, voter);
  Bytes manager;
  for (const Reply& reply : std::initializer_list<Reply>{
           Answer{PM_RET_UNSUPPORTED, EVENT_PERIPH_IS_OFFLINE}, Event{EVENT_PERIPH_GOING_OFFLINE},
           Status{EVENT_PERIPH_IS_ONLINE, 1}, VoterEntry{0x01020304, true, std::string(kMaxNameBytes, 'n')}}) {
    const Bytes frame = to_frame(reply);
    manager.insert(manager.end(), frame.begin(), frame.end());
  }
  writer.write("peripheral_manager", "replies", {}, manager);
}

}  // namespace
}  // namespace pelmar::fuzz

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: fuzz_seeds DIRECTORY\n");
    return 2;
  }
  pelmar::fuzz::SeedWriter writer(argv[1]);
  pelmar::fuzz::write_message_seeds(writer);
  pelmar::fuzz::write_control_seeds(writer);
  pelmar::fuzz::write_power_seeds(writer);
  pelmar::fuzz::write_statistics_seeds(writer);
  return 0;
}
