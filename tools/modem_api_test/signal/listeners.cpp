#include "signal/listeners.h"

#include <utility>

#include "failure.h"
#include "json.h"
#include "signal/reading_text.h"
#include "time_text.h"

namespace pelmar::cli {

namespace {

constexpr std::chrono::milliseconds kLogPeriod{950};  // a second, however the readings fall

std::string since_text(Clock::time_point start) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count();
  return std::to_string(seconds) + " s";
}

}  // namespace

// --- live view ---

LiveWatch::LiveWatch(Output& output, std::string modem, uint32_t rate)
    : output_(output), screen_(std::make_unique<Screen>(output)), style_{wants_colour(), screen_glyphs()} {
  state_.modem = std::move(modem);
  state_.rate = rate;
}

LiveWatch::~LiveWatch() {
  const TerminalSize size = screen_->size();
  screen_.reset();
  if (state_.readings == 0) return;
  std::string text;
  for (const std::string& line : live_view(last_, history_, state_, {size.columns, SIZE_MAX}, style_)) {
    text += line + "\n";
  }
  try {
    output_.write({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
  } catch (const Failure&) {
    return;  // the terminal is gone
  }
}

void LiveWatch::draw() {
  screen_->draw(live_view(last_, history_, state_, screen_->size(), style_));
}

void LiveWatch::take(const Reading& reading) {
  last_ = reading;
  history_.add(reading, Clock::now());
  ++state_.readings;
  state_.trouble.clear();
  draw();
}

void LiveWatch::miss(const std::string& problem) {
  const auto now = Clock::now();
  if (state_.trouble.empty()) lost_ = now;
  history_.add_gap(now);
  state_.trouble = "MODEM AWAY " + since_text(lost_) + ": " + problem + "; Ctrl-C ends";
  draw();
}

// --- log ---

void LogWatch::tell(const std::string& text) const {
  output_.print(Json(), text);
}

void LogWatch::take(const Reading& reading) {
  if (!std::exchange(has_heading_, true)) tell(kReadingLineHeading);
  if (std::exchange(is_lost_, false)) tell(local_text(reading.time) + "  the modem is back");
  const auto now = Clock::now();
  if (!every_reading_ && told_ && now - *told_ < kLogPeriod) return;
  told_ = now;
  tell(reading_line(reading));
}

void LogWatch::miss(const std::string& problem) {
  if (std::exchange(is_lost_, true)) return;
  tell(local_text(WallClock::now()) + "  the modem is away: " + problem + "; waiting for it");
}

// --- JSON ---

void JsonLines::take(const Reading& reading) {
  is_lost_ = false;
  output_.print(reading_json(reading), "");
}

void JsonLines::miss(const std::string& problem) {
  if (std::exchange(is_lost_, true)) return;
  output_.print({{"time", utc_text(WallClock::now())}, {"notice", "modem_away"}, {"reason", problem}}, "");
}

// --- remarks ---

void AwayRemarks::take(const Reading& /*reading*/) {
  if (std::exchange(is_lost_, false)) remark("the modem is back");
}

void AwayRemarks::miss(const std::string& problem) {
  if (!std::exchange(is_lost_, true)) remark("the modem is away: " + problem + "; waiting for it");
}

// --- CSV ---

CsvFile::CsvFile(Output& output, std::string path)
    : output_(output), path_(std::move(path)), file_(path_ == "-" ? nullptr : fopen(path_.c_str(), "w"), &fclose) {
  if (path_ != "-" && file_ == nullptr) throw Failure::of_system("writing the file '" + path_ + "'");
  write(csv_header());
}

void CsvFile::write(const std::string& text) {
  if (file_ == nullptr) return output_.write({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
  const bool is_written = fwrite(text.data(), 1, text.size(), file_.get()) == text.size();
  if (!is_written || fflush(file_.get()) != 0) throw Failure::of_system("writing the file '" + path_ + "'");
}

}  // namespace pelmar::cli
