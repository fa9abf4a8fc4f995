// signal: what the radio receives, read once, watched, recorded, or drawn from a recording.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

#include "command_line.h"
#include "modem_hydra.h"
#include "modem_link.h"
#include "signal/metrics.h"
#include "signal/recording.h"
#include "signal/screen.h"

namespace pelmar::cli {

#ifndef PELMAR_PROMETHEUS
// In place of signal/metrics.cpp.
const char* const kServeHelp = "serve the readings as Prometheus metrics (not in this build: it lacks prometheus-cpp)";

TakeReading serve_metrics(const std::string& /*address*/) {
  throw Failure::of_usage("this build has no --serve", "Install Debian's prometheus-cpp-dev and build again.");
}
#endif

namespace {

constexpr uint32_t kUsualRate = 2;
constexpr uint32_t kHighestRate = 50;
constexpr std::chrono::milliseconds kLastReadingTimeout{500};  // beyond --for
constexpr std::chrono::milliseconds kLinePeriod{950};          // a second, however the readings fall

constexpr const char* kLiveViewKeys =
    "Keys of the live view:\n"
    "  q  ends\n"
    "  p  pauses the view, not the readings; again: continues\n"
    "  1, 2  show subscription 0 or 1 alone; again: both\n"
    "  arrows  scroll the lines (up and down) and the history (left and right)\n"
    "RSRP is in dBm, SNR in dB.";

struct SignalValues {
  std::optional<uint32_t> sub;
  bool watch = false;
  std::optional<uint32_t> rate;
  uint32_t count = 0;    // 0: no limit
  uint32_t seconds = 0;  // 0: no limit
  std::string csv;
  std::string plot;
  std::string title;
  std::string from;
  std::optional<std::string> serve;
  bool append = false;
  bool force = false;

  bool writes_to_output() const { return csv == "-" || plot == "-"; }
  bool is_series() const { return watch || rate || count > 0 || seconds > 0 || !csv.empty() || !plot.empty() || serve; }
  std::vector<uint32_t> subs() const { return sub ? std::vector{*sub} : std::vector<uint32_t>{0, 1}; }
};

// --- the readings ---

modem_api_result probe() {
  stats_para_data data = probe_request();
  return modem_hydra_get_stats_parameter(0, 0, &data);
}

// Opens hydra. Throws if the modem does not respond, or does not read its statistics.
ModemLink link_to_hydra(Session& session) {
  const auto open = [&session] {
    session.restart();
    session.open_hydra();
    check(probe(), "reading the modem's statistics");
  };
  return {open, probe, true};
}

// Returns no reading while the modem does not respond. A missing value does not show why it is missing, so every
// reading first checks whether the modem responds. Even after a short restart, one reading is absent.
std::optional<Reading> read(ModemLink& link, const SignalValues& values) {
  if (!link.is_up()) return std::nullopt;
  Reading reading = read_signal(values.subs());
  const bool is_whole = std::all_of(reading.subs.begin(), reading.subs.end(),
                                    [](const SubscriptionReading& sub) { return sub.has_values(); });
  if (!is_whole && !link.is_up()) return std::nullopt;
  return reading;
}

void show_once(const Context& context, const SignalValues& values) {
  ModemLink link = link_to_hydra(context.session);
  const auto reading = read(link, values);
  if (!reading) throw Failure("reading the signal", link.problem(), kCheckModem);
  context.output.print(reading_json(*reading), reading_text(*reading));
}

// --- files ---

// The picture's file is open from the start, so that a recording is not made for a file that cannot be written.
RecordingFile open_plot(Output& output, const SignalValues& values) {
  return {output, values.plot, values.force ? RecordingFile::Earlier::kReplace : RecordingFile::Earlier::kRefuse};
}

void draw(const Recording& recording, const SignalValues& values, RecordingFile& file) {
  if (recording.empty()) {
    throw Failure("drawing '" + values.plot + "'", "the recording has no carrier in it",
                  "'modem_api_test signal' shows them.");
  }
  file.write(plot_svg(recording, values.title.empty() ? "Signal of the serving carriers" : values.title));
}

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
  std::istringstream rows(read_file(values.from.c_str(), "reading the file '" + values.from + "'"));
  Recording recording;
  add_csv(recording, rows, "the file '" + values.from + "'", values.sub);
  RecordingFile file = open_plot(context.output, values);
  refuse_one_file(values.from, values.plot);
  draw(recording, values, file);
  if (values.plot == "-") return;
  context.output.print({{"type", "summary"}, {"from", values.from}, {"plot", values.plot}},
                       "picture of " + values.from + " written to " + values.plot);
}

// Opens a CSV file, or standard output for "-", up to its last whole line, and writes the heading where there is none.
// Throws where the file cannot be written, and for kAppend where it has other columns.
std::unique_ptr<RecordingFile> open_csv(Output& output, const std::string& path, RecordingFile::Earlier earlier) {
  auto file = std::make_unique<RecordingFile>(output, path, earlier);
  const bool goes_on = earlier == RecordingFile::Earlier::kAppend && path != "-";
  const std::string before = goes_on ? read_file(path.c_str(), "reading the file '" + path + "'") : "";
  if (!before.starts_with(csv_header()) && !csv_header().starts_with(before)) {
    throw Failure("appending to the file '" + path + "'", "its columns are not those of a recording",
                  "Name another file.");
  }
  const size_t whole = before.rfind('\n') + 1;
  if (whole < before.size()) {
    remark("the last line of '" + path + "' is cut, and is left out");
    if (truncate(path.c_str(), static_cast<off_t>(whole)) != 0) throw Failure::of_system("writing '" + path + "'");
  }
  if (whole == 0) file->write(csv_header());
  return file;
}

// --- a series of readings ---

// How the readings of a series are shown, besides the files that they go to.
enum class Show {
  kLive,     // on the screen
  kLines,    // lines for a log, one a subscription, or a JSON document a reading
  kRemarks,  // only remarks on standard error that the modem was lost and is back
};

class Series {
 public:
  Series(const Context& context, const SignalValues& values, const TakeReading& serve)
      : context_(context),
        values_(values),
        serve_(serve),
        link_(link_to_hydra(context.session)),
        show_(show_of(context, values)),
        thread_(context) {
    context.require_end(values.seconds, values.count);
    // The picture's file first: it may be refused, and the CSV file has its heading once it is open.
    if (!values.plot.empty()) {
      plot_.reset(new RecordingFile(open_plot(context.output, values)));
      refuse_one_file(values.csv, values.plot);
    }
    if (!values.csv.empty()) {
      const auto earlier = values.append  ? RecordingFile::Earlier::kAppend
                           : values.force ? RecordingFile::Earlier::kReplace
                                          : RecordingFile::Earlier::kRefuse;
      csv_ = open_csv(context.output, values.csv, earlier);
    }
    if (show_ == Show::kLive) live_.emplace(context.output, context.inbox, context.session.modem().address, rate());
  }

