// SPDX-License-Identifier: Apache-2.0
// Long soak of the whole library on a simulated device in motion, with
// periodic disturbances (tools/soak/disturbance.h): NaN and infinity bursts,
// dead sensors reading zeros, a frozen magnetometer axis, hard-iron jumps,
// transient magnetic fields and a corrupted stored calibration.
//
//   quelta_soak [SAMPLE_SETS] [SEED]      (default 10000000, 1)
//
// The host drives every pipeline through the exported functions, 50 sample
// sets per second, as a sensor service would:
//   - calibration: MainAlgorithmProcess, GetCalMag, GetCalOri, GetCalPara
//     (a new calibration is stored when it reports one), GetMagSaturation;
//     the host never re-hands its stored calibration: after a disturbance the
//     library recalibrates from the user's motion;
//   - virtual gyroscope: the calibrated field; after a sample set whose
//     calibrated field or acceleration was not finite the host asks for a
//     restart (algoRestart = 1) on the next one;
//   - rotation vector: the calibrated field, no recovery action.
// A second virtual gyroscope, fed the same samples by a host that never
// restarts it, shows what stays latched without that policy.
//
// Checked (a violation makes the exit status 1):
//   - rotation vector, gravity and linear acceleration are finite once the
//     last 35 sample sets were finite (30-sample mean, then mean of 6 means);
//   - the virtual gyroscope's rate and attitude are finite on every sample
//     set with finite input (given the host's restart after a bad one);
//   - azimuth, pitch and roll are finite, the orientation matrix and the
//     azimuth filter never hold a non-finite value;
//   - after every disturbance the calibration is back at accuracy 3 with an
//     offset within 0.05 gauss of the true hard-iron offset before the next
//     disturbance begins.
// Reported: recovery times, and every state found non-finite with the
// longest time it stayed so (latched states).
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "QueltaAlgo.h"
#include "interface/compass.h"
#include "tools/sim/device_sim.h"
#include "tools/soak/disturbance.h"
#include "tools/soak/latch.h"
#include "tools/soak/motion.h"
#include "vgyro/virtual_gyro.h"

namespace {

using quelta::sim::Quat;
using quelta::sim::Vec3;
using quelta::soak::Disturbance;
using quelta::soak::Kind;
using quelta::soak::Latch;

constexpr double kDt = 0.02;                   // s: 50 sample sets per second
constexpr int64_t kDisturbancePeriod = 10000;  // sample sets between disturbance starts
constexpr int64_t kRotvecRecovery = 35;        // sample sets
constexpr double kOffsetTolerance = 0.05;      // gauss

bool finite(const float* v, int n) {
  for (int i = 0; i < n; ++i) {
    if (!std::isfinite(v[i])) return false;
  }
  return true;
}

bool finite(const quelta::Vec3f& v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); }

bool historiesFinite(const quelta::SampleIntake& intake) {
  for (int32_t k = 0; k < quelta::SampleIntake::kHistoryLength; ++k) {
    if (!finite(intake.fieldAt(k)) || !finite(intake.accAt(k))) return false;
  }
  return true;
}

double norm3(const float* v) {
  return std::sqrt(static_cast<double>(v[0]) * v[0] + static_cast<double>(v[1]) * v[1] +
                   static_cast<double>(v[2]) * v[2]);
}

// What one sample set produced.
struct Outputs {
  float calMag[3], ori[3], para[7];
  float gyr[3], gyrQuat[4];
  float naiveGyr[3], naiveQuat[4];
  float rov[4], gravity[3], linear[3];
  bool fusedInputBad;  // the calibrated field or the acceleration not finite
};

// The sensor service.
class Host {
 public:
  Host() { configure(noCalibration_); }

  // The host's storage was corrupted: it hands a NaN offset to the library.
  void handOverCorruptedCalibration() {
    const float corrupt[4] = {std::numeric_limits<float>::quiet_NaN(), stored_[1], stored_[2],
                              stored_[3]};
    configure(corrupt);
  }

