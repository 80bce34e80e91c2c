// Long soak of the whole library on a simulated device in motion, with
// periodic disturbances: NaN and infinity bursts, dead sensors reading zeros,
// a frozen magnetometer axis, hard-iron jumps, transient magnetic fields and
// a corrupted stored calibration handed over by the host.
//
//   quelta_soak [SAMPLE_SETS] [SEED]      (default 10000000, 1)
//
// The host drives every pipeline through the exported functions, 50 sample
// sets per second, as a sensor service would:
//   - calibration: MainAlgorithmProcess, GetCalMag, GetCalOri, GetCalPara
//     (a new calibration is stored when it reports one), GetMagSaturation;
//     the host never re-hands its stored calibration: after a disturbance the
//     library recalibrates from the user's motion;
//   - virtual gyroscope: the calibrated field; after a sample set with a
//     non-finite value the host asks for a restart (algoRestart = 1) on the
//     next one;
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
#include "magcal/calibrator.h"
#include "orientation/orientation.h"
#include "tools/sim/device_sim.h"
#include "vgyro/virtual_gyro.h"

namespace {

using quelta::sim::Quat;
using quelta::sim::Vec3;

constexpr double kDt = 0.02;                     // s: 50 sample sets per second
constexpr int64_t kDisturbancePeriod = 10000;    // sample sets between disturbance starts
constexpr int64_t kRotvecRecovery = 35;          // sample sets
constexpr double kOffsetTolerance = 0.05;        // gauss

bool finite(const float* v, int n) {
  for (int i = 0; i < n; ++i) {
    if (!std::isfinite(v[i])) return false;
  }
  return true;
}

// ---------------------------------------------------------------------------
// Motion: alternating phases of tumbling (the user waving the device) and
// rest, with a little linear acceleration while moving.
class Motion {
 public:
  explicit Motion(uint64_t seed) : random_(seed) {}

  Quat attitude() const { return attitude_; }
  Vec3 linearAcc() const { return linear_; }
  // Sample sets since the device came to rest (0 while moving).
  int64_t stillFor() const { return moving_ ? 0 : stillFor_; }
  // Turning rate, rad/s.
  double rate() const {
    return moving_ ? std::sqrt(rate_.x * rate_.x + rate_.y * rate_.y + rate_.z * rate_.z) : 0.0;
  }

  void step() {
    if (--phaseLeft_ <= 0) startPhase();
    ++stillFor_;
    if (moving_) {
      rate_.x += random_.uniform(-0.2, 0.2);
      rate_.y += random_.uniform(-0.2, 0.2);
      rate_.z += random_.uniform(-0.2, 0.2);
      const double n = std::sqrt(rate_.x * rate_.x + rate_.y * rate_.y + rate_.z * rate_.z);
      if (n > 3.0) {
        rate_.x *= 3.0 / n;
        rate_.y *= 3.0 / n;
        rate_.z *= 3.0 / n;
      }
      if (n > 1e-9) {
        attitude_ = quelta::sim::quatMultiply(attitude_,
                                              quelta::sim::quatFromAxisAngle(rate_, n * kDt));
      }
      linear_ = {random_.uniform(-0.05, 0.05), random_.uniform(-0.05, 0.05),
                 random_.uniform(-0.05, 0.05)};
    } else {
      linear_ = {};
    }
    // Keep the attitude a unit quaternion over millions of steps.
    const double n = std::sqrt(attitude_.w * attitude_.w + attitude_.x * attitude_.x +
                               attitude_.y * attitude_.y + attitude_.z * attitude_.z);
    attitude_ = {attitude_.w / n, attitude_.x / n, attitude_.y / n, attitude_.z / n};
  }

 private:
  void startPhase() {
    moving_ = random_.uniform() < 0.75;
    stillFor_ = 0;
    phaseLeft_ = static_cast<int64_t>((moving_ ? random_.uniform(2.0, 20.0)
                                               : random_.uniform(2.0, 10.0)) / kDt);
    rate_ = {random_.uniform(-1.5, 1.5), random_.uniform(-1.5, 1.5), random_.uniform(-1.5, 1.5)};
  }