  // Reads until the count, the time or the user ends it. The readings up to then are drawn, also after a failure.
  void run() {
    thread_.run([this] {
      try {
        read_all();
      } catch (const Failure&) {
        live_.reset();
        if (plot_ && !recording_.empty()) draw(recording_, values_, *plot_);
        throw;
      }
      live_.reset();
      finish();
    });
  }

 private:
  void read_all() {
    const auto end = deadline_after(values_.seconds);
    const auto period = std::chrono::duration_cast<Clock::duration>(std::chrono::seconds(1)) / rate();
    Clock::time_point next = Clock::now();
    while (!is_complete() && (!end || next < *end) && context_.inbox.pause_until(next)) {
      if (!take(next, end)) return;
      next = std::max(next + period, Clock::now());
    }
  }

  void finish() {
    const bool is_ended = context_.inbox.is_interrupted() || is_complete();
    const std::string problem = thread_.is_busy() ? kNoResponseText : link_.problem();
    const bool is_lost = !is_ended && !problem.empty();
    const bool has_picture = plot_ && !(is_lost && recording_.empty());  // the loss is why there is nothing to draw
    if (has_picture) draw(recording_, values_, *plot_);
    report_files(has_picture);
    if (is_ended) return;
    if (is_lost) {
      throw Failure("recording the signal",
                    "the modem is away: " + problem + "; " + count_of(readings_, "reading") + " came before",
                    kCheckModem);
    }
    if (values_.count == 0) return;
    throw Failure("recording the signal",
                  "only " + std::to_string(readings_) + " of " + std::to_string(values_.count) + " readings came in " +
                      std::to_string(values_.seconds) + " seconds",
                  "Wait longer with --for SECONDS, or read faster with --rate N.");
  }

  static Show show_of(const Context& context, const SignalValues& values) {
    if (context.output.is_json()) return Show::kLines;
    if (values.writes_to_output()) return Show::kRemarks;
    if (values.watch) return is_screen(context.output) ? Show::kLive : Show::kLines;
    return values.csv.empty() && values.plot.empty() && !values.serve ? Show::kLines : Show::kRemarks;
  }

  uint32_t rate() const { return values_.rate.value_or(kUsualRate); }
  bool is_complete() const { return values_.count > 0 && readings_ == values_.count; }

  // False where the reading that is due does not come in time.
  bool take(Clock::time_point due, std::optional<Clock::time_point> end) {
    thread_.start([this] { reading_ = read(link_, values_); });
    if (end) end = std::max(*end, Clock::now() + kLastReadingTimeout);
    if (!thread_.wait(end)) return false;
    if (serve_) serve_(reading_, link_.problem());
    if (reading_) {
      ++readings_;
      if (plot_) add_reading(recording_, *reading_);
      if (csv_) csv_->write(csv_rows(*reading_));
      show_reading(*reading_, due);
    } else {
      show_loss(link_.problem());
    }
    return true;
  }

