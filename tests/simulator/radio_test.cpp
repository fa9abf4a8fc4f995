// The radio picture: what belongs together stays together while the phone drives.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>

#include "radio/radio_picture.h"
#include "statistics/statistic_rows.h"

namespace pelmar::sim::test {

namespace {

using Time = ModemClock::Time;

constexpr Time kLap{static_cast<int64_t>(kLapSeconds) * 1000};

// Every moment of a lap, for both subscriptions.
template <typename F>
void for_each_moment(Time step, F f) {
  for (size_t sub = 0; sub < kSubscriptions; ++sub) {
    const RadioPicture picture(sub, 1);
    for (Time time{0}; time < kLap; time += step) f(picture.sample(time), time);
  }
}

double strongest(const std::array<Levels, kChains>& chains) {
  return std::max_element(chains.begin(), chains.end(), [](auto& a, auto& b) { return a.rsrp < b.rsrp; })->rsrp;
}

TEST(Radio, APhoneMeetsAllThatThereIs) {
  std::set<uint32_t> cells;
  std::set<size_t> carriers;
  std::set<SystemMode> modes;
  std::set<uint8_t> configs;
  for_each_moment(Time{500}, [&](const RadioSample& sample, Time) {
    cells.insert(sample.serving()->site->global_cell_id);
    carriers.insert(static_cast<size_t>(
        std::count_if(sample.lte.begin(), sample.lte.end(), [](const LteCarrier& each) { return each.is_there; })));
    modes.insert(sample.mode);
    configs.insert(sample.antennas.config);
  });
  EXPECT_GE(cells.size(), 6u);
  EXPECT_EQ(*carriers.rbegin(), kLteCarriers) << "six secondary carriers somewhere";
  EXPECT_GE(carriers.size(), 4u);
  EXPECT_EQ(modes, (std::set{SystemMode::kLte, SystemMode::kNr}));
  EXPECT_EQ(configs.size(), kAntennas);
}

TEST(Radio, TheNumbersOfAMomentFitTogether) {
  for_each_moment(Time{250}, [&](const RadioSample& sample, Time) {
    const SeenCell& serving = *sample.serving();
    const LteCarrier& primary = sample.lte[0];
    EXPECT_EQ(primary.earfcn, serving.site->earfcn);
    EXPECT_EQ(primary.physical_cell_id, serving.site->physical_cell_id);
    EXPECT_DOUBLE_EQ(strongest(primary.chains), serving.levels.rsrp);
    const uint8_t transmitter = Antennas::of_transmitter(0, sample.antennas.config);
    EXPECT_EQ(transmitter, Antennas::of_chain(0, sample.antennas.config));
    EXPECT_NEAR(sample.lte_uplink.path_loss, 18 - primary.chains[0].rsrp, 1e-9) << "the transmitter's own antenna";
    std::set<uint32_t> frequencies;
    for (const LteCarrier& carrier : sample.lte) {
      if (!carrier.is_there) continue;
      EXPECT_TRUE(frequencies.insert(carrier.earfcn).second) << "one carrier a frequency";
      for (size_t i = 0; i < kChains; ++i) {
        const Levels& chain = carrier.chains[i];
        if ((carrier.measured_chains >> i & 1) == 0) continue;
        EXPECT_NEAR(chain.rsrq, 20 + chain.rsrp - chain.rssi, 1e-9);
        EXPECT_LT(chain.rsrp, -60);
        EXPECT_GT(chain.rsrp, -130);
        EXPECT_LT(chain.snr, 31);
        EXPECT_GT(chain.snr, -15);
      }
    }
    EXPECT_TRUE(sample.has_nr() || sample.mode == SystemMode::kLte);
    EXPECT_TRUE(sample.has_nr() || !sample.nr[1].is_there);
  });
}

// Within a cell and a switch of the antennas nothing jumps.
TEST(Radio, LevelsAreSmoothInTime) {
  for (size_t sub = 0; sub < kSubscriptions; ++sub) {
    const RadioPicture picture(sub, 7);
    RadioSample last = picture.sample(Time{0});
    for (Time time{100}; time < kLap; time += Time{100}) {
      const RadioSample sample = picture.sample(time);
      const bool is_same_cell = sample.serving()->site == last.serving()->site;
      const bool is_same_config = sample.antennas.config == last.antennas.config;
      if (is_same_cell && is_same_config) {
        for (size_t i = 0; i < kChains; ++i) {
          EXPECT_NEAR(sample.lte[0].chains[i].rsrp, last.lte[0].chains[i].rsrp, 1) << time.count();
        }
        EXPECT_NEAR(sample.lte_uplink.power(), last.lte_uplink.power(), 1);
      }
      if (!is_same_config) {
        EXPECT_EQ(sample.antennas.previous_config, last.antennas.config) << time.count();
      }
      last = sample;
    }
  }
}

TEST(Radio, ASeedGivesTheSamePictureWhateverWasAskedBefore) {
  const RadioPicture first(0, 5);
  const RadioPicture second(0, 5);
  const RadioPicture other(0, 6);
  second.sample(Time{99'000});
  EXPECT_EQ(first.sample(Time{12'345}).lte[0].chains[2].snr, second.sample(Time{12'345}).lte[0].chains[2].snr);
  EXPECT_NE(first.sample(Time{12'345}).lte[0].chains[2].snr, other.sample(Time{12'345}).lte[0].chains[2].snr);
  EXPECT_EQ(first.sample(Time{12'345}).serving()->site, other.sample(Time{12'345}).serving()->site);
}

TEST(Radio, ALockAndTheNrModeDecideWhatThereIs) {
  RadioPicture picture(0, 1);
  picture.lock({{104, 6300}});
  EXPECT_EQ(picture.sample(Time{0}).lte[0].physical_cell_id, 104);
  EXPECT_EQ(picture.sample(Time{0}).lte[1].earfcn, 1300u) << "what was the serving frequency is a further carrier";
  picture.set_nr_disable_mode(NrDisableMode::kAll);
  EXPECT_EQ(picture.sample(Time{0}).mode, SystemMode::kLte);
  EXPECT_FALSE(picture.sample(Time{0}).has_nr());
  picture.lock({{1, 1}});
  const RadioSample nowhere = picture.sample(Time{0});
  EXPECT_EQ(nowhere.serving(), nullptr);
  EXPECT_EQ(nowhere.mode, SystemMode::kNone);
  EXPECT_FALSE(nowhere.lte[0].is_there || nowhere.lte[1].is_there);
  picture.forget_orders();
  EXPECT_TRUE(picture.sample(Time{0}).has_nr());
}

TEST(StatisticRows, AValueIsItsFieldsOneAfterTheOther) {
  const StatisticRow& uplink = *find_statistic("lte-uplink");
  const double numbers[] = {1, -10.4, 300, 23, -5};
  uint8_t bytes[8];
  ASSERT_EQ(pack(uplink, numbers, bytes), sizeof bytes);
  const uint8_t expected[] = {1, 0xF6, 0xFF, 0xFF, 23, 0, 0, 0};
  EXPECT_TRUE(std::equal(std::begin(bytes), std::end(bytes), expected)) << "cut to what the fields hold";
  EXPECT_EQ(unpack(WireType::kI16, bytes + 1), -10);
}

}  // namespace

}  // namespace pelmar::sim::test
