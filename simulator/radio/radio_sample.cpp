#include "radio/radio_sample.h"

#include <algorithm>
#include <iterator>

namespace pelmar::sim {

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

}  // namespace pelmar::sim