  quelta::sim::Random random_;
  Quat attitude_ = quelta::sim::attitudeFromHeadingPitchRoll(30.0, 10.0, -5.0);
  Vec3 rate_;
  Vec3 linear_;
  bool moving_ = true;
  int64_t phaseLeft_ = 0;
  int64_t stillFor_ = 0;
};

// ---------------------------------------------------------------------------
// Disturbances.
enum class Kind {
  kMagNaN,
  kAccNaN,
  kBothInfinite,
  kMagDead,
  kAccDead,
  kFrozenAxis,
  kHardIronJump,
  kTransientField,
  kCorruptStoredCalibration,
  kCount
};

const char* kindName(Kind k) {
  switch (k) {
    case Kind::kMagNaN: return "NaN burst, magnetometer";
    case Kind::kAccNaN: return "NaN burst, accelerometer";
    case Kind::kBothInfinite: return "infinity burst, both sensors";
    case Kind::kMagDead: return "dead magnetometer (zeros)";
    case Kind::kAccDead: return "dead accelerometer (zeros)";
    case Kind::kFrozenAxis: return "frozen magnetometer axis";
    case Kind::kHardIronJump: return "hard-iron jump";
    case Kind::kTransientField: return "transient magnetic field";
    case Kind::kCorruptStoredCalibration: return "corrupted stored calibration";
    default: return "?";
  }
}

constexpr int kKinds = static_cast<int>(Kind::kCount);

struct Disturbance {
  Kind kind = Kind::kMagNaN;
  int64_t start = -1;
  int64_t end = -1;  // first sample set after it
  Vec3 field;        // transient field or hard-iron change, gauss
  float frozen = 0.0f;
};

// ---------------------------------------------------------------------------
// How long a quantity stays non-finite: episodes and the longest one.
struct Latch {
  const char* name;
  int64_t since = -1;
  int64_t episodes = 0;
  int64_t longest = 0;
  int64_t openAtEnd = 0;

  void observe(bool bad, int64_t t) {
    if (bad && since < 0) {
      since = t;
      ++episodes;
    } else if (!bad && since >= 0) {
      if (t - since > longest) longest = t - since;
      since = -1;
    }
  }
  void finish(int64_t t) {
    if (since >= 0) {
      openAtEnd = t - since;
      if (openAtEnd > longest) longest = openAtEnd;
    }
  }
};

struct Stats {
  int64_t violations = 0;
  int64_t disturbances[kKinds] = {};
  int64_t recovered[kKinds] = {};
  int64_t recoveryMax[kKinds] = {};
  double recoverySum[kKinds] = {};
  int64_t newCalibrations = 0;
  int64_t saturations = 0;
  int64_t gyroRestarts = 0;
  double azimuthErrorSum = 0.0;
  int64_t azimuthErrorCount = 0;
  // Sample sets turning faster than 1 rad/s, and those on which each virtual
  // gyroscope published a rate above 0.2 rad/s.
  int64_t fastTurning = 0;
  int64_t gyroSeesTurn = 0;
  int64_t naiveGyroSeesTurn = 0;

  void violation(int64_t t, const char* what) {
    if (violations < 20) std::printf("VIOLATION at sample set %lld: %s\n", static_cast<long long>(t), what);
    ++violations;
  }
};

double norm(const float* v) {
  return std::sqrt(static_cast<double>(v[0]) * v[0] + static_cast<double>(v[1]) * v[1] +
                   static_cast<double>(v[2]) * v[2]);
}

float nan() { return std::numeric_limits<float>::quiet_NaN(); }
float inf() { return std::numeric_limits<float>::infinity(); }

double angleDiff(double a, double b) {
  double d = std::fmod(a - b + 540.0, 360.0) - 180.0;
  return std::fabs(d);
}

// True azimuth of the device's y axis (top edge), degrees clockwise from
// north, when the device is not far from level.
double trueAzimuth(const Quat& q) {
  const Vec3 y = quelta::sim::rotate(q, {0.0, 1.0, 0.0});
  return std::fmod(std::atan2(y.x, y.y) * 180.0 / 3.14159265358979323846 + 360.0, 360.0);
}

}  // namespace

