// Writes the inputs that the fuzzers start from: every message empty, with one of everything, and full; and what the
// two ends of a QMUX stream send each other.
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
#include <string>

#include "messages.h"

namespace pelmar::fuzz {
namespace {

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
    std::fill(text.begin(), end, 'a');
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

constexpr uint8_t kToModem = 0x00;
constexpr uint8_t kFromModem = 0x80;

void append_u16(Bytes& bytes, size_t value) {
  bytes.insert(bytes.end(), {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)});
}

void store_frame_length(Bytes& frame) {
  frame[1] = static_cast<uint8_t>(frame.size() - 1);
  frame[2] = static_cast<uint8_t>((frame.size() - 1) >> 8);
}

// A service message in its frame, as the one or the other end sends it.
void write_frame_seeds(SeedWriter& writer, const CatalogueMessage& message, const char* name, const Bytes& wire) {
  constexpr uint8_t kClient = 5;
  constexpr uint8_t kFlags[] = {0, 2, 4};
  const bool is_request = message.type == QMI_IDL_REQUEST;
  const auto service = static_cast<uint8_t>(message.service->service_id);
  Bytes frame = {0x01, 0, 0, is_request ? kToModem : kFromModem, service, kClient, kFlags[message.type]};
  append_u16(frame, message.type == QMI_IDL_INDICATION ? 0 : 1);
  append_u16(frame, message.id);
  append_u16(frame, wire.size());
  frame.insert(frame.end(), wire.begin(), wire.end());
  store_frame_length(frame);
  if (is_request) {
    writer.write("modem_frames", name, {}, frame);
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

// A frame of the CTL service with one TLV.
Bytes control_frame(uint8_t direction, uint8_t flags, uint8_t transaction, uint16_t id, uint8_t tlv, Bytes value) {
  value.insert(value.begin(), {tlv, static_cast<uint8_t>(value.size()), 0});
  Bytes frame = {0x01, 0, 0, direction, 0, 0, flags, transaction};
  append_u16(frame, id);
  append_u16(frame, value.size());
  frame.insert(frame.end(), value.begin(), value.end());
  store_frame_length(frame);
  return frame;
}

void write_control_seeds(SeedWriter& writer) {
  constexpr uint8_t kRequest = 0, kResponse = 1, kIndication = 2;
  constexpr uint8_t kService = 0xE4;
  const Bytes device = {'/', 'd', 'e', 'v'};
  writer.write("modem_frames", "proxy-open", {}, control_frame(kToModem, kRequest, 1, 0xFF00, 0x01, device));
  writer.write("modem_frames", "allocate", {}, control_frame(kToModem, kRequest, 2, 0x0022, 0x01, {kService}));
  writer.write("modem_frames", "release", {}, control_frame(kToModem, kRequest, 3, 0x0023, 0x01, {kService, 5}));

  const Bytes revoke = control_frame(kFromModem, kIndication, 0, 0x0024, 0x01, {kService, 5});
  const Bytes success = control_frame(kFromModem, kResponse, 1, 0xFF00, 0x02, {0, 0, 0, 0});
  const Bytes failure = control_frame(kFromModem, kResponse, 1, 0xFF00, 0x02, {1, 0, 5, 0});
  for (const uint8_t cut : {0, 1}) {
    writer.write("framework_frames", "revoke-" + std::to_string(cut), {cut}, revoke);
    writer.write("framework_frames", "success-" + std::to_string(cut), {cut}, success);
  }
  writer.write("transport", "refused", {0}, failure);
  writer.write("transport", "opened-halfway", {0}, success);
  writer.write("transport", "revoked", {1}, revoke);
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
  return 0;
}
