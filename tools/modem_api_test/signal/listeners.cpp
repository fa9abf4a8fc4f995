#include "signal/listeners.h"

#include <unistd.h>

#include <utility>

#include "failure.h"
#include "json.h"
#include "modem_link.h"
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

void LogWatch::print(const std::string& text) const {
  output_.print(Json(), text);
}

void LogWatch::take(const Reading& reading) {
  if (!std::exchange(has_heading_, true)) print(kReadingLineHeading);
  if (std::exchange(is_lost_, false)) print(local_text(reading.time) + "  " + kBackText);
  const auto now = Clock::now();
  if (!every_reading_ && printed_ && now - *printed_ < kLogPeriod) return;
  printed_ = now;
  print(reading_line(reading));
}

void LogWatch::miss(const std::string& problem) {
  if (std::exchange(is_lost_, true)) return;
  print(local_text(WallClock::now()) + "  " + away_text(problem));
}

// --- JSON ---

void JsonLines::take(const Reading& reading) {
  if (std::exchange(is_lost_, false)) output_.print({{"time", utc_text(reading.time)}, {"notice", "modem_back"}}, "");
  output_.print(reading_json(reading), "");
}

void JsonLines::miss(const std::string& problem) {
  if (std::exchange(is_lost_, true)) return;
  output_.print({{"time", utc_text(WallClock::now())}, {"notice", "modem_away"}, {"reason", problem}}, "");
}

// --- remarks ---

void AwayRemarks::take(const Reading& /*reading*/) {
  if (std::exchange(is_lost_, false)) remark(kBackText);
}

void AwayRemarks::miss(const std::string& problem) {
  if (!std::exchange(is_lost_, true)) remark(away_text(problem));
}

// --- CSV ---

CsvFile::CsvFile(Output& output, const std::string& path, RecordingFile::Earlier earlier)
    : file_(output, path, earlier) {
  const std::string before = earlier == RecordingFile::Earlier::kAppend && path != "-" ? read_file(path) : "";
  if (!before.starts_with(csv_header()) && !csv_header().starts_with(before)) {
    throw Failure("appending to the file '" + path + "'", "its columns are not those of a recording",
                  "Name another file.");
  }
  const size_t whole = before.rfind('\n') + 1;
  if (whole < before.size()) {
    remark("the last line of '" + path + "' is cut, and is left out");
    if (truncate(path.c_str(), static_cast<off_t>(whole)) != 0) throw Failure::of_system("writing '" + path + "'");
  }
  if (whole == 0) file_.write(csv_header());
}

}  // namespace pelmar::cli
