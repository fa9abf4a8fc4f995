// signal: what the radio receives, read once, watched, recorded, or drawn from a recording.
#include <sys/stat.h>

#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "command_line.h"
#include "commands/commands.h"
#include "failure.h"
#include "files.h"
#include "json.h"
#include "modem_thread.h"
#include "options.h"
#include "signal/listeners.h"
#include "signal/plot.h"
#include "signal/reading_text.h"
#include "signal/source.h"

namespace pelmar::cli {

namespace {

constexpr uint32_t kUsualRate = 2;
constexpr uint32_t kHighestRate = 50;
constexpr std::chrono::milliseconds kLastReadingPatience{500};  // beyond --for

struct SignalValues {
  std::optional<uint32_t> sub;
  bool watch = false;
  std::optional<uint32_t> rate;
  uint32_t count = 0;    // 0: no limit
  uint32_t seconds = 0;  // 0: no limit
  std::string csv;
  std::string plot;
  std::string from;
  bool append = false;
  bool force = false;

  bool writes_to_output() const { return csv == "-" || plot == "-"; }
  bool is_series() const { return watch || rate || count > 0 || seconds > 0 || !csv.empty() || !plot.empty(); }
  std::vector<uint32_t> subs() const { return sub ? std::vector{*sub} : std::vector<uint32_t>{0, 1}; }
};

// --- one reading ---

void show_once(const Context& context, const SignalValues& values) {
  SignalSource source(context.session);
  const std::vector<uint32_t> subs = values.subs();
  const auto reading = source.read(subs);
  if (!reading) throw Failure("reading the signal", source.problem(), "Check that the modem is alive, then try again.");
  context.output.print(reading_json(*reading), reading_text(*reading));
}

// --- pictures ---

// Open from the start, so that a recording is not made for a file that cannot be written.
class PlotFile {
 public:
  PlotFile(Output& output, const SignalValues& values)
      : path_(values.plot),
        file_(output, path_, values.force ? RecordingFile::Earlier::kReplace : RecordingFile::Earlier::kRefuse) {}

  void write(const Recording& recording) {
    if (recording.is_empty()) {
      throw Failure("drawing '" + path_ + "'", "the recording has no carrier in it",
                    "'modem_api_test signal' shows them.");
    }
    file_.write(plot_svg(recording));
  }

 private:
  const std::string path_;
  RecordingFile file_;
};

// Two names may be of one file.
void refuse_one_file(const std::string& table, const std::string& picture) {
  struct stat one {};
  struct stat other {};
  const bool are_files = stat(table.c_str(), &one) == 0 && stat(picture.c_str(), &other) == 0;
  if (are_files && one.st_dev == other.st_dev && one.st_ino == other.st_ino) {
    throw Failure::of_usage("'" + table + "' and '" + picture + "' are the same file", "Name two.");
  }
}

void draw_from_file(const Context& context, const SignalValues& values) {
  std::istringstream rows(read_file(values.from));
  Recording recording;
  recording.add_csv(rows, "the file '" + values.from + "'", values.sub);
  PlotFile file(context.output, values);
  refuse_one_file(values.from, values.plot);
  file.write(recording);
  if (values.plot == "-") return;
  context.output.print({{"from", values.from}, {"plot", values.plot}},
                       "picture of " + values.from + " written to " + values.plot);
}

// --- a series of readings ---

class Series {
 public:
  Series(const Context& context, const SignalValues& values)
      : context_(context), values_(values), source_(context.session), subs_(values.subs()), thread_(context) {
    const uint32_t rate = values.rate.value_or(kUsualRate);
    period_ = std::chrono::duration_cast<Clock::duration>(std::chrono::seconds(1)) / rate;
    // The picture's file first: it may be refused, and the CSV file has its heading once it is open.
    if (!values.plot.empty()) {
      plot_.emplace(context.output, values);
      refuse_one_file(values.csv, values.plot);
      listeners_.push_back(std::make_unique<Recorder>(recording_));
    }
    if (!values.csv.empty()) {
      const auto earlier = values.append  ? RecordingFile::Earlier::kAppend
                           : values.force ? RecordingFile::Earlier::kReplace
                                          : RecordingFile::Earlier::kRefuse;
      listeners_.push_back(std::make_unique<CsvFile>(context.output, values.csv, earlier));
    }
    listeners_.push_back(make_presentation(rate));
  }

  // Until the count, the time, or the user's wish to end. What came until then is drawn, whatever the end is.
  void run() {
    thread_.run([this] {
      std::optional<Failure> failure;
      try {
        read_all();
      } catch (const Failure& caught) {
        failure = caught;
      }
      listeners_.clear();
      if (!failure) return finish();
      if (plot_ && !recording_.is_empty()) plot_->write(recording_);
      throw *failure;
    });
  }

 private:
  void read_all() {
    Clock::time_point next = Clock::now();
    std::optional<Clock::time_point> end;
    if (values_.seconds > 0) end = next + std::chrono::seconds(values_.seconds);
    while (!is_complete() && (!end || next < *end) && context_.inbox.pause_until(next)) {
      if (!take(end)) return;
      next = std::max(next + period_, Clock::now());
    }
  }

