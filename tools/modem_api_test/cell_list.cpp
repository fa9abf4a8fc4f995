#include "cell_list.h"

#include <algorithm>
#include <span>

#include "columns.h"
#include "failure.h"
#include "json.h"
#include "options.h"

namespace pelmar::cli {

namespace {

constexpr int64_t kHighestEarfcn = 262143;
constexpr int64_t kHighestPci = 503;
constexpr uint32_t kNoTimingAdvance = 0xFFFFFFFF;

// A list ends where the zeros begin that fill it up.
std::span<const uint16_t> reported(std::span<const uint16_t> cells) {
  const auto last = std::find_if(cells.rbegin(), cells.rend(), [](uint16_t pci) { return pci != 0; });
  return cells.first(static_cast<size_t>(cells.rend() - last));
}

std::string join(std::span<const uint16_t> numbers) {
  std::string text;
  for (const uint16_t number : numbers) text.append(text.empty() ? "" : ", ").append(std::to_string(number));
  return text;
}

Cell parse_cell(const std::string& word) {
  const size_t colon = std::min(word.find(':'), word.size());
  const auto earfcn = parse_number(word.substr(0, colon), 0, kHighestEarfcn);
  const auto pci = parse_number(word.substr(std::min(colon + 1, word.size())), 0, kHighestPci);
  if (!earfcn || !pci) {
    throw Failure::of_usage("'" + word + "' is no cell", "A cell is EARFCN:PCI, for example 1300:120 (EARFCN 0 to " +
                                                             std::to_string(kHighestEarfcn) + ", PCI 0 to " +
                                                             std::to_string(kHighestPci) + ").");
  }
  return {static_cast<uint32_t>(*earfcn), static_cast<uint32_t>(*pci)};
}

}  // namespace

std::vector<Cell> parse_cells(const std::vector<std::string>& words) {
  if (words.size() == 1 && words[0] == "clear") return {};
  if (words.size() > MODEM_API_MAX_LOCKED_CELLS) {
    throw Failure::of_usage(std::to_string(words.size()) + " cells are too many",
                            "A lock takes at most " + std::to_string(MODEM_API_MAX_LOCKED_CELLS) + " cells.");
  }
  std::vector<Cell> cells;
  cells.reserve(words.size());
  for (const std::string& word : words) cells.push_back(parse_cell(word));
  return cells;
}

std::optional<uint32_t> CellInfo::known_timing_advance() const {
  if (timing_advance_valid == 0 || timing_advance == kNoTimingAdvance) return std::nullopt;
  return timing_advance;
}

bool CellInfo::is_empty() const {
  const auto is_zero = [](uint16_t value) { return value == 0; };
  return std::all_of(intra_pci.begin(), intra_pci.end(), is_zero) &&
         std::all_of(inter_earfcn.begin(), inter_earfcn.end(), is_zero) &&
         std::all_of(inter_pci.begin(), inter_pci.end(), is_zero) && !known_timing_advance() && nr_arfcn_valid == 0;
}

Json CellInfo::json() const {
  Json others = Json::array();
  for (size_t i = 0; i < kFrequencies; ++i) {
    const auto cells = reported(std::span(inter_pci).subspan(i * kCells, kCells));
    if (inter_earfcn[i] != 0 || !cells.empty()) others.push_back({{"earfcn", inter_earfcn[i]}, {"pci", cells}});
  }
  Json object = {{"serving_frequency", {{"pci", reported(intra_pci)}}}, {"other_frequencies", std::move(others)}};
  const auto advance = known_timing_advance();
  object["timing_advance"] = advance ? Json(*advance) : Json();
  object["nr_arfcn"] = nr_arfcn_valid != 0 ? Json(nr_arfcn) : Json();
  return object;
}

std::string CellInfo::text() const {
  if (is_empty()) return "  no cell";
  const auto serving = reported(intra_pci);
  std::string text = "  LTE serving frequency  " + (serving.empty() ? "no cell" : "PCI " + join(serving)) + "\n";
  for (size_t i = 0; i < kFrequencies; ++i) {
    const auto cells = reported(std::span(inter_pci).subspan(i * kCells, kCells));
    if (inter_earfcn[i] == 0 && cells.empty()) continue;
    text += "  " + left_aligned("EARFCN " + std::to_string(inter_earfcn[i]), 21) + "  " +
            (cells.empty() ? "no cell" : "PCI " + join(cells)) + "\n";
  }
  const auto advance = known_timing_advance();
  text += "  timing advance         " + (advance ? std::to_string(*advance) : "not available") + "\n";
  text += "  NR                     " + (nr_arfcn_valid != 0 ? "ARFCN " + std::to_string(nr_arfcn) : "none");
  return text;
}

std::string drx_cycle(uint32_t drx) {
  constexpr uint32_t kShortest = 6;  // 32 frames; each next one is twice as long
  constexpr uint32_t kLongest = 9;
  if (drx < kShortest || drx > kLongest) return "";
  return std::to_string(32U << (drx - kShortest)) + " frames";
}

}  // namespace pelmar::cli
