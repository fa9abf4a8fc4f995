#include "scenario/scenario.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "io/text.h"

namespace pelmar::sim {

namespace {

using Json = nlohmann::json;

constexpr double kMaxSeconds = 1'000'000;
constexpr std::string_view kPresenceName = "present";
constexpr NumberRange kPresenceRange = {0, 1};

constexpr statistics::Field kRadioFields[] = {{"attenuation", WireType::kU8}};
constexpr StatisticRow kRadioRow = {Scenario::kRadio, "a subscription", kRadioFields, 0, nullptr, nullptr};

// A JSON value and the name of its place.
struct Node {
  const Json& value;
  std::string place;

  [[noreturn]] void refuse(const std::string& problem) const {
    throw ScenarioError((place.empty() ? "the scenario" : place) + ": " + problem);
  }

  Node operator[](size_t index) const { return {value[index], place + '[' + std::to_string(index) + ']'}; }

  // Nothing where the object has no such member.
  std::optional<Node> find(const char* name) const {
    const auto member = value.find(name);
    if (member == value.end()) return std::nullopt;
    return Node{*member, place.empty() ? name : place + '.' + name};
  }

  Node get(const char* name) const {
    if (const auto member = find(name)) return *member;
    refuse(std::string("\"") + name + "\" is missing");
  }

  void require_object(std::initializer_list<std::string_view> members) const {
    if (!value.is_object()) refuse("an object is expected");
    for (const auto& [name, member] : value.items()) {
      if (std::find(members.begin(), members.end(), name) == members.end()) refuse("unknown member \"" + name + '"');
    }
  }

  void require_array() const {
    if (!value.is_array() || value.empty()) refuse("an array of at least one element is expected");
  }

  const std::string& text() const {
    if (!value.is_string()) refuse("a string is expected");
    return value.get_ref<const std::string&>();
  }