  void finish() {
    const bool is_ended = context_.inbox.is_interrupted() || is_complete();
    const std::string problem = thread_.is_busy() ? kNoResponseText : source_.problem();
    const bool is_lost = !is_ended && !problem.empty();
    const bool has_picture = plot_ && !(is_lost && recording_.is_empty());  // the loss is why there is nothing to draw
    if (has_picture) plot_->write(recording_);
    report_files(has_picture);
    if (is_ended) return;
    if (is_lost) {
      throw Failure("recording the signal", "the modem is away: " + problem + "; " + readings_text() + " came before",
                    "Check that the modem is alive, then try again.");
    }
    if (values_.count == 0) return;
    throw Failure("recording the signal",
                  "only " + std::to_string(readings_) + " of " + std::to_string(values_.count) + " readings came in " +
                      std::to_string(values_.seconds) + " seconds",
                  "Wait longer with --for SECONDS, or read faster with --rate N.");
  }

  std::unique_ptr<SignalListener> make_presentation(uint32_t rate) const {
    Output& output = context_.output;
    if (output.is_json()) return std::make_unique<JsonLines>(output);
    if (values_.writes_to_output()) return std::make_unique<AwayRemarks>();
    if (values_.watch && is_screen(output)) {
      return std::make_unique<LiveWatch>(output, context_.session.modem().socket(), rate);
    }
    const bool is_quiet = !values_.watch && (!values_.csv.empty() || !values_.plot.empty());
    if (is_quiet) return std::make_unique<AwayRemarks>();
    return std::make_unique<LogWatch>(output, !values_.watch);
  }

  bool is_complete() const { return values_.count > 0 && readings_ == values_.count; }

  // False where the reading does not come in time.
  bool take(std::optional<Clock::time_point> end) {
    thread_.start([this] { reading_ = source_.read(subs_); });
    if (end) end = std::max(*end, Clock::now() + kLastReadingPatience);
    if (!thread_.wait(end)) return false;
    readings_ += reading_ ? 1 : 0;
    for (const auto& listener : listeners_) {
      if (reading_) {
        listener->take(*reading_);
      } else {
        listener->miss(source_.problem());
      }
    }
    return true;
  }

  std::string readings_text() const { return std::to_string(readings_) + (readings_ == 1 ? " reading" : " readings"); }

  void report_files(bool has_picture) const {
    Json document = {{"readings", readings_}};
    std::string text;
    const std::string picture = has_picture ? values_.plot : "";
    for (const auto& [word, path] : {std::pair("csv", values_.csv), std::pair("plot", picture)}) {
      if (path.empty() || path == "-") continue;
      document[word] = path;
      text += (text.empty() ? " written to " : " and ") + path;
    }
    if (text.empty() || values_.writes_to_output()) return;
    context_.output.print(document, readings_text() + text);
  }

  const Context& context_;
  const SignalValues& values_;
  SignalSource source_;
  const std::vector<uint32_t> subs_;
  Clock::duration period_{};
  std::vector<std::unique_ptr<SignalListener>> listeners_;
  Recording recording_;
  std::optional<PlotFile> plot_;
  std::optional<Reading> reading_;
  uint32_t readings_ = 0;
  ModemThread thread_;
};

void refuse_contradictions(const Context& context, const SignalValues& values) {
  if (!values.from.empty() && values.plot.empty()) {
    throw Failure::of_usage("--from names a recording, but nothing is to be made of it", "Add --plot FILE.svg.");
  }
  const bool reads = values.watch || values.rate || values.count > 0 || values.seconds > 0 || !values.csv.empty();
  if (!values.from.empty() && reads) {
    throw Failure::of_usage("--from draws an earlier recording and reads nothing from the modem",
                            "Leave out --from, or all but --plot.");
  }
  const bool others_write = context.output.is_json() || values.watch || values.csv == values.plot;
  if (values.writes_to_output() && others_write) {
    throw Failure::of_usage("--csv - and --plot - each want the standard output for themselves", "Name a file.");
  }
  const bool writes_csv_file = !values.csv.empty() && values.csv != "-";
  const bool writes_file = writes_csv_file || (!values.plot.empty() && values.plot != "-");
  if ((values.append && !writes_csv_file) || (values.force && !writes_file)) {
    throw Failure::of_usage("--append is about the file of --csv, --force about that of --csv or --plot",
                            "Name the file, or leave the option out.");
  }
}

void run_signal(const Context& context, const SignalValues& values) {
  refuse_contradictions(context, values);
  if (!values.from.empty()) return draw_from_file(context, values);
  if (!values.is_series()) return show_once(context, values);
  Series(context, values).run();
}

}  // namespace

void add_signal_command(CommandLine& line) {
  auto [command, values] = line.add("signal", "show, watch or record what the radio receives", run_signal);
  add_subscription(command, values.sub);
  command.add_flag("-w,--watch", values.watch, "a live view; lines where standard output is no terminal");
  add_number(command, "--rate", "readings a second (2)", 1, kHighestRate,
             [&rate = values.rate](int64_t value) { rate = static_cast<uint32_t>(value); });
  add_number(command, "--count", values.count, "end after that many readings");
  add_number(command, "--for", values.seconds, "end after that many seconds")->type_name("SECONDS");
  command.add_option("--csv", values.csv, "record to this file (-: standard output)")->type_name("FILE");
  command.add_option("--plot", values.plot, "draw RSRP and SNR over time, as SVG (-: standard output)")
      ->type_name("FILE");
  command.add_option("--from", values.from, "draw this CSV recording, instead of reading")->type_name("FILE");
  command.add_flag("--append", values.append, "go on with an existing CSV file");
  command.add_flag("--force", values.force, "replace existing files");
}

}  // namespace pelmar::cli
