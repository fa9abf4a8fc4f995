// cell-info, drx, lock lte, avoid-trm and nr-mode: the radio of one subscription, through its NAS service. sar set: the
// RF state of the SAR service, once, or held against restarts of the service.
#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <span>

#include "command_line.h"
#include "nas_client.h"
#include "nas_messages.h"

namespace pelmar::cli {

namespace {

// The values of the commands for one subscription, each of which has some of them.
struct RadioValues {
  uint32_t sub = 0;
  std::vector<std::string> words;
  bool is_on = false;
  uint8_t mode = 0;
  Confirmation confirmation;
};

std::string of_subscription(uint32_t sub) {
  return " of subscription " + std::to_string(sub);
}

int32_t open_nas(const Context& context, uint32_t sub) {
  return context.session.open(sub == 0 ? MODEM_API_CLIENT_NAS_0 : MODEM_API_CLIENT_NAS_1);
}

// --- cell-info ---

constexpr uint32_t kNoTimingAdvance = 0xFFFFFFFF;

// Digits in the order of 3GPP TS 24.008; 0xF in place of the third one of a short network code.
std::string plmn_text(const uint8_t (&plmn)[3]) {
  char text[8];
  snprintf(text, sizeof text, "%x%x%x-%x%x%x", plmn[0] & 0xFU, plmn[0] >> 4U, plmn[1] & 0xFU, plmn[2] & 0xFU,
           plmn[2] >> 4U, plmn[1] >> 4U);
  return std::string(text).substr(0, plmn[1] >> 4U == 0xFU ? 6 : 7);
}

// The frequency's cells, as rows of a table and as elements of a list; `serving`: the physical cell id of the serving
// cell, where it is on this frequency.
void put_cells(Json& list, std::string& text, uint32_t earfcn, std::span<const nas::LteCell> cells,
               std::optional<uint32_t> serving = std::nullopt) {
  for (const nas::LteCell& cell : cells) {
    const bool is_serving = serving == cell.physical_cell_id;
    const double rsrp = cell.rsrp / 10.0;
    const double rsrq = cell.rsrq / 10.0;
    list.push_back({{"earfcn", earfcn}, {"pci", cell.physical_cell_id}, {"rsrp_dbm", rsrp}, {"rsrq_db", rsrq}});
    if (is_serving) list.back()["serving"] = true;
    char row[64];
    snprintf(row, sizeof row, "\n  %c %6u  %4u  %8.1f  %7.1f", is_serving ? '*' : ' ', earfcn,
             unsigned{cell.physical_cell_id}, rsrp, rsrq);
    text += row;
  }
}

void print_cell_info(const Context& context, uint32_t sub) {
  nas::EmptyRequest request{};
  nas::CellLocationResponse response{};  // what the modem does not report is 0
  open_nas(context, sub);
  const auto send = sub == 0 ? nas_0_client_send_msg_sync : nas_1_client_send_msg_sync;
  const int32_t code = send(QMI_NAS_GET_CELL_LOCATION_INFO_V01, &request, sizeof request, &response, sizeof response);
  check_response(modem_api_map_qmi_error_to_modem_api(code, &response.header),
                 "reading the cell information" + of_subscription(sub));

  const nas::LteIntraFrequency& serving = response.intra_frequency;
  Json document = {{"sub", sub}, {"serving", nullptr}};
  std::string text = "subscription " + std::to_string(sub);
  Json cells = Json::array();
  std::string rows;
  if (response.intra_frequency_valid != 0) {
    const std::string plmn = plmn_text(serving.plmn);
    document["serving"] = {{"earfcn", serving.earfcn},
                           {"pci", serving.serving_cell_id},
                           {"plmn", plmn},
                           {"tac", serving.tracking_area_code},
                           {"cell_id", serving.global_cell_id}};
    text += "\n  LTE serving cell  EARFCN " + std::to_string(serving.earfcn) + ", PCI " +
            std::to_string(serving.serving_cell_id) + ", PLMN " + plmn + ", TAC " +
            std::to_string(serving.tracking_area_code) + ", cell id " + std::to_string(serving.global_cell_id);
    put_cells(cells, rows, serving.earfcn, counted(serving.cells, serving.cell_count), serving.serving_cell_id);
  }
  if (response.inter_frequency_valid != 0) {
    for (const auto& each : counted(response.inter_frequency.frequencies, response.inter_frequency.frequency_count)) {
      put_cells(cells, rows, each.earfcn, counted(each.cells, each.cell_count));
    }
  }
  const bool has_advance = response.timing_advance_valid != 0 && response.timing_advance != kNoTimingAdvance;
  const bool has_nr = response.nr_arfcn_valid != 0;
  if (has_advance) text += "\n  timing advance    " + std::to_string(response.timing_advance) + " us";
  if (has_nr) text += "\n  NR serving cell   ARFCN " + std::to_string(response.nr_arfcn);
  if (!rows.empty()) text += "\n    EARFCN   PCI  RSRP dBm  RSRQ dB  (*: serving)" + rows;
  if (text.find('\n') == text.npos) text += "\n  no cell";
  document["cells"] = std::move(cells);
  document["timing_advance_us"] = has_advance ? Json(response.timing_advance) : Json();
  document["nr_arfcn"] = has_nr ? Json(response.nr_arfcn) : Json();
  context.output.print(document, text);
}

void show_cell_info(const Context& context, const std::optional<uint32_t>& wanted) {
  for (uint32_t sub = 0; sub < 2; ++sub) {
    if (wanted.value_or(sub) == sub) print_cell_info(context, sub);
  }
}

// --- drx ---

constexpr uint32_t kShortestCycle = 6;  // 32 frames; each next one is twice as long
constexpr uint32_t kLongestCycle = 9;

void show_drx(const Context& context, const NoValues&) {
  uint8_t is_valid = 0;
  uint32_t drx = 0;
  check_response(modem_api_get_drx(open_nas(context, 0), &is_valid, &drx), "reading the DRX setting");
  if (is_valid == 0) throw Failure("reading the DRX setting", "the modem gave no value");
  Json document = {{"drx", drx}};
  std::string text = "DRX: " + std::to_string(drx);
  if (drx >= kShortestCycle && drx <= kLongestCycle) {
    const uint32_t frames = 32U << (drx - kShortestCycle);
    document["cycle_frames"] = frames;
    text += " (" + std::to_string(frames) + " frames)";
  }
  context.output.print(document, text);
}

// --- lock lte ---

constexpr int64_t kHighestEarfcn = 262143;
constexpr int64_t kHighestPci = 503;

void lock_cells(const Context& context, const RadioValues& values) {
  const bool clears = values.words.size() == 1 && values.words[0] == "clear";
  const auto cells = std::span(values.words).subspan(clears ? 1 : 0);
  if (cells.size() > MODEM_API_MAX_LOCKED_CELLS) {
    throw Failure::of_usage(std::to_string(cells.size()) + " cells are too many",
                            "A lock takes at most " + std::to_string(MODEM_API_MAX_LOCKED_CELLS) + " cells.");
  }
  std::vector<uint32_t> pcis;
  std::vector<uint32_t> earfcns;
  Json list = Json::array();
  for (const std::string& word : cells) {
    const size_t colon = std::min(word.find(':'), word.size());
    const auto earfcn = parse_number(word.substr(0, colon), 0, kHighestEarfcn);
    const auto pci = parse_number(word.substr(std::min(colon + 1, word.size())), 0, kHighestPci);
    if (!earfcn || !pci) {
      throw Failure::of_usage("'" + word + "' is no cell", "A cell is EARFCN:PCI, for example 1300:120 (EARFCN 0 to " +
                                                               std::to_string(kHighestEarfcn) + ", PCI 0 to " +
                                                               std::to_string(kHighestPci) + ").");
    }
    pcis.push_back(static_cast<uint32_t>(*pci));
    earfcns.push_back(static_cast<uint32_t>(*earfcn));
    list.push_back({{"earfcn", *earfcn}, {"pci", *pci}});
  }
  if (!clears) {
    values.confirmation.require("Subscription " + std::to_string(values.sub) +
                                " has no service where none of these cells can be received.");
  }
  const std::string what = "LTE cell lock" + of_subscription(values.sub);
  const int32_t client = open_nas(context, values.sub);
  check(
      modem_api_set_lte_cell_lock(client, values.sub, static_cast<uint32_t>(cells.size()), pcis.data(), earfcns.data()),
      (clears ? "clearing the " : "setting the ") + what);
  const std::string text = clears ? "cleared" : count_of(cells.size(), "cell");
  context.output.print({{"sub", values.sub}, {"locked", std::move(list)}}, what + ": " + text);
}

// --- avoid-trm, nr-mode ---

void set_avoid_trm(const Context& context, const RadioValues& values) {
  const auto sub = static_cast<int32_t>(values.sub);
  check(modem_api_set_avoid_trm(open_nas(context, values.sub), sub, values.is_on ? 1 : 0),
        "switching TRM avoidance" + of_subscription(values.sub));
  context.output.print({{"sub", sub}, {"avoid_trm", values.is_on}},
                       "TRM avoidance" + of_subscription(values.sub) + ": " + (values.is_on ? "on" : "off"));
}

void set_nr_mode(const Context& context, const RadioValues& values) {
  if (values.mode != 0) {
    values.confirmation.require("Subscription " + std::to_string(values.sub) +
                                " loses NR, and its service where there is nothing else.");
  }
  const auto sub = static_cast<int32_t>(values.sub);
  check(modem_api_set_nr_disable_mode(open_nas(context, values.sub), sub, values.mode),
        "setting the NR disable mode" + of_subscription(values.sub));
  const std::string text = values.mode == 0 ? "0 (NR is enabled)" : std::to_string(values.mode);
  context.output.print({{"sub", sub}, {"nr_disable_mode", values.mode}},
                       "NR disable mode" + of_subscription(values.sub) + ": " + text);
}

// --- sar set ---
//
// The library reconnects to the service by itself, but the modem resets the state with the service. So --hold sets it
// again each time that the service comes up.

struct SarValues {
  uint32_t state = 0;
  uint32_t hold_seconds = 0;
};

constexpr Advice kBadState = {MODEM_API_ERR_INVALID_PARAM, "The modem refuses this state."};

void set_state(const Context& context, const SarValues& values) {
  const int32_t client = context.session.open(MODEM_API_CLIENT_SAR);
  const std::string text = "SAR RF state " + std::to_string(values.state);
  const auto set = [&] { check(modem_api_set_sar_rf_state(client, values.state), "setting " + text, {kBadState}); };
  const auto report = [&](WallClock::time_point time, const char* what, const std::string& line) {
    context.output.print({{"time", utc_text(time)}, {"sar", what}, {"state", values.state}},
                         local_text(time) + "  " + line);
  };
  set();
  if (values.hold_seconds == 0) return context.output.print({{"state", values.state}}, text + " set");
  report(WallClock::now(), "set", text + " set");

  const auto deadline = deadline_after(values.hold_seconds);
  const Signals::Follower ends_by_itself(context.signals);
  bool is_up = true;
  while (const auto arrival = context.inbox.next(deadline)) {
    const bool comes_up = arrival->number == MODEM_API_NOTICE_SERVICE_UP;
    if (comes_up == is_up) continue;  // also the notice of the first connection
    is_up = comes_up;
    report(arrival->time, is_up ? "up" : "down", is_up ? "SAR service up again" : "SAR service down");
    if (is_up) set();
    if (is_up) report(WallClock::now(), "set", text + " set again");
  }
  if (!is_up) throw Failure::of_result("holding the SAR RF state", MODEM_API_ERR_INVALID_CLIENT);
}

}  // namespace

void add_radio_commands(CommandLine& line) {
  auto [cell_info, shown] = line.add("cell-info", "show the serving cells and their neighbours", show_cell_info);
  cell_info.add_subscription(shown);

  line.add("drx", "show the DRX setting of subscription 0", show_drx);

  CLI::App& locks = line.add_group("lock", "lock a subscription to cells");
  auto [lock, cells] =
      line.add<RadioValues>(locks, "lte", "lock LTE to these cells alone, or end the lock", lock_cells);
  lock.add_text("cells", cells.words, "up to 60 cells, or 'clear'", {.type = "EARFCN:PCI", .is_required = true});
  lock.add_subscription(cells.sub);
  cells.confirmation.add_to(lock);
  lock.add_examples({"1300:120 --yes", "clear --sub 1"});

  auto [avoid_trm, avoidance] = line.add("avoid-trm", "switch TRM avoidance", set_avoid_trm);
  avoid_trm.add_switch("state", avoidance.is_on, "on or off");
  avoid_trm.add_subscription(avoidance.sub);
  avoid_trm.add_examples({"on", "off --sub 1"});

  auto [nr_mode, nr] = line.add("nr-mode", "disable NR (1 or 2), or enable it (0)", set_nr_mode);
  nr_mode.add_number("mode", nr.mode, "the NR disable mode", {.is_required = true}, 2);
  nr_mode.add_subscription(nr.sub);
  nr.confirmation.add_to(nr_mode);
  nr_mode.add_examples({"0", "2 --sub 1 --yes"});

  CLI::App& sar = line.add_group("sar", "the SAR service");
  auto [set, held] = line.add<SarValues>(sar, "set", "set the RF state", set_state);
  set.add_number("state", held.state, "the state", {.is_required = true});
  set.add_number("--hold", held.hold_seconds,
                 "hold the state for that many seconds: set it again each time the service is up again",
                 {.type = "SECONDS", .otherwise = "set it once"});
  set.add_examples({"3", "3 --hold 3600"});
}

}  // namespace pelmar::cli