int main(int argc, char** argv) {
  const int64_t total = argc > 1 ? std::atoll(argv[1]) : 10000000;
  const uint64_t seed = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1;
  std::printf("soak: %lld sample sets (%.1f simulated hours), seed %llu\n",
              static_cast<long long>(total), total * kDt / 3600.0,
              static_cast<unsigned long long>(seed));

  quelta::sim::Random random(seed * 7919 + 17);
  Motion motion(seed);
  quelta::sim::Device device;
  device.accNoiseG = 0.005;
  device.random = quelta::sim::Random(seed + 1);

  const float axis[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  const float noCalibration[4] = {0.0f, 0.0f, 0.0f, 0.5f};
  const float pool[8] = {6, 16, 32, 0.1f, 0.1f, 0.85f, 1.15f, 1.4f};
  const float thd[3] = {0.1f, 2e-5f, 2e-4f};
  const int32_t paraC[3] = {20, 11, 8};
  AlgoInitial(axis, noCalibration, pool, thd, paraC, nullptr);
  float stored[4] = {0.0f, 0.0f, 0.0f, 0.5f};  // the host's stored calibration

  quelta::StandaloneVirtualGyro naiveGyro;  // a host that never restarts it

  Stats stats;
  Latch latches[] = {
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
  enum {
    kRov, kGravity, kLinear, kGyr, kGyrQuat, kNaiveGyr, kNaiveQuat, kGyroLpf, kCalMag, kOffset,
    kSaved, kGeometry, kHistories, kOri, kOriMatrix, kAziLpf, kAziWindows, kLatchCount
  };

  Disturbance d;
  int64_t lastBad = -1000000;  // last sample set whose fused inputs were not finite
  bool previousBad = false;
  int64_t recoveringSince = -1;  // end of the last disturbance, until recovered
  Kind recoveringKind = Kind::kMagNaN;
  Vec3 transient;

  for (int64_t t = 0; t < total; ++t) {
    // Schedule: one disturbance per period, kinds in turn, at a random point
    // of the period's first half.
    if (t % kDisturbancePeriod == 0 && t > 0) {
      if (recoveringSince >= 0) {
        stats.violation(t, "calibration not back at accuracy 3 before the next disturbance");
        std::printf("  after: %s\n", kindName(recoveringKind));
        recoveringSince = -1;
      }
      d = Disturbance{};
      d.kind = static_cast<Kind>((t / kDisturbancePeriod - 1) % kKinds);
      d.start = t + static_cast<int64_t>(random.uniform(0.0, kDisturbancePeriod / 2.0));
      int64_t length = 1;
      switch (d.kind) {
        case Kind::kMagNaN:
        case Kind::kAccNaN:
        case Kind::kBothInfinite: length = 1 + static_cast<int64_t>(random.uniform(0.0, 60.0)); break;
        case Kind::kMagDead:
        case Kind::kAccDead: length = 50 + static_cast<int64_t>(random.uniform(0.0, 500.0)); break;
        case Kind::kFrozenAxis: length = 300 + static_cast<int64_t>(random.uniform(0.0, 300.0)); break;
        case Kind::kTransientField: length = 100 + static_cast<int64_t>(random.uniform(0.0, 400.0)); break;
        default: length = 1; break;
      }
      d.end = d.start + length;
      const Vec3 dir = quelta::sim::fibonacciDirection(static_cast<int>(random.uniform(0.0, 100.0)), 100);
      const double size = d.kind == Kind::kTransientField ? random.uniform(0.5, 3.0)
                                                          : random.uniform(0.1, 1.5);
      d.field = {dir.x * size, dir.y * size, dir.z * size};
      d.frozen = static_cast<float>(random.uniform(-0.6, 0.6));
      ++stats.disturbances[static_cast<int>(d.kind)];
    }
    const bool active = t >= d.start && t < d.end;

    if (active && t == d.start) {
      if (d.kind == Kind::kHardIronJump) {
        // A new magnet in the device for good, kept within a plausible range.
        device.hardIron = {std::fmod(device.hardIron.x + d.field.x, 1.0),
                           std::fmod(device.hardIron.y + d.field.y, 1.0),
                           std::fmod(device.hardIron.z + d.field.z, 1.0)};
      } else if (d.kind == Kind::kCorruptStoredCalibration) {
        const float corrupt[4] = {nan(), stored[1], stored[2], stored[3]};
        AlgoInitial(axis, corrupt, pool, thd, paraC, nullptr);
      }
    }

    motion.step();
    const Quat q = motion.attitude();
    quelta::sim::SensorSample s = device.read(q, motion.linearAcc());
    if (active) {
      switch (d.kind) {
        case Kind::kMagNaN: s.mag[t % 3] = nan(); break;
        case Kind::kAccNaN: s.acc[0] = s.acc[1] = s.acc[2] = nan(); break;
        case Kind::kBothInfinite: s.mag[1] = inf(); s.acc[2] = -inf(); break;
        case Kind::kMagDead: s.mag[0] = s.mag[1] = s.mag[2] = 0.0f; break;
        case Kind::kAccDead: s.acc[0] = s.acc[1] = s.acc[2] = 0.0f; break;
        case Kind::kFrozenAxis: s.mag[2] = d.frozen; break;
        case Kind::kTransientField:
          s.mag[0] += static_cast<float>(d.field.x);
          s.mag[1] += static_cast<float>(d.field.y);
          s.mag[2] += static_cast<float>(d.field.z);
          break;
        default: break;
      }
    }

    // Calibration and orientation.
    MainAlgorithmProcess(s.acc, s.mag, s.mag, 0, 5);
    float calMag[3], ori[3], para[7];
    GetCalMag(calMag);
    GetCalOri(ori);
    if (GetCalPara(para) == 1) {
      for (int i = 0; i < 4; ++i) stored[i] = para[i];
      ++stats.newCalibrations;
    }
    stats.saturations += GetMagSaturation();
    // What the fusion pipelines receive: the calibrated field and the
    // acceleration. The host sees when they are not finite.
    const bool bad = !finite(calMag, 3) || !finite(s.acc, 3);
    if (bad) lastBad = t;

    // Virtual gyroscope: restart after a non-finite input.
    const int32_t restart = previousBad ? 1 : 0;
    stats.gyroRestarts += restart;
    CalcQueltaGyro(calMag, s.acc, restart, 5, static_cast<float>(kDt));
    float gyr[3], gyrQuat[4];
    GetCalGyr(gyr);
    GetRotVec_InVG(gyrQuat);
    naiveGyro.gyro.process(calMag, s.acc, 0, 5, static_cast<float>(kDt));
    float naiveGyr[3], naiveQuat[4];
    naiveGyro.gyro.calGyr(naiveGyr);
    naiveGyro.gyro.rotVecInVG(naiveQuat);

    // Rotation vector.
    CalcQueltaRotVec(calMag, s.acc, 0);
    float rov[4], gravity[3], linear[3];
    GetCalRov(rov);
    GetQueltaGravityAcc(gravity);
    GetQueltaLinearAcc(linear);

    // Checks.
    const bool rotvecDue = t - lastBad >= kRotvecRecovery;
    if (rotvecDue && !(finite(rov, 4) && finite(gravity, 3) && finite(linear, 3))) {
      stats.violation(t, "rotation vector not finite 35 sample sets after the last bad input");
    }
    if (!bad && !(finite(gyr, 3) && finite(gyrQuat, 4))) {
      stats.violation(t, "virtual gyroscope not finite on finite input (restarted after bad input)");
    }
    const quelta::Orientation& orientation = quelta::defaultOrientation();
    const quelta::AzimuthSmoother& smoother = orientation.smoother;
    if (!finite(ori, 3)) stats.violation(t, "GetCalOri not finite");
    if (!finite(&orientation.dOriMatrix[0][0], 9)) stats.violation(t, "orientation matrix not finite");
    if (!finite(smoother.dAziLpfIn, 2) || !finite(smoother.dAziLpfOut, 2)) {
      stats.violation(t, "azimuth filter state not finite");
    }

    const quelta::CalibrationState& cal = quelta::defaultCalibrator().state;
    latches[kRov].observe(!finite(rov, 4), t);
    latches[kGravity].observe(!finite(gravity, 3), t);
    latches[kLinear].observe(!finite(linear, 3), t);
    latches[kGyr].observe(!finite(gyr, 3), t);
    latches[kGyrQuat].observe(!finite(gyrQuat, 4), t);
    latches[kNaiveGyr].observe(!finite(naiveGyr, 3), t);
    latches[kNaiveQuat].observe(!finite(naiveQuat, 4), t);
    latches[kGyroLpf].observe(!finite(bfMagLPFData, 9) || !finite(bfAccLPFData, 9), t);
    latches[kCalMag].observe(!finite(calMag, 3), t);
    latches[kOffset].observe(!finite(cal.dSphereOffset, 3) || !std::isfinite(cal.dSphereRadius), t);
    latches[kSaved].observe(!finite(cal.dSavedOffset, 3) || !std::isfinite(cal.dSavedRadius), t);
    latches[kGeometry].observe(!finite(para + 4, 3), t);
    latches[kHistories].observe(!finite(&cal.dMagHistory.entry[0][0], 90) ||
                                    !finite(&cal.dAccHistory.entry[0][0], 90),
                                t);
    latches[kOri].observe(!finite(ori, 3), t);
    latches[kOriMatrix].observe(!finite(&orientation.dOriMatrix[0][0], 9), t);
    latches[kAziLpf].observe(!finite(smoother.dAziLpfIn, 2) || !finite(smoother.dAziLpfOut, 2), t);
    latches[kAziWindows].observe(!finite(smoother.dAziMedBuf, quelta::AzimuthSmoother::kMedianCapacity) ||
                                     !finite(smoother.dAziMeanBuf, quelta::AzimuthSmoother::kMeanCapacity),
                                 t);

    if (motion.rate() > 1.0) {
      ++stats.fastTurning;
      if (norm(gyr) > 0.2) ++stats.gyroSeesTurn;
      if (norm(naiveGyr) > 0.2) ++stats.naiveGyroSeesTurn;
    }

    // Calibration recovery after each disturbance.
    if (t + 1 == d.end) {
      recoveringSince = t + 1;
      recoveringKind = d.kind;
    }
    if (recoveringSince >= 0 && t >= recoveringSince) {
      const Vec3& h = device.hardIron;
      const double err = std::sqrt((cal.dSphereOffset[0] - h.x) * (cal.dSphereOffset[0] - h.x) +
                                   (cal.dSphereOffset[1] - h.y) * (cal.dSphereOffset[1] - h.y) +
                                   (cal.dSphereOffset[2] - h.z) * (cal.dSphereOffset[2] - h.z));
      if (GetMagAccuracy() == 3 && err < kOffsetTolerance) {
        const int k = static_cast<int>(recoveringKind);
        const int64_t latency = t - recoveringSince;
        ++stats.recovered[k];
        stats.recoverySum[k] += static_cast<double>(latency);
        if (latency > stats.recoveryMax[k]) stats.recoveryMax[k] = latency;
        recoveringSince = -1;
      }
    }

    // Heading accuracy while calibrated, undisturbed, at rest for 2 s and
    // near level.
    if (recoveringSince < 0 && !active && GetMagAccuracy() == 3 && t - lastBad > 100 &&
        motion.stillFor() > 100) {
      const Vec3 z = quelta::sim::rotate(q, {0.0, 0.0, 1.0});
      if (z.z > 0.9) {
        stats.azimuthErrorSum += angleDiff(ori[0], trueAzimuth(q));
        ++stats.azimuthErrorCount;
      }
    }
    previousBad = bad;
  }
  for (Latch& l : latches) l.finish(total);

  std::printf("\nDisturbances and calibration recovery (sample sets after the disturbance ended\n"
              "until accuracy 3 with the offset within %.2f gauss of the truth):\n", kOffsetTolerance);
  for (int k = 0; k < kKinds; ++k) {
    const double mean = stats.recovered[k] > 0 ? stats.recoverySum[k] / stats.recovered[k] : 0.0;
    std::printf("  %-32s %6lld, recovered %6lld, mean %8.1f, longest %7lld\n", kindName(static_cast<Kind>(k)),
                static_cast<long long>(stats.disturbances[k]), static_cast<long long>(stats.recovered[k]), mean,
                static_cast<long long>(stats.recoveryMax[k]));
  }
  std::printf("\nNon-finite states (episodes, longest in sample sets; 'open' = still so at the end):\n");
  for (const Latch& l : latches) {
    if (l.episodes == 0) {
      std::printf("  %-72s never\n", l.name);
    } else {
      std::printf("  %-72s %6lld, longest %8lld%s\n", l.name, static_cast<long long>(l.episodes),
                  static_cast<long long>(l.longest), l.openAtEnd > 0 ? " (open)" : "");
    }
  }
  std::printf("\nNew calibrations published %lld, saturations reported %lld, gyroscope restarts %lld\n",
              static_cast<long long>(stats.newCalibrations), static_cast<long long>(stats.saturations),
              static_cast<long long>(stats.gyroRestarts));
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
  return stats.violations == 0 ? 0 : 1;
}
