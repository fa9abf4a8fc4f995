#include "radio/radio_picture.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>

namespace pelmar::sim {

namespace {

constexpr double kNoisePower = -124;       // dBm, of one subcarrier in a receiver
constexpr double kDistortion = 0.001;      // share of the signal that the phone itself turns into noise
constexpr double kLoad = 0.6;              // share of a neighbour's subcarriers that are in use
constexpr double kSubcarriers = 12 * 100;  // of a carrier; 100 blocks of twelve
constexpr double kBlocksInDb = 20;

// The weakest cell that the phone camps on. In the town, all are stronger.
constexpr double kLeastServingLevel = -130;

// The weakest cells that carriers are added for, and from which on NR carries the data.
constexpr double kLeastLteLevel = -108;
constexpr double kLeastNrLevel = -109;
constexpr double kLeastNrDataLevel = -101;

// The levels of neighbouring technologies at 100 m from an LTE site.
constexpr double kWcdmaPower = -66;
constexpr double kGsmPower = -59;

// Each LTE cell, each NR frequency, and WCDMA and GSM of each network have a fading sequence of their own.
enum NoiseStream : uint64_t { kLteStream = 0x1000, kNrStream = 0x2000, kWcdmaStream = 0x3000, kGsmStream = 0x4000 };

double to_milliwatts(double dbm) {
  return std::pow(10, dbm / 10);
}

double to_db(double ratio) {
  return 10 * std::log10(ratio);
}

// For a chain with that gain. `signal` and `others`, the interference, are levels at an unblocked main antenna.
Levels levels_of(double signal, double others, double gain) {
  const double factor = to_milliwatts(gain);
  const double noise = to_milliwatts(kNoisePower);
  const double received = to_milliwatts(signal) * factor;
  const double disturbance = others * factor * kLoad + received * kDistortion + noise;
  Levels levels{};
  levels.rsrp = signal + gain;
  levels.rssi = to_db(kSubcarriers * (received * kLoad + disturbance));
  levels.rsrq = kBlocksInDb + levels.rsrp - levels.rssi;
  levels.snr = to_db(received / disturbance);
  return levels;
}

size_t chains_of(uint16_t earfcn) {
  return is_low_band(earfcn) ? 2 : kChains;
}

double best_gain(const Antennas& antennas, size_t chains) {
  double best = antennas.gain_of_chain(0);
  for (size_t chain = 1; chain < chains; ++chain) best = std::max(best, antennas.gain_of_chain(chain));
  return best;
}

// Open-loop control: the power grows with the loss, from a base and by a share of it.
struct PowerControl {
  double reference;  // dBm, the power of the cell's reference signal
  double base;       // dBm
  double share;
  double max_power;  // dBm
};
constexpr PowerControl kLteControl = {18, -78, 0.8, 23};
constexpr PowerControl kNrControl = {20, -76, 0.8, 26};

Uplink uplink_of(double signal, const Antennas& antennas, const PowerControl& control) {
  Uplink uplink;
  uplink.path_loss = control.reference - (signal + antennas.gains[Antennas::of_transmitter(0, antennas.config)]);
  uplink.demanded_power = control.base + control.share * uplink.path_loss;
  uplink.max_power = control.max_power;
  return uplink;
}

Carrier carrier_of(uint32_t frequency, double signal, double others, const Antennas& antennas, size_t chains) {
  Carrier carrier;
  carrier.is_there = true;
  carrier.frequency = frequency;
  carrier.measured_chains = static_cast<uint16_t>((1u << chains) - 1);
  for (size_t i = 0; i < chains; ++i) carrier.chains[i] = levels_of(signal, others, antennas.gain_of_chain(i));
  carrier.rsrq = levels_of(signal, others, best_gain(antennas, chains)).rsrq;
  return carrier;
}

Carrier carrier_of(const SeenCell& cell, const Antennas& antennas) {
  const LteSite& site = *cell.site;
  Carrier carrier = carrier_of(site.earfcn, cell.signal, cell.others, antennas, chains_of(site.earfcn));
  carrier.physical_cell_id = site.physical_cell_id;
  return carrier;
}

const SeenCell* strongest_on(const std::vector<SeenCell>& cells, uint16_t earfcn) {
  const SeenCell* best = nullptr;
  for (const SeenCell& cell : cells) {
    if (cell.site->earfcn == earfcn && (best == nullptr || cell.mean > best->mean)) best = &cell;
  }
  return best;
}

// Each other frequency keeps its place among the carriers, also while its cells do not reach.
void add_lte_carriers(RadioSample& sample, const SeenCell& serving) {
  sample.lte[0] = carrier_of(serving, sample.antennas);
  size_t place = 1;
  for (const uint16_t earfcn : sample.other_frequencies()) {
    if (place == kLteCarriers) return;
    const SeenCell& cell = *strongest_on(sample.cells, earfcn);
    if (cell.mean >= kLeastLteLevel) sample.lte[place] = carrier_of(cell, sample.antennas);
    ++place;
  }
}

constexpr double kInfinity = std::numeric_limits<double>::infinity();

// The strongest of a carrier's places, and the others of it together.
struct NrSignal {
  double mean = -kInfinity;
  double signal = -kInfinity;
  double others = 0;  // mW
};

NrSignal nr_signal(const NrFrequency& frequency, const Place& phone, double attenuation, double fading) {
  NrSignal found;
  for (const Place& place : frequency.places) {
    const double mean = level_at(frequency.power, distance(phone, place)) - attenuation;
    found.others += to_milliwatts(mean);
    found.mean = std::max(found.mean, mean);
  }
  found.others -= to_milliwatts(found.mean);
  found.signal = found.mean + fading;
  return found;
}

}  // namespace

// --- samples ---

std::vector<SeenCell> RadioSample::cells_on(uint16_t earfcn) const {
  std::vector<SeenCell> found;
  std::copy_if(cells.begin(), cells.end(), std::back_inserter(found),
               [&](const SeenCell& cell) { return cell.site->earfcn == earfcn; });
  const LteSite* const camped = serving() != nullptr ? serving()->site : nullptr;
  std::sort(found.begin(), found.end(), [&](const SeenCell& a, const SeenCell& b) {
    if ((a.site == camped) != (b.site == camped)) return a.site == camped;
    return a.levels.rsrp > b.levels.rsrp;
  });
  return found;
}

std::vector<uint16_t> RadioSample::other_frequencies() const {
  std::vector<uint16_t> found;
  for (const SeenCell& cell : cells) {
    const uint16_t earfcn = cell.site->earfcn;
    if (serving() != nullptr && serving()->site->earfcn == earfcn) continue;
    if (std::find(found.begin(), found.end(), earfcn) == found.end()) found.push_back(earfcn);
  }
  return found;
}

// --- LTE ---

std::vector<SeenCell> RadioPicture::measure_cells(const RadioSample& sample, const Place& phone, double seconds) const {
  std::vector<SeenCell> cells;
  for (const LteSite& site : network_->sites) {
    const double mean = level_at(site.power, distance(phone, site.place)) - sample.attenuation;
    cells.push_back({&site, mean, mean + fading(kLteStream + site.global_cell_id, seconds), 0, {}});
  }
  for (SeenCell& cell : cells) {
    for (const SeenCell& other : cells) {
      if (&other != &cell && other.site->earfcn == cell.site->earfcn) cell.others += to_milliwatts(other.signal);
    }
    cell.levels = levels_of(cell.signal, cell.others, best_gain(sample.antennas, chains_of(cell.site->earfcn)));
  }
  return cells;
}

std::optional<size_t> RadioPicture::find_serving_cell(const std::vector<SeenCell>& cells) const {
  const auto may_camp_on = [&](const LteSite& site) {
    return lock_.empty() || std::any_of(lock_.begin(), lock_.end(), [&](const CellOfLock& cell) {
             return cell.earfcn == site.earfcn && cell.physical_cell_id == site.physical_cell_id;
           });
  };
  std::optional<size_t> best;
  for (size_t i = 0; i < cells.size(); ++i) {
    if (may_camp_on(*cells[i].site) && cells[i].mean >= kLeastServingLevel &&
        (!best || cells[i].mean > cells[*best].mean))
      best = i;
  }
  return best;
}

// --- NR and the rest ---

// Without the first NR carrier there are no others.
void RadioPicture::add_nr(RadioSample& sample, const Place& phone, double seconds) const {
  for (size_t i = 0; i < std::min(kNrCarriers, network_->nr_frequencies.size()); ++i) {
    const NrFrequency& frequency = network_->nr_frequencies[i];
    const double fade = fading(kNrStream + frequency.arfcn, seconds);
    const NrSignal found = nr_signal(frequency, phone, sample.attenuation, fade);
    if (found.mean < kLeastNrLevel) {
      if (i == 0) return;
      continue;
    }
    sample.nr[i] = carrier_of(frequency.arfcn, found.signal, found.others, sample.antennas, kChains);
    if (i > 0) continue;
    sample.nr_uplink = uplink_of(found.signal, sample.antennas, kNrControl);
    if (found.mean >= kLeastNrDataLevel) sample.mode = SystemMode::kNr;
  }
}

void RadioPicture::measure_other_technologies(RadioSample& sample, const Place& phone, double seconds) const {
  double nearest = kInfinity;
  for (const LteSite& site : network_->sites) nearest = std::min(nearest, distance(phone, site.place));
  const uint64_t network = network_->tracking_area_code;
  const double wcdma = level_at(kWcdmaPower, nearest) - sample.attenuation + fading(kWcdmaStream + network, seconds);
  const double gsm = level_at(kGsmPower, nearest) - sample.attenuation + fading(kGsmStream + network, seconds);
  for (size_t chain = 0; chain < sample.wcdma_levels.size(); ++chain) {
    sample.wcdma_levels[chain] = wcdma + sample.antennas.gain_of_chain(chain);
    sample.gsm_levels[chain] = gsm + sample.antennas.gain_of_chain(chain);
  }
}

RadioSample RadioPicture::sample(ModemClock::Time time) const {
  const double seconds = std::chrono::duration<double>(time).count();
  const Place phone = place_at(seconds);
  RadioSample sample;
  sample.network = network_;
  sample.antennas = antennas_at(time, seed_);
  sample.attenuation = attenuation_();
  sample.cells = measure_cells(sample, phone, seconds);
  sample.serving_cell = find_serving_cell(sample.cells);
  if (const SeenCell* const serving = sample.serving()) {
    sample.mode = SystemMode::kLte;
    sample.serving_distance = distance(phone, serving->site->place);
    add_lte_carriers(sample, *serving);
    sample.lte_uplink = uplink_of(serving->signal, sample.antennas, kLteControl);
    if (nr_disable_mode_ == NrDisableMode::kNone) add_nr(sample, phone, seconds);
  }
  measure_other_technologies(sample, phone, seconds);
  return sample;
}

}  // namespace pelmar::sim
