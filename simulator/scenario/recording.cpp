#include "scenario/recording.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "scenario/scenario.h"
#include "statistics/statistic_rows.h"

namespace pelmar::sim {

namespace {

using Document = nlohmann::ordered_json;

constexpr size_t kMaxNumbers = size_t{8} << 20;  // about those of the longest scenario that a modem plays
constexpr size_t kMaxLine = size_t{1} << 20;
constexpr int kMaxDepth = 8;  // of a JSON document

// The numbers of a row, by their columns without units: "rsrp_0". A JSON document becomes a row for each carrier, with
// "rsrp_dbm": [1, 2] as "rsrp_0" and "rsrp_1", and one row without a carrier.
using Cells = std::map<std::string, double>;

// Where the numbers of a column go. '#' is the number of a receive chain.
struct Column {
  std::string_view carriers;  // what their names begin with
  std::string_view column;
  std::string_view statistic;  // empty: the carrier's own, which has its name
  std::string_view field;
  double factor;
};
constexpr double kTenths = 10;
constexpr std::string_view kLevelOfChain = "rsrp_rx#";
constexpr Column kColumns[] = {
    {"lte", "channel", "", "earfcn", 1},
    {"lte", "pci", "", "pci", 1},
    {"lte", "rsrp_#", "", kLevelOfChain, kTenths},
    {"lte", "rsrq_#", "", "rsrq_rx#", kTenths},
    {"lte", "rssi_#", "", "rssi_rx#", kTenths},
    {"lte", "snr_#", "", "snr_rx#", kTenths},
    {"nr", "rsrp_#", "", kLevelOfChain, kTenths},
    {"nr", "rsrq_0", "", "rsrq", kTenths},
    {"nr_pcc", "rssi_#", "nr-rx-gain", "rssi#", kTenths},
    {"nr_pcc", "snr_#", "nr-tracking", "snr#", kTenths},
    {"nr_pcc", "rx_antenna_#", "nr-antennas", "ant_rx_#_old", 1},
    {"nr_pcc", "rx_antenna_#", "nr-antennas", "ant_rx_#_new", 1},
    {"", "mode", "system-mode", "rat", 1},
    {"", "tx_power", "lte-uplink", "pusch_tx_power", 1},
    {"", "tx_power", "nr-uplink", "tx_power_pusch", 1},
    // JSON has these, too.
    {"", "gain_nr_#", "nr-rx-gain", "rssi#", kTenths},
    {"", "gain_wcdma_#", "wcdma-search", "rx_agc_#", kTenths},
    {"", "gain_gsm_0", "gsm-levels", "rx_prx", kTenths},
    {"", "gain_gsm_1", "gsm-levels", "rx_drx", kTenths},
    {"", "rx_antennas_#_before", "nr-antennas", "ant_rx_#_old", 1},
    {"", "rx_antennas_#_now", "nr-antennas", "ant_rx_#_new", 1},
    {"", "tx_antennas_#_before", "nr-antennas", "ant_tx_#_old", 1},
    {"", "tx_antennas_#_now", "nr-antennas", "ant_tx_#_new", 1},
    {"", "transmit_switching_antennas", "antenna-switch", "ant_number", 1},
    {"", "transmit_switching_switch_path", "antenna-switch", "ant_switch_path", 1},
    {"", "transmit_switching_signal_path", "antenna-switch", "sig_path", 1},
    {"", "transmit_switching_before", "antenna-switch", "old_config", 1},
    {"", "transmit_switching_now", "antenna-switch", "new_config", 1},
};

std::string with_chain(std::string_view name, size_t chain) {
  std::string text(name);
  std::replace(text.begin(), text.end(), '#', static_cast<char>('0' + chain));
  return text;
}

// The names of a column and its field for one chain.
struct ColumnOfChain {
  std::string column;
  std::string field;
};

// For each row of kColumns its chains, or one entry for a column without chains.
std::vector<std::vector<ColumnOfChain>> columns_of_chains() {
  std::vector<std::vector<ColumnOfChain>> rows;
  for (const Column& column : kColumns) {
    auto& chains = rows.emplace_back();
    const bool has_chains = column.column.find('#') != column.column.npos;
    for (size_t chain = 0; chain < (has_chains ? kChains : 1); ++chain) {
      chains.push_back({with_chain(column.column, chain), with_chain(column.field, chain)});
    }
  }
  return rows;
}

std::string without_unit(const std::string& name) {
  for (const std::string_view unit : {"_dbm", "_db"}) {
    if (name.ends_with(unit)) return name.substr(0, name.size() - unit.size());
  }
  return name;
}

// A statistics value over time. Between readings it stays.
class Track {
 public:
  explicit Track(const StatisticRow& row) : row_(row), numbers_(row.fields.size()), is_used_(row.fields.size()) {}