  Outputs process(const quelta::sim::SensorSample& s) {
    Outputs o{};
    MainAlgorithmProcess(s.acc, s.mag, s.mag, 0, kSilent);
    GetCalMag(o.calMag);
    GetCalOri(o.ori);
    if (GetCalPara(o.para) == 1) {
      for (int i = 0; i < 4; ++i) stored_[i] = o.para[i];
      ++newCalibrations;
    }
    saturations += GetMagSaturation();
    o.fusedInputBad = !finite(o.calMag, 3) || !finite(s.acc, 3);

    const int32_t restart = previousBad_ ? 1 : 0;
    gyroRestarts += restart;
    CalcQueltaGyro(o.calMag, s.acc, restart, kSilent, static_cast<float>(kDt));
    GetCalGyr(o.gyr);
    GetRotVec_InVG(o.gyrQuat);
    naiveGyro_.gyro.process(o.calMag, s.acc, 0, kSilent, static_cast<float>(kDt));
    naiveGyro_.gyro.copyRate(o.naiveGyr);
    naiveGyro_.gyro.copyAttitude(o.naiveQuat);

    CalcQueltaRotVec(o.calMag, s.acc, 0);
    GetCalRov(o.rov);
    GetQueltaGravityAcc(o.gravity);
    GetQueltaLinearAcc(o.linear);

    previousBad_ = o.fusedInputBad;
    return o;
  }

  int64_t newCalibrations = 0;
  int64_t saturations = 0;
  int64_t gyroRestarts = 0;

 private:
  static constexpr int32_t kSilent = 5;

  void configure(const float* calibration) {
    const float axis[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    const float pool[8] = {6, 16, 32, 0.1f, 0.1f, 0.85f, 1.15f, 1.4f};
    const float thd[3] = {0.1f, 2e-5f, 2e-4f};
    const int32_t paraC[3] = {20, 11, 8};
    AlgoInitial(axis, calibration, pool, thd, paraC, nullptr);
  }

  const float noCalibration_[4] = {0.0f, 0.0f, 0.0f, 0.5f};
  float stored_[4] = {0.0f, 0.0f, 0.0f, 0.5f};
  bool previousBad_ = false;
  quelta::StandaloneVirtualGyro naiveGyro_;  // a host that never restarts it
};

enum LatchIndex {
  kRov, kGravity, kLinear, kGyr, kGyrQuat, kNaiveGyr, kNaiveQuat, kGyroLpf, kCalMag, kOffset,
  kSaved, kGeometry, kHistories, kOri, kOriMatrix, kAziLpf, kAziWindows, kLatchCount
};

void observeLatches(Latch* latches, const Outputs& o, int64_t t) {
  const quelta::Compass& compass = quelta::defaultCompass();
  const quelta::Calibrator& cal = compass.calibrator();
  const quelta::Orientation& orientation = compass.orientation();
  latches[kRov].observe(!finite(o.rov, 4), t);
  latches[kGravity].observe(!finite(o.gravity, 3), t);
  latches[kLinear].observe(!finite(o.linear, 3), t);
  latches[kGyr].observe(!finite(o.gyr, 3), t);
  latches[kGyrQuat].observe(!finite(o.gyrQuat, 4), t);
  latches[kNaiveGyr].observe(!finite(o.naiveGyr, 3), t);
  latches[kNaiveQuat].observe(!finite(o.naiveQuat, 4), t);
  latches[kGyroLpf].observe(!finite(bfMagLPFData, 9) || !finite(bfAccLPFData, 9), t);
  latches[kCalMag].observe(!finite(o.calMag, 3), t);
  latches[kOffset].observe(!finite(cal.offset()) || !std::isfinite(cal.radius()), t);
  latches[kSaved].observe(!finite(cal.savedOffset()) || !std::isfinite(cal.savedRadius()), t);
  latches[kGeometry].observe(!finite(o.para + 4, 3), t);
  latches[kHistories].observe(!historiesFinite(compass.intake()), t);
  latches[kOri].observe(!finite(o.ori, 3), t);
  latches[kOriMatrix].observe(!finite(&orientation.matrix()[0][0], 9), t);
  latches[kAziLpf].observe(!orientation.smoother().filterFinite(), t);
  latches[kAziWindows].observe(!orientation.smoother().windowsFinite(), t);
}

struct Stats {
  int64_t violations = 0;
  int64_t disturbances[quelta::soak::kKindCount] = {};
  int64_t recovered[quelta::soak::kKindCount] = {};
  int64_t recoveryMax[quelta::soak::kKindCount] = {};
  double recoverySum[quelta::soak::kKindCount] = {};
  // Sample sets turning faster than 1 rad/s, and those on which each virtual
  // gyroscope published a rate above 0.2 rad/s.
  int64_t fastTurning = 0;
  int64_t gyroSeesTurn = 0;
  int64_t naiveGyroSeesTurn = 0;
  double azimuthErrorSum = 0.0;
  int64_t azimuthErrorCount = 0;

