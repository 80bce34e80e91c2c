// SPDX-License-Identifier: Apache-2.0
// The direction-diverse store of block means and the recent blocks.
#include "quelta/magnetic/mag_detail.h"

namespace quelta::magnetic {

using namespace detail;

void Calibrator::refreshNearest(int i) {
  slots_[i].nn = -1;
  slots_[i].nnDist = 1e300;
  for (int k = 0; k < count_; ++k) {
    if (k == i) continue;
    const double d = norm(slots_[k].m - slots_[i].m);
    if (d < slots_[i].nnDist) {
      slots_[i].nnDist = d;
      slots_[i].nn = static_cast<int16_t>(k);
    }
  }
}

void Calibrator::insertSlot(int index, Vec3d m, Vec3d up) {
  Slot& s = slots_[index];
  s.m = m;
  s.up = up;
  s.t = clock_;
  for (int k = 0; k < count_; ++k) {
    if (k == index) continue;
    if (slots_[k].nn == index) {
      refreshNearest(k);
    } else {
      const double d = norm(slots_[k].m - m);
      if (d < slots_[k].nnDist) {
        slots_[k].nnDist = d;
        slots_[k].nn = static_cast<int16_t>(index);
      }
    }
  }
  refreshNearest(index);
  ++newSinceFit_;
}

void Calibrator::offerCandidate(Vec3d m, Vec3d up) {
  const double strength = cal_.model != Model::None ? cal_.strength : kTypicalStrength;
  const double separation = kMinSeparation * strength;
  int nearest = -1;
  double nearestDist = 1e300;
  for (int k = 0; k < count_; ++k) {
    const double d = norm(slots_[k].m - m);
    if (d < nearestDist) {
      nearestDist = d;
      nearest = k;
    }
  }
  if (nearest >= 0 && nearestDist < separation) {
    if (clock_ - slots_[nearest].t >= kRefreshAge) insertSlot(nearest, m, up);
    return;
  }
  if (count_ < kSlots) {
    ++count_;
    insertSlot(count_ - 1, m, up);
    return;
  }
  // Full: the most crowded slot (the older of the closest pair) makes room.
  int evict = 0;
  for (int k = 1; k < count_; ++k) {
    const Slot& a = slots_[k];
    const Slot& b = slots_[evict];
    if (a.nnDist < b.nnDist || (a.nnDist == b.nnDist && a.t < b.t)) evict = k;
  }
  const int partner = slots_[evict].nn;
  if (partner >= 0 && slots_[partner].t < slots_[evict].t) evict = partner;
  insertSlot(evict, m, up);
}

int Calibrator::recentBlocks(Slot* out, double since) const {
  int n = 0;
  for (int i = 0; i < recentCount_; ++i) {
    const Slot& sl = recent_[(recentHead_ - 1 - i + 2 * kRecent) % kRecent];
    if (sl.t < since) break;
    out[n++] = sl;
  }
  return n;
}

void Calibrator::restartStore(const Slot* recent, int n) {
  priorOffsetSigma_ = 0.0;
  count_ = 0;
  for (int i = n - 1; i >= 0; --i) offerCandidate(recent[i].m, recent[i].up);
  inconsistentSince_ = -1.0;
  inconsistentShare_ = 0.0;
}

}  // namespace quelta::magnetic
