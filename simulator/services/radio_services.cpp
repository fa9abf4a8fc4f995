#include "services/radio_services.h"

#include <algorithm>
#include <cmath>

namespace pelmar::sim {

namespace {

constexpr std::array<NasService::Subscription, kSubscriptions> kFreshSubscriptions = {{{7}, {8}}};

// The parameters of cell reselection while idle; the same for every cell.
constexpr uint8_t kPriority = 5;
constexpr uint8_t kSearchThreshold = 31;
constexpr uint8_t kThresholdLow = 6;
constexpr uint8_t kThresholdHigh = 14;
constexpr int16_t kLeastRsrp = -1240;  // of a suitable cell

constexpr double kMicrosecondsPerMetre = 2 / 299.8;  // for a signal to the cell and back

int16_t tenths(double level) {
  return static_cast<int16_t>(std::lround(level * 10));
}

nas::LteCell describe(const SeenCell& cell) {
  const int16_t rsrp = tenths(cell.levels.rsrp);
  return {cell.site->physical_cell_id, tenths(cell.levels.rsrq), rsrp, tenths(cell.levels.rssi),
          static_cast<int16_t>(rsrp - kLeastRsrp)};
}

uint32_t put_cells(const std::vector<SeenCell>& seen, nas::LteCell (&cells)[nas::kMaxLteCells]) {
  const size_t count = std::min(seen.size(), std::size(cells));
  std::transform(seen.begin(), seen.begin() + static_cast<ptrdiff_t>(count), cells, describe);
  return static_cast<uint32_t>(count);
}

void put_serving_frequency(const RadioSample& radio, const LteSite& serving, nas::LteIntraFrequency& out) {
  const Network& network = *radio.network;
  out.is_idle = 1;
  std::copy(std::begin(network.plmn), std::end(network.plmn), out.plmn);
  out.tracking_area_code = network.tracking_area_code;
  out.global_cell_id = serving.global_cell_id;
  out.earfcn = serving.earfcn;
  out.serving_cell_id = serving.physical_cell_id;
  out.priority = kPriority;
  out.s_non_intra_search = kSearchThreshold;
  out.threshold_low = kThresholdLow;
  out.s_intra_search = kSearchThreshold;
  out.cell_count = put_cells(radio.cells_on(serving.earfcn), out.cells);
}

void put_other_frequencies(const RadioSample& radio, nas::LteInterFrequency& out) {
  out.is_idle = 1;
  for (const uint16_t earfcn : radio.other_frequencies()) {
    if (out.frequency_count == nas::kMaxLteFrequencies) return;
    nas::LteFrequency& frequency = out.frequencies[out.frequency_count++];
    frequency.earfcn = earfcn;
    frequency.threshold_low = kThresholdLow;
    frequency.threshold_high = kThresholdHigh;
    frequency.priority = kPriority - 1;
    frequency.cell_count = put_cells(radio.cells_on(earfcn), frequency.cells);
  }
}

}  // namespace

struct NasService::Handlers {
  // This service has no indications of its own: the user sends them.
  static QmiError register_indications(NasService&, uint8_t, const nas::RegisterIndicationsRequest&,
                                       nas::PlainResponse&) {
    return QMI_ERR_NONE_V01;
  }

  static QmiError set_system_selection(NasService& self, uint8_t client,
                                       const nas::SetSystemSelectionPreferenceRequest& request, nas::PlainResponse&) {
    if (!request.nr_disable_mode_valid) return QMI_ERR_NONE_V01;
    const auto mode = static_cast<NrDisableMode>(request.nr_disable_mode);
    if (mode > NrDisableMode::kNonStandalone) return QMI_ERR_INVALID_ARG_V01;
    self.picture_of(client).set_nr_disable_mode(mode);
    return QMI_ERR_NONE_V01;
  }

  static QmiError get_cell_location(NasService& self, uint8_t client, const nas::EmptyRequest&,
                                    nas::CellLocationResponse& response) {
    const RadioSample radio = self.picture_of(client).sample(self.clock_.now());
    const SeenCell* const serving = radio.serving();
    if (serving == nullptr) return QMI_ERR_NONE_V01;  // out of service: a response without TLVs
    response.intra_frequency_valid = 1;
    put_serving_frequency(radio, *serving->site, response.intra_frequency);
    response.inter_frequency_valid = 1;
    put_other_frequencies(radio, response.inter_frequency);
    response.timing_advance_valid = 1;
    response.timing_advance = static_cast<uint32_t>(std::lround(radio.serving_distance * kMicrosecondsPerMetre));
    response.nr_arfcn_valid = radio.has_nr();
    response.nr_arfcn = radio.nr[0].frequency;
    return QMI_ERR_NONE_V01;
  }

