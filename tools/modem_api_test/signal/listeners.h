// What becomes of a series of readings: shown, printed, written to a file, kept for a picture. Any number of listeners
// hears of every reading, and of the modem going away and coming back.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "files.h"
#include "output.h"
#include "signal/history.h"
#include "signal/live_view.h"
#include "signal/reading.h"
#include "signal/recording.h"
#include "signal/screen.h"

namespace pelmar::cli {

class SignalListener {
 public:
  virtual ~SignalListener() = default;
  virtual void take(const Reading& reading) = 0;
  // Called for each reading that does not come.
  virtual void miss(const std::string& /*problem*/) {}
};

// A live view on a terminal's screen. Prints its last picture where the screen was when it ends.
class LiveWatch : public SignalListener {
 public:
  LiveWatch(Output& output, std::string modem, uint32_t rate);
  ~LiveWatch() override;

  void take(const Reading& reading) override;
  void miss(const std::string& problem) override;

 private:
  void draw();

  Output& output_;
  std::unique_ptr<Screen> screen_;
  const Style style_;
  LiveState state_;
  Clock::time_point lost_;
  Reading last_;
  History history_;
};

// Lines for a log: one a subscription, at most once a second.
class LogWatch : public SignalListener {
 public:
  LogWatch(Output& output, bool every_reading) : output_(output), every_reading_(every_reading) {}

  void take(const Reading& reading) override;
  void miss(const std::string& problem) override;

 private:
  void print(const std::string& text) const;

  Output& output_;
  const bool every_reading_;
  bool is_lost_ = false;
  bool has_heading_ = false;
  std::optional<Clock::time_point> printed_;
};

// A JSON document a reading.
class JsonLines : public SignalListener {
 public:
  explicit JsonLines(Output& output) : output_(output) {}

  void take(const Reading& reading) override;
  void miss(const std::string& problem) override;

 private:
  Output& output_;
  bool is_lost_ = false;
};

// Nothing but remarks, on standard error, that the modem went away and came back.
class AwayRemarks : public SignalListener {
 public:
  void take(const Reading& reading) override;
  void miss(const std::string& problem) override;

 private:
  bool is_lost_ = false;
};

// A CSV file, or standard output for "-". Every reading is in the file before the next one is taken.
class CsvFile : public SignalListener {
 public:
  // Throws where the file cannot be written, and for kAppend where it has other columns.
  CsvFile(Output& output, const std::string& path, RecordingFile::Earlier earlier);

  void take(const Reading& reading) override { file_.write(csv_rows(reading)); }

 private:
  RecordingFile file_;
};

// Keeps the readings for a picture.
class Recorder : public SignalListener {
 public:
  explicit Recorder(Recording& recording) : recording_(recording) {}

  void take(const Reading& reading) override { recording_.add(reading); }

 private:
  Recording& recording_;
};

}  // namespace pelmar::cli
