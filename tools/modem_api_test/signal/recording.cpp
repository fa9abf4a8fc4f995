#include "signal/recording.h"

#include <algorithm>
#include <locale>
#include <sstream>

#include "output.h"

namespace pelmar::cli {

namespace {

std::string column_name(const Measure& measure, size_t chain) {
  return std::string(measure.word) + '_' + std::to_string(chain) + "_" + measure.unit;
}

std::vector<std::string> split(const std::string& line) {
  std::vector<std::string> cells(1);
  for (const char character : line) {
    if (character == ',') {
      cells.emplace_back();
    } else if (character != '\r') {
      cells.back() += character;
    }
  }
  return cells;
}

// A number as this program writes it, whatever the locale. Not std::from_chars: libc++ has none for a double.
std::optional<double> parse_level(const std::string& text) {
  std::istringstream stream(text);
  stream.imbue(std::locale::classic());
  double value = 0;
  const bool is_number = stream >> std::noskipws >> value && stream.peek() == std::istringstream::traits_type::eof();
  return is_number && std::isfinite(value) ? std::optional(value) : std::nullopt;
}

// Rows of one file, by the names of its columns.
class CsvReader {
 public:
  CsvReader(std::istream& stream, std::string name) : stream_(stream), name_(std::move(name)) {
    next();
    for (size_t i = 0; i < cells_.size(); ++i) columns_[cells_[i]] = i;
    if (!columns_.contains("time") || !columns_.contains("carrier")) {
      throw Failure("reading " + name_, "its first line does not name the columns of a recording",
                    "Record one with 'modem_api_test signal --csv FILE'.");
    }
  }

  bool next() {
    std::string line;
    if (!std::getline(stream_, line)) return false;
    ++line_;
    if (stream_.eof() && line_ > 1) {
      remark(name_ + ": its last line, " + std::to_string(line_) + ", is cut, and is left out");
      return false;
    }
    cells_ = split(line);
    return true;
  }

  // Empty also for a column that the file has not.
  std::string cell(const std::string& column) const {
    const auto found = columns_.find(column);
    return found != columns_.end() && found->second < cells_.size() ? cells_[found->second] : "";
  }

  template <typename Value>
  Value require(const std::optional<Value>& value, const std::string& column) const {
    if (value) return *value;
    throw Failure("reading " + name_,
                  "line " + std::to_string(line_) + ": '" + cell(column) + "' is no " + column + " of a recording");
  }

  double level(const std::string& column) const {
    const std::string text = cell(column);
    return text.empty() ? kNoLevel : require(parse_level(text), column);
  }

  std::optional<uint32_t> number(const std::string& column) const {
    if (cell(column).empty()) return std::nullopt;
    return static_cast<uint32_t>(require(parse_number(cell(column), 0, UINT32_MAX), column));
  }

 private:
  std::istream& stream_;
  const std::string name_;
  size_t line_ = 0;
  std::map<std::string, size_t> columns_;
  std::vector<std::string> cells_;
};

bool is_earlier(const TrackPoint& a, const TrackPoint& b) {
  return a.time < b.time;
}

// Rounds the time as in a file, so that a plot of the file equals that of the readings.
TrackPoint point_of(WallClock::time_point time, const Carrier& carrier, double tx_power) {
  return {std::chrono::floor<std::chrono::milliseconds>(time), strongest(carrier.rsrp), strongest(carrier.snr),
          carrier.name.index == 0 ? tx_power : kNoLevel,       carrier.channel,         carrier.pci};
}

}  // namespace

std::string csv_header() {
  std::string line = "time,sub,mode,tx_power_dbm,carrier,channel,pci";
  for (const Measure& measure : kMeasures) {
    for (size_t chain = 0; chain < kChains; ++chain) line += ',' + column_name(measure, chain);
  }
  for (size_t chain = 0; chain < kChains; ++chain) line += ",rx_antenna_" + std::to_string(chain);
  return line + "\n";
}

std::string csv_rows(const Reading& reading) {
  std::string rows;
  for (const SubscriptionReading& sub : reading.subs) {
    for (const Carrier& carrier : sub.carriers) {
      rows += utc_text(reading.time) + ',' + std::to_string(sub.sub) + ',' + number_text(sub.mode, "") + ',' +
              number_text(sub.tx_power, "") + ',' + word_of(carrier.name) + ',' + number_text(carrier.channel, "") +
              ',' + number_text(carrier.pci, "");
      for (const Measure& measure : kMeasures) {
        for (const double level : carrier.*measure.levels) rows += std::isnan(level) ? "," : ',' + level_text(level);
      }
      // Antennas are those of the primary NR carrier's chains.
      const size_t antennas = carrier.name == CarrierName{Technology::kNr, 0} ? sub.rx_antennas.size() : 0;
      for (size_t i = 0; i < kChains; ++i) rows += ',' + (i < antennas ? std::to_string(sub.rx_antennas[i].now) : "");
      rows += "\n";
    }
  }
  return rows;
}

void add_reading(Recording& recording, const Reading& reading) {
  for (const SubscriptionReading& sub : reading.subs) {
    for (const Carrier& carrier : sub.carriers) {
      Track& track = recording[{sub.sub, carrier.name}];
      const TrackPoint point = point_of(reading.time, carrier, sub.tx_power ? *sub.tx_power : kNoLevel);
      track.insert(std::upper_bound(track.begin(), track.end(), point, is_earlier), point);
    }
  }
}

void add_csv(Recording& recording, std::istream& stream, const std::string& name, std::optional<uint32_t> only_sub) {
  CsvReader reader(stream, name);
  while (reader.next()) {
    if (reader.cell("time").empty()) continue;
    const auto time = reader.require(parse_utc_text(reader.cell("time")), "time");
    const auto sub = reader.require(parse_number(reader.cell("sub"), 0, kSubscriptions - 1), "sub");
    if (only_sub.value_or(static_cast<uint32_t>(sub)) != sub) continue;
    Carrier carrier;
    carrier.name = reader.require(carrier_of_word(reader.cell("carrier")), "carrier");
    for (const Measure& measure : kMeasures) {
      for (size_t i = 0; i < kChains; ++i) (carrier.*measure.levels)[i] = reader.level(column_name(measure, i));
    }
    carrier.channel = reader.number("channel");
    carrier.pci = reader.number("pci");
    const TrackPoint point = point_of(time, carrier, reader.level("tx_power_dbm"));
    recording[{static_cast<uint32_t>(sub), carrier.name}].push_back(point);
  }
  for (auto& [key, track] : recording) std::stable_sort(track.begin(), track.end(), is_earlier);
}

}  // namespace pelmar::cli
