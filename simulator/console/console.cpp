#include "console/console.h"

#include <algorithm>

namespace pelmar::sim {

namespace {

constexpr Stream::Bounds kBounds{size_t{64} << 10, size_t{4} << 20};

// ASCII alone, with everything else escaped: a response may quote control characters, of which a line end would end it
// and others act on a terminal. Bytes that are no text are replaced.
std::string as_line(const Json& response) {
  return response.dump(-1, ' ', true, Json::error_handler_t::replace) + '\n';
}

}  // namespace

class Console::Session final : private Stream::Reader {
 public:
  Session(Console& console, UniqueFd fd)
      : console_(console), stream_(console.loop_, console.output_, std::move(fd), *this, kBounds) {}

 private:
  size_t on_bytes(std::span<const uint8_t> bytes) override {
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    size_t used = 0;
    for (size_t end = text.find('\n'); end != text.npos && stream_.is_open(); end = text.find('\n', used)) {
      const std::string response = as_line(run_command(console_.simulation_, text.substr(used, end - used)));
      used = end + 1;
      stream_.send({reinterpret_cast<const uint8_t*>(response.data()), response.size()});
    }
    return used;
  }

  void on_closed(std::string_view) override {
    console_.loop_.post([this] { console_.sessions_.erase(this); });
  }

  Console& console_;
  Stream stream_;
};

Console::~Console() = default;

Console::Console(EventLoop& loop, WaitingOutput& output, const std::string& socket, Simulation& simulation)
    : loop_(loop), output_(output), simulation_(simulation), listener_(loop, socket, [this](UniqueFd fd) {
        auto session = std::make_unique<Session>(*this, std::move(fd));
        Session* const key = session.get();
        sessions_.emplace(key, std::move(session));
      }) {}

}  // namespace pelmar::sim