  // A value without such a field is left as it is.
  void set(std::string_view field, double number) {
    const auto* const found = row_.find_field(field);
    if (found == nullptr) return;
    const auto place = static_cast<size_t>(found - row_.fields.data());
    numbers_[place] = std::llround(number);
    is_used_[place] = is_there_ = true;
  }

  void set_measured(size_t chain) { measured_chains_ |= 1u << chain; }

  // Returns how many numbers it keeps of the reading.
  size_t end_reading(double seconds) {
    if (is_there_) {
      set("rx_valid", std::exchange(measured_chains_, 0));
      set("is_srv_cell", 1);
    }
    Point point = {std::exchange(is_there_, false), numbers_};
    if (!points_.empty() && points_.back().second == point) return 0;
    points_.emplace_back(seconds, std::move(point));
    return 1 + numbers_.size();
  }

  // Optional values that the recording does not have are played from the simulated radio.
  bool is_recorded() const {
    const bool is_always = row_.name.starts_with("lte") || row_.name.starts_with("nr") || row_.name == "system-mode";
    return is_always || std::find(is_used_.begin(), is_used_.end(), true) != is_used_.end();
  }

  Document to_json(size_t sub) const {
    Document fields = {"present"};
    Document points = Document::array();
    for (size_t i = 0; i < is_used_.size(); ++i) {
      if (is_used_[i]) fields.push_back(row_.field_name(row_.fields[i]));
    }
    for (const auto& [seconds, point] : points_) {
      Document& list = points.emplace_back(Document{seconds, point.first ? 1 : 0});
      for (size_t i = 0; i < is_used_.size(); ++i) {
        if (is_used_[i]) list.push_back(point.second[i]);
      }
    }
    return {{"sub", sub}, {"statistic", row_.name}, {"interpolation", "step"}, {"fields", fields}, {"points", points}};
  }

 private:
  using Point = std::pair<bool, std::vector<int64_t>>;  // whether it is there, and its numbers

  const StatisticRow& row_;
  bool is_there_ = false;  // in the present reading
  unsigned measured_chains_ = 0;
  std::vector<int64_t> numbers_;
  std::vector<bool> is_used_;
  std::vector<std::pair<double, Point>> points_;
};

class Tracks {
 public:
  Tracks() {
    for (Subscription& sub : subs_) {
      for (const StatisticRow& row : statistic_rows()) sub.tracks.emplace(row.name, row);
    }
  }

  // Rows of one time are of one reading. False for a time before that of the present one.
  bool add(int64_t time_ms, size_t sub, const std::string& carrier, const Cells& cells) {
    if (!is_empty() && time_ms < time_) return false;
    if (is_empty()) start_ = time_ = time_ms;
    if (time_ms > time_) end_reading();
    time_ = time_ms;
    Subscription& to = subs_[sub];
    to.is_recorded = to.is_in_reading = true;
    std::string own = carrier;
    std::replace(own.begin(), own.end(), '_', '-');
    for (const Column& column : kColumns) {
      const auto track = to.tracks.find(column.statistic.empty() ? std::string_view(own) : column.statistic);
      if (carrier.starts_with(column.carriers) && track != to.tracks.end()) put(track->second, column, cells);
    }
    return true;
  }

