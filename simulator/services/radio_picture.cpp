#include "services/radio_picture.h"

#include <algorithm>

namespace pelmar::sim {

namespace {

// Bands 3, 20 and 7.
constexpr LteSite kSitesOfFirst[] = {
    {1300, 101, 0x00C35001, -842, -91, -551},   {1300, 102, 0x00C35002, -913, -118, -604},
    {1300, 103, 0x00C35003, -978, -142, -649},  {1300, 217, 0x00C3A901, -1041, -171, -702},
    {6300, 101, 0x00C35011, -887, -102, -583},  {6300, 102, 0x00C35012, -949, -127, -641},
    {3050, 331, 0x00C35021, -1012, -113, -718}, {3050, 332, 0x00C35022, -1066, -149, -741},
};

// Bands 1, 8 and 3.
constexpr LteSite kSitesOfSecond[] = {
    {300, 24, 0x01112A01, -896, -97, -592},    {300, 25, 0x01112A02, -958, -126, -633},
    {300, 61, 0x01114401, -1023, -158, -697},  {3500, 24, 0x01112A11, -921, -108, -607},
    {1575, 78, 0x01112A21, -1007, -121, -701}, {1575, 79, 0x01112A22, -1049, -144, -733},
};

// Networks of the test country code 001; NR carriers of band n78.
constexpr Carrier kCarriers[RadioPicture::kSubscriptions] = {
    {{0x00, 0xF1, 0x10}, 0x2B67, 6, 640000, kSitesOfFirst},
    {{0x00, 0xF1, 0x20}, 0x0451, 11, 632628, kSitesOfSecond},
};

bool is_stronger(const LteSite& a, const LteSite& b) {
  return a.rsrp > b.rsrp;
}

}  // namespace

RadioPicture::RadioPicture(size_t subscription) : carrier_(&kCarriers[subscription]) {}

bool RadioPicture::may_camp_on(const LteSite& site) const {
  return lock_.empty() || std::any_of(lock_.begin(), lock_.end(), [&](const CellOfLock& cell) {
           return cell.earfcn == site.earfcn && cell.physical_cell_id == site.physical_cell_id;
         });
}

const LteSite* RadioPicture::serving() const {
  const LteSite* best = nullptr;
  for (const LteSite& site : carrier_->sites) {
    if (may_camp_on(site) && (best == nullptr || is_stronger(site, *best))) best = &site;
  }
  return best;
}

std::vector<LteSite> RadioPicture::sites_on(uint16_t earfcn) const {
  std::vector<LteSite> found;
  std::copy_if(carrier_->sites.begin(), carrier_->sites.end(), std::back_inserter(found),
               [&](const LteSite& site) { return site.earfcn == earfcn; });
  std::sort(found.begin(), found.end(), is_stronger);
  const LteSite* const camped = serving();
  if (camped != nullptr) {
    std::stable_partition(found.begin(), found.end(),
                          [&](const LteSite& site) { return site.global_cell_id == camped->global_cell_id; });
  }
  return found;
}

std::vector<uint16_t> RadioPicture::other_frequencies() const {
  const LteSite* const camped = serving();
  std::vector<uint16_t> found;
  for (const LteSite& site : carrier_->sites) {
    if (camped != nullptr && site.earfcn == camped->earfcn) continue;
    if (std::find(found.begin(), found.end(), site.earfcn) == found.end()) found.push_back(site.earfcn);
  }
  return found;
}

}  // namespace pelmar::sim