  static QmiError bind_subscription(NasService& self, uint8_t client, const nas::BindSubscriptionRequest& request,
                                    nas::PlainResponse&) {
    if (request.subscription >= kSubscriptions) return QMI_ERR_INVALID_ARG_V01;
    self.bound_[client] = static_cast<uint8_t>(request.subscription);
    return QMI_ERR_NONE_V01;
  }

  static QmiError get_drx(NasService& self, uint8_t client, const nas::EmptyRequest&, nas::GetDrxResponse& response) {
    response.drx_valid = 1;
    response.drx = self.of(client).drx;
    return QMI_ERR_NONE_V01;
  }

  static QmiError set_avoid_trm(NasService& self, uint8_t client, const nas::SetAvoidTrmRequest& request,
                                nas::PlainResponse&) {
    self.of(client).avoid_trm = request.value;
    return QMI_ERR_NONE_V01;
  }

  // An entry's value is the physical cell id, its parameter the EARFCN; no entries end the lock.
  static QmiError set_lte_cell_lock(NasService& self, uint8_t client, const nas::SetLteCellLockRequest& request,
                                    nas::PlainResponse&) {
    std::vector<CellOfLock> cells;
    for (const nas::LteCellLock& lock : std::span(request.locks).first(request.lock_count)) {
      cells.push_back({lock.value, lock.parameter});
    }
    self.picture_of(client).lock(std::move(cells));
    return QMI_ERR_NONE_V01;
  }

  static std::span<const MessageRow> rows() {
    static constexpr MessageRow kRows[] = {
        Handler<register_indications>::row(QMI_NAS_REGISTER_INDICATIONS_V01, "register-indications"),
        Handler<set_system_selection>::row(QMI_NAS_SET_SYSTEM_SELECTION_PREFERENCE_V01,
                                           "set-system-selection-preference"),
        Handler<get_cell_location>::row(QMI_NAS_GET_CELL_LOCATION_INFO_V01, "get-cell-location-info"),
        Handler<bind_subscription>::row(QMI_NAS_BIND_SUBSCRIPTION_V01, "bind-subscription"),
        Handler<get_drx>::row(QMI_NAS_GET_DRX_V01, "get-drx"),
        Handler<set_avoid_trm>::row(QMI_NAS_SET_AVOID_TRM_V01, "set-avoid-trm"),
        Handler<set_lte_cell_lock>::row(QMI_NAS_SET_LTE_CELL_LOCK_V01, "set-lte-cell-lock"),
    };
    return kRows;
  }
};

NasService::NasService(const ModemClock& clock, RadioPictures& pictures)
    : Service(
          "nas",
          nas_get_service_object_internal_v01(NAS_V01_IDL_MAJOR_VERS, NAS_V01_IDL_MINOR_VERS, NAS_V01_IDL_TOOL_VERS),
          Handlers::rows()),
      clock_(clock),
      pictures_(pictures),
      subscriptions_(kFreshSubscriptions) {}

void NasService::restarted() {
  subscriptions_ = kFreshSubscriptions;
  for (RadioPicture& picture : pictures_) picture.forget_orders();
}

// --- SAR ---

struct SarService::Handlers {
  static constexpr uint32_t kHighestState = 20;

  static QmiError set_state(SarService& self, uint8_t, const sar::RfSetStateRequest& request,
                            sar::RfSetStateResponse&) {
    if (request.state > kHighestState) return QMI_ERR_INVALID_ARG_V01;
    self.state_ = request.state;
    return QMI_ERR_NONE_V01;
  }

  static QmiError get_state(SarService& self, uint8_t, const sar::RfGetStateRequest&,
                            sar::RfGetStateResponse& response) {
    response.state_valid = 1;
    response.state = self.state_;
    return QMI_ERR_NONE_V01;
  }

  static std::span<const MessageRow> rows() {
    static constexpr MessageRow kRows[] = {
        Handler<set_state>::row(QMI_SAR_RF_SET_STATE_V01, "rf-set-state"),
        Handler<get_state>::row(QMI_SAR_RF_GET_STATE_V01, "rf-get-state"),
    };
    return kRows;
  }
};

SarService::SarService()
    : Service(
          "sar",
          sar_get_service_object_internal_v01(SAR_V01_IDL_MAJOR_VERS, SAR_V01_IDL_MINOR_VERS, SAR_V01_IDL_TOOL_VERS),
          Handlers::rows()) {}

}  // namespace pelmar::sim
