// cell-info, drx, lock lte, avoid-trm and nr-mode: the radio of one subscription, through its NAS service.
#include <optional>
#include <string>
#include <vector>

#include "cell_list.h"
#include "command_line.h"
#include "commands/commands.h"
#include "failure.h"
#include "json.h"
#include "options.h"
#include "services.h"

namespace pelmar::cli {

namespace {

std::string of_subscription(uint32_t sub) {
  return " of subscription " + std::to_string(sub);
}

int32_t open_nas(const Context& context, uint32_t sub) {
  return context.session.open(nas_client_of(sub));
}

// --- cell-info ---

struct CellInfoValues {
  std::optional<uint32_t> sub;
};

void print_cell_info(const Context& context, uint32_t sub) {
  CellInfo info;
  const modem_api_result result = modem_api_get_cell_info(
      open_nas(context, sub), static_cast<int32_t>(sub), info.intra_pci.data(), info.inter_earfcn.data(),
      info.inter_pci.data(), &info.timing_advance_valid, &info.timing_advance, &info.nr_arfcn_valid, &info.nr_arfcn);
  check_response(result, "reading the cell information" + of_subscription(sub));
  Json document = {{"sub", sub}};
  document.update(info.json());
  context.output.print(document, "subscription " + std::to_string(sub) + "\n" + info.text());
}

void show_cell_info(const Context& context, const CellInfoValues& values) {
  for (uint32_t sub = 0; sub < 2; ++sub) {
    if (!values.sub || *values.sub == sub) print_cell_info(context, sub);
  }
}

// --- drx ---

void show_drx(const Context& context, const NoValues&) {
  uint8_t is_valid = 0;
  uint32_t drx = 0;
  check_response(modem_api_get_drx(open_nas(context, 0), &is_valid, &drx), "reading the DRX setting");
  if (is_valid == 0) throw Failure("reading the DRX setting", "the modem gave no value");
  const std::string cycle = drx_cycle(drx);
  Json document = {{"drx", drx}};
  if (!cycle.empty()) document["cycle"] = cycle;
  context.output.print(document, "DRX: " + std::to_string(drx) + (cycle.empty() ? "" : " (" + cycle + ")"));
}

// --- lock lte ---

struct LockValues {
  std::vector<std::string> words;
  uint32_t sub = 0;
  Confirmation confirmation;
};

void lock_cells(const Context& context, const LockValues& values) {
  const std::vector<Cell> cells = parse_cells(values.words);
  const std::string what = "LTE cell lock" + of_subscription(values.sub);
  if (!cells.empty()) {
    values.confirmation.require("Subscription " + std::to_string(values.sub) +
                                " has no service where none of these cells can be received.");
  }
  std::vector<uint32_t> pcis;
  std::vector<uint32_t> earfcns;
  Json list = Json::array();
  for (const Cell& cell : cells) {
    pcis.push_back(cell.pci);
    earfcns.push_back(cell.earfcn);
    list.push_back({{"earfcn", cell.earfcn}, {"pci", cell.pci}});
  }
  const int32_t client = open_nas(context, values.sub);
  check(
      modem_api_set_lte_cell_lock(client, values.sub, static_cast<uint32_t>(cells.size()), pcis.data(), earfcns.data()),
      (cells.empty() ? "clearing the " : "setting the ") + what);
  const std::string text =
      cells.empty() ? "cleared" : std::to_string(cells.size()) + (cells.size() == 1 ? " cell" : " cells");
  context.output.print({{"sub", values.sub}, {"locked", std::move(list)}}, what + ": " + text);
}

// --- avoid-trm, nr-mode ---

struct AvoidTrmValues {
  bool is_on = false;
  uint32_t sub = 0;
};

void set_avoid_trm(const Context& context, const AvoidTrmValues& values) {
  const auto sub = static_cast<int32_t>(values.sub);
  check(modem_api_set_avoid_trm(open_nas(context, values.sub), sub, values.is_on ? 1 : 0),
        "switching TRM avoidance" + of_subscription(values.sub));
  context.output.print({{"sub", sub}, {"avoid_trm", values.is_on}},
                       "TRM avoidance" + of_subscription(values.sub) + ": " + (values.is_on ? "on" : "off"));
}

struct NrModeValues {
  uint8_t mode = 0;
  uint32_t sub = 0;
  Confirmation confirmation;
};

void set_nr_mode(const Context& context, const NrModeValues& values) {
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

void add_lock_command(CommandLine& line) {
  CLI::App& group = line.add_group("lock", "lock a subscription to cells");
  auto [command, values] =
      line.add<LockValues>(group, "lte", "lock LTE to these cells alone, or end the lock", lock_cells);
  command.add_option("cells", values.words, "up to 60 cells, or 'clear'")->required()->type_name("EARFCN:PCI");
  add_subscription(command, values.sub);
  values.confirmation.add_to(command);
}

}  // namespace

void add_cell_commands(CommandLine& line) {
  {
    auto [command, values] = line.add("cell-info", "show where the subscriptions are camped", show_cell_info);
    add_subscription(command, values.sub);
  }
  line.add("drx", "show the DRX setting of subscription 0", show_drx);
  add_lock_command(line);
  {
    auto [command, values] = line.add("avoid-trm", "switch TRM avoidance", set_avoid_trm);
    command.add_option("state", values.is_on, "on or off")->required()->check(CLI::IsMember({"on", "off"}));
    add_subscription(command, values.sub);
  }
  {
    auto [command, values] = line.add("nr-mode", "disable NR (1 or 2), or enable it (0)", set_nr_mode);
    add_number(command, "mode", values.mode, "the NR disable mode", 2)->required();
    add_subscription(command, values.sub);
    values.confirmation.add_to(command);
  }
}

}  // namespace pelmar::cli
