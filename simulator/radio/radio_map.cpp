#include "radio/radio_map.h"

#include <cmath>
#include <numbers>

namespace pelmar::sim {

namespace {

constexpr Place kEast = {600, 150};
constexpr Place kNorth = {-50, 520};
constexpr Place kWest = {-620, -100};
constexpr Place kSouth = {120, -560};
constexpr Place kHill = {950, -900};

// Bands 3, 20, 7, 1, 28, 8 and once more 3: a primary carrier and up to six more. The south has the low bands only.
constexpr LteSite kSitesOfFirst[] = {
    {1300, 101, 0x00C35001, kEast, -70},  {1300, 102, 0x00C35101, kNorth, -71}, {1300, 103, 0x00C35201, kWest, -70},
    {1300, 217, 0x00C3A901, kHill, -72},  {6300, 101, 0x00C35011, kEast, -74},  {6300, 103, 0x00C35211, kWest, -74},
    {6300, 104, 0x00C35311, kSouth, -69}, {3050, 331, 0x00C35021, kEast, -78},  {3050, 332, 0x00C35121, kNorth, -78},
    {100, 401, 0x00C35031, kEast, -75},   {100, 403, 0x00C35231, kWest, -75},   {9360, 101, 0x00C35041, kEast, -75},
    {9360, 104, 0x00C35341, kSouth, -73}, {3500, 102, 0x00C35151, kNorth, -75}, {3500, 103, 0x00C35251, kWest, -75},
    {1850, 101, 0x00C35061, kEast, -73},  {1850, 102, 0x00C35161, kNorth, -74}, {1850, 103, 0x00C35261, kWest, -73},
};

constexpr Place kSecondEast = {480, -160};
constexpr Place kSecondNorth = {150, 620};
constexpr Place kSecondWest = {-500, -330};

// Bands 1, 8 and 3.
constexpr LteSite kSitesOfSecond[] = {
    {300, 24, 0x01112A01, kSecondEast, -71},   {300, 25, 0x01112B01, kSecondNorth, -71},
    {300, 61, 0x01114401, kSecondWest, -71},   {3500, 24, 0x01112A11, kSecondEast, -75},
    {3500, 61, 0x01114411, kSecondWest, -74},  {1575, 78, 0x01112A21, kSecondEast, -76},
    {1575, 79, 0x01112B21, kSecondNorth, -76},
};

// Bands n78 twice and n28; n78 covers the east and the north alone.
constexpr Place kNrPlacesOfFirst[] = {kEast, kNorth};
constexpr Place kLowNrPlacesOfFirst[] = {kEast, kWest};
constexpr NrFrequency kNrOfFirst[] = {
    {640000, -74, kNrPlacesOfFirst},
    {643334, -76, kNrPlacesOfFirst},
    {153600, -72, kLowNrPlacesOfFirst},
};

constexpr Place kNrPlacesOfSecond[] = {kSecondEast};
constexpr NrFrequency kNrOfSecond[] = {{632628, -78, kNrPlacesOfSecond}};

// Networks of the test country code 001.
constexpr Network kNetworks[kSubscriptions] = {
    {{0x00, 0xF1, 0x10}, 0x2B67, kSitesOfFirst, kNrOfFirst},
    {{0x00, 0xF1, 0x20}, 0x0451, kSitesOfSecond, kNrOfSecond},
};

constexpr double kLossPerDecade = 37;  // dB for ten times the distance, in an urban area
constexpr double kHeightMetres = 120;  // of the antennas above the phone

}  // namespace

const Network& network_of(size_t subscription) {
  return kNetworks[subscription];
}

Place place_at(double seconds) {
  const double angle = 2 * std::numbers::pi * seconds / kLapSeconds;
  return {620 * std::cos(angle) + 60 * std::cos(3 * angle), 470 * std::sin(angle) - 40 * std::sin(2 * angle)};
}

double distance(const Place& a, const Place& b) {
  return std::hypot(a.x - b.x, a.y - b.y);
}

double level_at(double power, double metres) {
  return power - kLossPerDecade * std::log10(std::hypot(metres, kHeightMetres) / 100);
}

}  // namespace pelmar::sim