  void violation(int64_t t, const char* what) {
    if (violations < 20) {
      std::printf("VIOLATION at sample set %lld: %s\n", static_cast<long long>(t), what);
    }
    ++violations;
  }
};

// The prescribed behaviour after bad input.
void checkOutputs(const Outputs& o, int64_t t, int64_t lastBad, Stats& stats) {
  if (t - lastBad >= kRotvecRecovery &&
      !(finite(o.rov, 4) && finite(o.gravity, 3) && finite(o.linear, 3))) {
    stats.violation(t, "rotation vector not finite 35 sample sets after the last bad input");
  }
  if (!o.fusedInputBad && !(finite(o.gyr, 3) && finite(o.gyrQuat, 4))) {
    stats.violation(t, "virtual gyroscope not finite on finite input (restarted after bad input)");
  }
  const quelta::Orientation& orientation = quelta::defaultCompass().orientation();
  if (!finite(o.ori, 3)) stats.violation(t, "GetCalOri not finite");
  if (!finite(&orientation.matrix()[0][0], 9)) stats.violation(t, "orientation matrix not finite");
  if (!orientation.smoother().filterFinite()) {
    stats.violation(t, "azimuth filter state not finite");
  }
}

// Calibration back at accuracy 3 with an accurate offset after a
// disturbance; measured from its end.
class RecoveryWatch {
 public:
  void disturbanceEnded(Kind kind, int64_t t) {
    since_ = t;
    kind_ = kind;
  }
  bool pending() const { return since_ >= 0; }

  void observe(int64_t t, const Vec3& trueOffset, Stats& stats) {
    if (since_ < 0 || t < since_) return;
    const quelta::Vec3f o = quelta::defaultCompass().calibrator().offset();
    const double dx = o[0] - trueOffset.x, dy = o[1] - trueOffset.y, dz = o[2] - trueOffset.z;
    if (GetMagAccuracy() != 3 || !(std::sqrt(dx * dx + dy * dy + dz * dz) < kOffsetTolerance)) return;
    const int k = static_cast<int>(kind_);
    const int64_t latency = t - since_;
    ++stats.recovered[k];
    stats.recoverySum[k] += static_cast<double>(latency);
    if (latency > stats.recoveryMax[k]) stats.recoveryMax[k] = latency;
    since_ = -1;
  }

  void nextDisturbanceBegins(int64_t t, Stats& stats) {
    if (since_ < 0) return;
    stats.violation(t, "calibration not back at accuracy 3 before the next disturbance");
    std::printf("  after: %s\n", quelta::soak::kindName(kind_));
    since_ = -1;
  }

 private:
  int64_t since_ = -1;
  Kind kind_ = Kind::kMagNaN;
};

double angleDiff(double a, double b) { return std::fabs(std::fmod(a - b + 540.0, 360.0) - 180.0); }

// True azimuth of the device's y axis (top edge), degrees clockwise from north.
double trueAzimuth(const Quat& q) {
  const Vec3 y = quelta::sim::rotate(q, {0.0, 1.0, 0.0});
  return std::fmod(std::atan2(y.x, y.y) * 180.0 / 3.14159265358979323846 + 360.0, 360.0);
}

void report(const Stats& stats, const Latch* latches, const Host& host) {
  std::printf("\nDisturbances and calibration recovery (sample sets after the disturbance ended\n"
              "until accuracy 3 with the offset within %.2f gauss of the truth):\n", kOffsetTolerance);
  for (int k = 0; k < quelta::soak::kKindCount; ++k) {
    const double mean = stats.recovered[k] > 0 ? stats.recoverySum[k] / stats.recovered[k] : 0.0;
    std::printf("  %-32s %6lld, recovered %6lld, mean %8.1f, longest %7lld\n",
                quelta::soak::kindName(static_cast<Kind>(k)), static_cast<long long>(stats.disturbances[k]),
                static_cast<long long>(stats.recovered[k]), mean, static_cast<long long>(stats.recoveryMax[k]));
  }
  std::printf("\nNon-finite states (episodes, longest in sample sets; 'open' = still so at the end):\n");
  for (int i = 0; i < kLatchCount; ++i) {
    const Latch& l = latches[i];
    if (l.episodes == 0) {
      std::printf("  %-72s never\n", l.name);
    } else {
      std::printf("  %-72s %6lld, longest %8lld%s\n", l.name, static_cast<long long>(l.episodes),
                  static_cast<long long>(l.longest), l.openAtEnd ? " (open)" : "");
    }
  }
  std::printf("\nNew calibrations published %lld, saturations reported %lld, gyroscope restarts %lld\n",
              static_cast<long long>(host.newCalibrations), static_cast<long long>(host.saturations),
              static_cast<long long>(host.gyroRestarts));
  if (stats.fastTurning > 0) {
    std::printf("Turning faster than 1 rad/s: %lld sample sets; virtual gyroscope reports a turn on\n"
                "%.1f %% of them (host that never restarts it: %.1f %%)\n",
                static_cast<long long>(stats.fastTurning), 100.0 * stats.gyroSeesTurn / stats.fastTurning,
                100.0 * stats.naiveGyroSeesTurn / stats.fastTurning);
  }
  if (stats.azimuthErrorCount > 0) {
    std::printf("Mean azimuth error at rest, calibrated and near level: %.2f degrees (%lld sample sets)\n",
                stats.azimuthErrorSum / stats.azimuthErrorCount, static_cast<long long>(stats.azimuthErrorCount));
  }
  std::printf("\n%s: %lld violations\n", stats.violations == 0 ? "PASS" : "FAIL",
              static_cast<long long>(stats.violations));
}

}  // namespace