  bool is_empty() const {
    return std::none_of(subs_.begin(), subs_.end(), [](const Subscription& sub) { return sub.is_recorded; });
  }

  std::string to_text(const std::string& name) {
    end_reading();
    const Document description = "the recording " + name;
    std::string text =
        "{\"description\": " + description.dump(-1, ' ', true, Document::error_handler_t::replace) + ", \"tracks\": [";
    for (size_t sub = 0; sub < kSubscriptions; ++sub) {
      for (const StatisticRow& row : statistic_rows()) {
        const Track& track = subs_[sub].tracks.at(row.name);
        if (!subs_[sub].is_recorded || !track.is_recorded()) continue;
        text += (text.ends_with('[') ? "\n" : ",\n") + track.to_json(sub).dump();
      }
    }
    return text + "\n]}\n";
  }

 private:
  struct Subscription {
    std::map<std::string_view, Track> tracks;
    bool is_recorded = false;
    bool is_in_reading = false;
  };

  static void put(Track& track, const Column& column, const Cells& cells) {
    static const std::vector<std::vector<ColumnOfChain>> kOfChains = columns_of_chains();
    const auto& chains = kOfChains[static_cast<size_t>(&column - kColumns)];
    for (size_t chain = 0; chain < chains.size(); ++chain) {
      const auto cell = cells.find(chains[chain].column);
      if (cell == cells.end()) continue;
      track.set(chains[chain].field, cell->second * column.factor);
      if (column.field == kLevelOfChain) track.set_measured(chain);
    }
  }

  // A subscription without a row is out of service.
  void end_reading() {
    for (Subscription& sub : subs_) {
      if (!std::exchange(sub.is_in_reading, false)) sub.tracks.at("system-mode").set("rat", 0);
      for (auto& [name, track] : sub.tracks) kept_ += track.end_reading(static_cast<double>(time_ - start_) / 1000);
    }
    if (kept_ > kMaxNumbers) throw std::runtime_error("it is too long for a scenario: cut it");
  }

