// Writes the inputs that the fuzzers start from: every message empty, with one of everything, and full, in the form of
// each target; what the two ends of a QMUX stream send each other; and conversations with the peripheral manager.
//
//   fuzz_seeds DIRECTORY      writes DIRECTORY/<target>/...
//
// They are made, not kept, so that they follow the services' descriptions.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "manager_protocol.h"
#include "messages.h"

namespace pelmar::fuzz {
namespace {

std::filesystem::path g_directory;

void write(const char* target, const Bytes& input) {
  static int number = 0;
  const std::filesystem::path place = g_directory / target;
  std::filesystem::create_directories(place);
  std::ofstream(place / std::to_string(number++), std::ios::binary)
      .write(reinterpret_cast<const char*>(input.data()), static_cast<std::streamsize>(input.size()));
}

void write_messages() {
  for (size_t number = 0; number < catalogue().size(); ++number) {
    const Message& message = catalogue()[number];
    for (const uint32_t most : {uint32_t{0}, uint32_t{1}, UINT32_MAX}) {
      const Bytes structure = make_structure(message, most);
      Bytes wire;
      require(encode(message, structure, message.max_wire_length, wire) == QMI_IDL_LIB_NO_ERR);
      const Bytes head = {static_cast<uint8_t>(number), 0xFF, 0xFF};
      write("codec", join({head, wire}));
      write("codec", join({head, structure}));
      write(message.type == QMI_IDL_REQUEST ? "simulator" : "client",
            join({{message.type == QMI_IDL_REQUEST ? uint8_t{2} : uint8_t{1}}, service_frame(message, wire)}));
      if (message.type == QMI_IDL_RESPONSE) write("library", join({{5}, wire}));
      for (const uint8_t entry : {0, 1, 2, 3, 4}) {
        if (message.type == QMI_IDL_INDICATION) write("library", join({{entry}, wire}));
      }
    }
  }
}

void write_control_messages() {
  constexpr uint8_t kVs = 0xE4, kNas = 0x03;
  const std::pair<uint16_t, Bytes> requests[] = {
      {0xFF00, {'/', 'd', 'e', 'v'}}, {0x0021, {}}, {0x0022, {kVs}}, {0x0023, {kVs, kClient}}, {0x0027, {}}};
  for (const auto& [id, value] : requests) write("simulator", join({{0}, control_frame(0, 1, id, 0x01, value)}));
  write("client", join({{1}, control_frame(2, 0, 0x0024, 0x01, {kNas, kClient})}));
  write("client", join({{0}, control_frame(1, 1, 0xFF00, 0x02, {0, 0, 0, 0})}));  // success
  write("client", join({{0}, control_frame(1, 1, 0xFF00, 0x02, {1, 0, 5, 0})}));  // refusal
}

void write_power_messages() {
  using namespace platform::power;
  write("simulator", join({{1},
                           to_frame(Register{"modem", "voter"}),
                           to_frame(Vote{}),
                           to_frame(Acknowledge{EVENT_PERIPH_GOING_ONLINE}),
                           to_frame(Acknowledge{EVENT_PERIPH_IS_ONLINE}),
                           to_frame(QueryStatus{}),
                           to_frame(Withdraw{}),
                           to_frame(Unregister{})}));
  write("client", join({{2},
                        to_frame(VoterResponse{PM_RET_UNSUPPORTED, EVENT_PERIPH_IS_OFFLINE}),
                        to_frame(Event{EVENT_PERIPH_GOING_OFFLINE}),
                        to_frame(Status{EVENT_PERIPH_IS_ONLINE, 1}),
                        to_frame(VoterEntry{0x01020304, true, std::string(kMaxNameBytes, 'n')})}));
}

}  // namespace
}  // namespace pelmar::fuzz

int main(int argc, char** argv) {
  using namespace pelmar::fuzz;
  if (argc != 2) {
    std::fprintf(stderr, "usage: fuzz_seeds DIRECTORY\n");
    return 2;
  }
  g_directory = argv[1];
  write_messages();
  write_control_messages();
  write_power_messages();
  return 0;
}