int main(int argc, char** argv) {
  const int64_t total = argc > 1 ? std::atoll(argv[1]) : 10000000;
  const uint64_t seed = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1;
  std::printf("soak: %lld sample sets (%.1f simulated hours), seed %llu\n", static_cast<long long>(total),
              static_cast<double>(total) * kDt / 3600.0, static_cast<unsigned long long>(seed));

  quelta::sim::Random random(seed * 7919 + 17);
  quelta::soak::Motion motion(seed, kDt);
  quelta::sim::Device device;
  device.accNoiseG = 0.005;
  device.random = quelta::sim::Random(seed + 1);
  Host host;

  Stats stats;
  Latch latches[kLatchCount] = {
      {"rotation vector (fOutRov)"},
      {"gravity (fGravityAcc)"},
      {"linear acceleration (fLinearAcc)"},
      {"virtual gyroscope rate (GetCalGyr)"},
      {"virtual gyroscope attitude (GetRotVec_InVG)"},
      {"  same, host that never restarts: rate"},
      {"  same, host that never restarts: attitude"},
      {"exported low-pass buffers of the virtual gyroscope (bfMagLPF, bfAccLPF)"},
      {"calibrated field (GetCalMag)"},
      {"calibration offset (dSphereOffset)"},
      {"saved calibration offset (dSavedOffset)"},
      {"field geometry (GetCalPara elements 4-6)"},
      {"30-sample histories of the calibration"},
      {"azimuth, pitch, roll (GetCalOri)"},
      {"orientation matrix (dOriMatrix)"},
      {"azimuth low-pass filter state"},
      {"azimuth median and mean windows"},
  };
  Disturbance d;
  RecoveryWatch recovery;
  int64_t lastBad = -1000000;  // last sample set whose fused inputs were not finite

  for (int64_t t = 0; t < total; ++t) {
    // One disturbance per period, the kinds in turn.
    if (t % kDisturbancePeriod == 0 && t > 0) {
      recovery.nextDisturbanceBegins(t, stats);
      const auto kind = static_cast<Kind>((t / kDisturbancePeriod - 1) % quelta::soak::kKindCount);
      d = quelta::soak::plan(kind, t, kDisturbancePeriod, random);
      ++stats.disturbances[static_cast<int>(kind)];
    }
    const bool active = d.activeAt(t);
    if (t == d.start) {
      quelta::soak::applyToDevice(d, device);
      if (d.kind == Kind::kCorruptStoredCalibration) host.handOverCorruptedCalibration();
    }

    motion.step();
    const Quat q = motion.attitude();
    quelta::sim::SensorSample s = device.read(q, motion.linearAcc());
    if (active) quelta::soak::applyToSample(d, t, s);

    const Outputs o = host.process(s);
    if (o.fusedInputBad) lastBad = t;
    checkOutputs(o, t, lastBad, stats);
    observeLatches(latches, o, t);

    if (motion.rate() > 1.0) {
      ++stats.fastTurning;
      if (norm3(o.gyr) > 0.2) ++stats.gyroSeesTurn;
      if (norm3(o.naiveGyr) > 0.2) ++stats.naiveGyroSeesTurn;
    }
    if (t + 1 == d.end) recovery.disturbanceEnded(d.kind, t + 1);
    recovery.observe(t, device.hardIron, stats);

    // Heading accuracy while calibrated, undisturbed, at rest for 2 s and
    // near level.
    if (!recovery.pending() && !active && GetMagAccuracy() == 3 && t - lastBad > 100 &&
        motion.stillFor() > 100 && quelta::sim::rotate(q, {0.0, 0.0, 1.0}).z > 0.9) {
      stats.azimuthErrorSum += angleDiff(o.ori[0], trueAzimuth(q));
      ++stats.azimuthErrorCount;
    }
  }
  for (Latch& l : latches) l.finish(total);
  report(stats, latches, host);
  return stats.violations == 0 ? 0 : 1;
}