  double number(const NumberRange& range) const {
    if (!value.is_number()) refuse("a number is expected");
    const double number = value.get<double>();
    if (!(number >= range.least && number <= range.most)) {
      refuse(value.dump() + " is not within " + Json(range.least).dump() + " to " + Json(range.most).dump());
    }
    return number;
  }
};

// Returns the statistic of a name, a number, or a number as text such as "0x52".
const StatisticRow& parse_statistic(const Node& node) {
  const StatisticRow* row = nullptr;
  if (node.value.is_number_unsigned() && node.value.get<uint64_t>() <= UINT32_MAX) {
    row = find_statistic(node.value.get<uint32_t>());
  } else {
    const std::string& text = node.text();
    const auto number = parse_number(text);
    row = number && *number <= UINT32_MAX ? find_statistic(static_cast<uint32_t>(*number)) : find_statistic(text);
  }
  if (row == nullptr) node.refuse("the modem has no statistic " + node.value.dump());
  return *row;
}

size_t parse_field(const Node& node, const StatisticRow& row) {
  const std::string& name = node.text();
  if (name == kPresenceName && row.id != Scenario::kRadio) return Scenario::kPresence;
  const statistics::Field* const field = row.find_field(name);
  if (field == nullptr) node.refuse(std::string(row.name) + " has no field \"" + name + '"');
  return static_cast<size_t>(field - row.fields.data());
}

// [SECONDS, NUMBER...]
Scenario::Point parse_point(const Node& node, const StatisticRow& row, const std::vector<size_t>& fields) {
  if (!node.value.is_array() || node.value.size() != fields.size() + 1) {
    node.refuse("the time and " + std::to_string(fields.size()) + " numbers, one a field, are expected");
  }
  Scenario::Point point{node[0].number({0, kMaxSeconds}), {}};
  for (size_t i = 0; i < fields.size(); ++i) {
    const bool is_presence = fields[i] == Scenario::kPresence;
    point.numbers.push_back(node[i + 1].number(is_presence ? kPresenceRange : range_of(row.fields[fields[i]].type)));
  }
  return point;
}

Scenario::Track parse_track(const Node& node) {
  node.require_object({"sub", "statistic", "fields", "interpolation", "points"});
  Scenario::Track track{};
  const double sub = node.get("sub").number({0, kSubscriptions - 1});
  if (sub != std::floor(sub)) node.get("sub").refuse("a whole number is expected");
  const auto statistic = node.find("statistic");
  const StatisticRow& row = statistic ? parse_statistic(*statistic) : kRadioRow;
  track.key = {static_cast<uint16_t>(sub), row.id};

  const Node fields = node.get("fields");
  fields.require_array();
  for (size_t i = 0; i < fields.value.size(); ++i) track.fields.push_back(parse_field(fields[i], row));

  if (const auto interpolation = node.find("interpolation")) {
    track.is_stepped = interpolation->text() == "step";
    if (!track.is_stepped && interpolation->text() != "linear")
      interpolation->refuse("\"linear\" or \"step\" is expected");
  }

  const Node points = node.get("points");
  points.require_array();
  for (size_t i = 0; i < points.value.size(); ++i) {
    track.points.push_back(parse_point(points[i], row, track.fields));
    if (i > 0 && track.points[i].seconds <= track.points[i - 1].seconds) {
      points[i][0].refuse("a time after that of the point before is expected");
    }
  }
  return track;
}

// [SECONDS, COMMAND]
Scenario::Command parse_command(const Node& node, double latest, const CommandCheck& check) {
  if (!node.value.is_array() || node.value.size() != 2) node.refuse("the time and a command are expected");
  Scenario::Command command{node[0].number({0, latest}), node[1].text(), node.place};
  try {
    check(command.line);
  } catch (const std::runtime_error& error) {
    node[1].refuse(error.what());
  }
  return command;
}

Scenario parse_tracks(const Node& node, std::string description, double repeat, const CommandCheck& check) {
  node.require_array();
  std::vector<Scenario::Track> tracks;
  std::vector<Scenario::Command> commands;
  std::set<std::pair<StatisticKey, size_t>> taken;
  for (size_t i = 0; i < node.value.size(); ++i) {
    if (const auto lines = node[i].find("commands")) {
      node[i].require_object({"commands"});
      lines->require_array();
      for (size_t line = 0; line < lines->value.size(); ++line) {
        commands.push_back(parse_command((*lines)[line], repeat > 0 ? repeat : kMaxSeconds, check));
      }
      continue;
    }
    tracks.push_back(parse_track(node[i]));
    const Scenario::Track& track = tracks.back();
    for (size_t f = 0; f < track.fields.size(); ++f) {
      if (!taken.emplace(track.key, track.fields[f]).second) {
        node[i].get("fields")[f].refuse("this field has its numbers already");
      }
    }
    const size_t last = track.points.size() - 1;
    if (repeat > 0 && track.points[last].seconds > repeat) {
      node[i].get("points")[last][0].refuse("the scenario begins anew before that time");
    }
  }
  std::stable_sort(commands.begin(), commands.end(),
                   [](const auto& a, const auto& b) { return a.seconds < b.seconds; });
  return {std::move(description), repeat, std::move(tracks), std::move(commands)};
}

}  // namespace

std::optional<ScenarioNumbers> Scenario::at(const StatisticKey& key, double seconds) const {
  const double time = repeat_ > 0 ? std::fmod(seconds, repeat_) : seconds;
  std::optional<ScenarioNumbers> found;
  for (const Track& track : tracks_) {
    if (track.key != key) continue;
    if (!found) found = ScenarioNumbers{true, {}};
    // Before the first point and after the last one, both are that point.
    auto after = std::upper_bound(track.points.begin(), track.points.end(), time,
                                  [](double moment, const Point& point) { return moment < point.seconds; });
    const auto before = after == track.points.begin() ? after : std::prev(after);
    if (after == track.points.end()) after = before;
    const double share = after == before ? 0 : (time - before->seconds) / (after->seconds - before->seconds);
    for (size_t i = 0; i < track.fields.size(); ++i) {
      const double number = before->numbers[i];
      if (track.fields[i] == kPresence) {
        found->is_there = number != 0;
      } else {
        found->fields[track.fields[i]] = track.is_stepped ? number : std::lerp(number, after->numbers[i], share);
      }
    }
  }
  return found;
}

Scenario parse_scenario(std::string_view text, const CommandCheck& check_command) {
  Json json;
  try {
    json = Json::parse(text);
  } catch (const Json::exception& error) {
    const std::string problem = error.what();  // begins with the name of the library's error
    const size_t place = problem.find("line ");
    throw ScenarioError("no JSON: " + problem.substr(place != problem.npos ? place : problem.find("] ") + 2));
  }
  const Node root{json, ""};
  root.require_object({"description", "repeat", "tracks"});
  const auto description = root.find("description");
  const auto repeat = root.find("repeat");
  const double repeat_seconds = repeat ? repeat->number({0.001, kMaxSeconds}) : 0;
  return parse_tracks(root.get("tracks"), description ? description->text() : "", repeat_seconds, check_command);
}

Scenario load_scenario(const std::string& path, const CommandCheck& check_command) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) throw ScenarioError(path + ": no such file");
  const uintmax_t size = std::filesystem::file_size(path, error);
  if (size > kMaxScenarioBytes)
    throw ScenarioError(path + ": larger than " + std::to_string(kMaxScenarioBytes) + " bytes");
  std::ifstream file(path, std::ios::binary);
  std::string text(size, '\0');
  if (!file.read(text.data(), static_cast<std::streamsize>(size))) throw ScenarioError(path + ": cannot be read");
  try {
    return parse_scenario(text, check_command);
  } catch (const ScenarioError& problem) {
    throw ScenarioError(path + ": " + problem.what());
  }
}

}  // namespace pelmar::sim