  void show_reading(const Reading& reading, Clock::time_point due) {
    const bool is_back = std::exchange(is_lost_, false);
    if (show_ == Show::kLive) return live_->take(reading);
    if (show_ == Show::kRemarks) {
      if (is_back) remark(kBackText);
      return;
    }
    Output& output = context_.output;
    if (!output.is_json() && !std::exchange(has_heading_, true)) output.print(Json(), kReadingLineHeading);
    if (is_back) {
      output.print({{"type", "notice"}, {"time", utc_text(reading.time)}, {"notice", "modem_back"}},
                   local_text(reading.time) + "  " + kBackText);
    }
    // A log of a long time has a line a second.
    if (values_.watch && !output.is_json() && due < next_line_) return;
    next_line_ = due + kLinePeriod;
    output.print(reading_json(reading), reading_line(reading));
  }

  void show_loss(const std::string& problem) {
    if (show_ == Show::kLive) return live_->miss(problem);
    if (std::exchange(is_lost_, true)) return;
    if (show_ == Show::kRemarks) return remark(away_text(problem));
    const auto now = WallClock::now();
    context_.output.print({{"type", "notice"}, {"time", utc_text(now)}, {"notice", "modem_away"}, {"reason", problem}},
                          local_text(now) + "  " + away_text(problem));
  }

  void report_files(bool has_picture) const {
    Json document = {{"type", "summary"}, {"readings", readings_}};
    std::string text;
    const std::string picture = has_picture ? values_.plot : "";
    for (const auto& [word, path] : {std::pair("csv", values_.csv), std::pair("plot", picture)}) {
      if (path.empty() || path == "-") continue;
      document[word] = path;
      text += (text.empty() ? " written to " : " and ") + path;
    }
    if (text.empty() || values_.writes_to_output()) return;
    context_.output.print(document, count_of(readings_, "reading") + text);
  }

  const Context& context_;
  const SignalValues& values_;
  const TakeReading& serve_;
  ModemLink link_;
  const Show show_;
  std::optional<LiveWatch> live_;
  std::unique_ptr<RecordingFile> csv_;
  std::unique_ptr<RecordingFile> plot_;
  Recording recording_;
  bool is_lost_ = false;
  bool has_heading_ = false;
  Clock::time_point next_line_;
  std::optional<Reading> reading_;
  uint32_t readings_ = 0;
  ModemThread thread_;
};

void refuse_contradictions(const Context& context, const SignalValues& values) {
  if (values.csv == "-") require_no_documents(context.output, "--csv -");
  if (values.plot == "-") require_no_documents(context.output, "--plot -");
  if (values.writes_to_output() && (values.watch || values.csv == values.plot)) {
    throw Failure::of_usage(std::string(values.csv == "-" ? "--csv -" : "--plot -") + " and " +
                                (values.watch ? "--watch" : "--plot -") + " both write to standard output",
                            "Name a file.");
  }
  const bool writes_csv_file = !values.csv.empty() && values.csv != "-";
  const bool writes_file = writes_csv_file || (!values.plot.empty() && values.plot != "-");
  if ((values.append && !writes_csv_file) || (values.force && !writes_file)) {
    throw Failure::of_usage("--append needs --csv FILE, and --force needs --csv FILE or --plot FILE",
                            "Name the file, or leave the option out.");
  }
}

void run_signal(const Context& context, const SignalValues& values) {
  refuse_contradictions(context, values);
  if (!values.from.empty()) return draw_from_file(context, values);
  if (!values.is_series()) return show_once(context, values);
  // Before the modem is there, which may be waited for.
  const TakeReading serve = values.serve ? serve_metrics(*values.serve) : nullptr;
  Series(context, values, serve).run();
}

}  // namespace

void add_signal_command(CommandLine& line) {
  auto [command, values] = line.add("signal", "show, watch or record what the radio receives", run_signal);
  command.add_subscription(values.sub);
  command.add_flag("-w,--watch", values.watch, "a live view; lines where standard output is no terminal");
  command.add_number("--rate", values.rate, "readings a second, 2 without it", kHighestRate, 1);
  command.add_number("--count", values.count, "end after that many readings", {.otherwise = "no limit"});
  command.add_duration(values.seconds);
  command.add_text("--csv", values.csv, "record to this file (-: standard output)", {.type = "FILE"});
  command.add_text("--plot", values.plot, "draw RSRP, SNR and transmit power over time, as SVG (-: standard output)",
                   {.type = "FILE"});
  command.add_text("--title", values.title, "title of the picture",
                   {.type = "TEXT", .needs = "--plot", .otherwise = "Signal of the serving carriers"});
  command.add_text("--serve", values.serve, kServeHelp, {.type = "ADDRESS"});
  command.add_text(
      "--from", values.from, "draw this CSV recording, instead of reading",
      {.type = "FILE", .excludes = {"--watch", "--rate", "--count", "--for", "--csv", "--serve"}, .needs = "--plot"});
  command.add_flag("--append", values.append, "continue an existing CSV file");
  command.add_flag("--force", values.force, "replace existing files");
  command.add_notes(kLiveViewKeys);
  command.add_examples({"--watch", "--for 60 --csv drive.csv --plot drive.svg", "--rate 1 --serve 127.0.0.1:9464"});
}

}  // namespace pelmar::cli