  std::array<Subscription, kSubscriptions> subs_;
  int64_t start_ = 0;  // milliseconds since 1970, as is the time
  int64_t time_ = 0;
  size_t kept_ = 0;
};

// --- the two forms ---

int64_t parse_time(const std::string& text) {
  tm utc{};
  int milliseconds = 0;
  int length = 0;
  const int fields = sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%3dZ%n", &utc.tm_year, &utc.tm_mon, &utc.tm_mday,
                            &utc.tm_hour, &utc.tm_min, &utc.tm_sec, &milliseconds, &length);
  if (fields != 7 || static_cast<size_t>(length) != text.size()) throw std::runtime_error("'" + text + "' is no time");
  utc.tm_year -= 1900;
  utc.tm_mon -= 1;
  return int64_t{timegm(&utc)} * 1000 + milliseconds;
}

size_t check_sub(double number) {
  if (number == 0 || number == 1) return static_cast<size_t>(number);
  throw std::runtime_error("'sub' is neither 0 nor 1");
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

bool add_csv_row(Tracks& tracks, const std::vector<std::string>& columns, const std::string& line) {
  const std::vector<std::string> texts = split(line);
  if (texts.size() != columns.size()) throw std::runtime_error("it has not as many cells as the first line");
  std::string time;
  std::string carrier;
  Cells cells;
  for (size_t i = 0; i < texts.size(); ++i) {
    if (columns[i] == "time") time = texts[i];
    if (columns[i] == "carrier") carrier = texts[i];
    if (texts[i].empty() || columns[i] == "time" || columns[i] == "carrier") continue;
    char* end = nullptr;
    const double number = strtod(texts[i].c_str(), &end);
    if (*end != '\0' || !std::isfinite(number)) throw std::runtime_error("'" + texts[i] + "' is no number");
    cells[without_unit(columns[i])] = number;
  }
  return tracks.add(parse_time(time), check_sub(cells.contains("sub") ? cells["sub"] : -1), carrier, cells);
}

void flatten(const Document& value, const std::string& name, Cells& cells, int depth = 0) {
  if (value.is_number()) cells[name] = value.get<double>();
  if (!value.is_structured() || depth == kMaxDepth) return;
  for (const auto& [member, inner] : value.items()) {
    std::string inner_name = name;
    inner_name.append(name.empty() ? "" : "_").append(without_unit(member));
    flatten(inner, inner_name, cells, depth + 1);
  }
}

bool add_json_document(Tracks& tracks, const Document& document) {
  if (!document.is_object() || !document.contains("subscriptions")) return true;  // a summary
  const int64_t time = parse_time(document.at("time").get<std::string>());
  bool is_in_order = true;
  for (Document sub : document.at("subscriptions")) {
    const size_t number = check_sub(sub.at("sub").get<double>());
    const Document carriers = sub.at("carriers");
    sub.erase("carriers");
    Cells cells;
    flatten(sub, "", cells);
    is_in_order = tracks.add(time, number, "", cells) && is_in_order;
    for (const Document& carrier : carriers) {
      Cells of_carrier;
      flatten(carrier, "", of_carrier);
      tracks.add(time, number, carrier.at("carrier").get<std::string>(), of_carrier);
    }
  }
  return is_in_order;
}

// Reads a line of bounded length. At the end of the input, what is left is a line that is cut. False where nothing is.
bool read_line(std::istream& input, std::string& line) {
  using Traits = std::istream::traits_type;
  line.clear();
  for (;;) {
    const Traits::int_type next = input.rdbuf()->sbumpc();
    if (Traits::eq_int_type(next, Traits::eof())) {
      input.setstate(std::ios::eofbit);
      return !line.empty();
    }
    if (next == '\n') return true;
    if (line.size() == kMaxLine) throw std::runtime_error("it is too long");
    line += Traits::to_char_type(next);
  }
}

}  // namespace

std::string scenario_of_recording(std::istream& recording, const std::string& name) {
  Tracks tracks;
  std::vector<std::string> columns;
  size_t number = 0;
  const auto remark = [&](const char* problem) {
    fprintf(stderr, "modem_sim: ignoring line %zu of '%s', %s\n", number, name.c_str(), problem);
  };
  try {
    for (std::string line; ++number, read_line(recording, line);) {
      if (recording.eof()) {
        remark("which is cut");
      } else if (line.starts_with('{')) {
        if (!add_json_document(tracks, Document::parse(line))) remark("whose time is before that of the line before");
      } else if (columns.empty()) {
        columns = split(line);
        if (!line.starts_with("time,")) throw std::runtime_error("neither the columns nor a document of a recording");
      } else if (!line.empty() && !add_csv_row(tracks, columns, line)) {
        remark("whose time is before that of the line before");
      }
    }
    --number;  // the last line
    if (tracks.is_empty()) throw std::runtime_error("no reading: 'modem_api_test signal --csv FILE' records them");
  } catch (const std::ios_base::failure& error) {
    throw std::runtime_error("cannot read '" + name + "': " + error.code().message());
  } catch (const std::exception& error) {
    throw std::runtime_error(name + ": line " + std::to_string(number) + ": " + error.what());
  }
  std::string text = tracks.to_text(name);
  if (text.size() > kMaxScenarioBytes) throw std::runtime_error(name + ": it is too long for a scenario: cut it");
  try {
    parse_scenario(text, [](const std::string&) {});
  } catch (const ScenarioError& error) {
    throw std::runtime_error(name + ": it cannot be converted to a scenario: " + error.what());
  }
  return text;
}

}  // namespace pelmar::sim
