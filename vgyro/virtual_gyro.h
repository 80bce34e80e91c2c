// SPDX-License-Identifier: Apache-2.0
// The virtual gyroscope: an angular rate for devices without a gyroscope,
// computed from successive field and acceleration samples. Each sample set is
// smoothed (median of 3, two-tap low-pass, mean of 3), turned into an
// attitude, and the rate is taken from the change of attitude since the
// previous call (checked against the turning of the field alone). The result
// is smoothed again; a still device publishes a tiny random rate instead.
#pragma once

#include <cstdint>

#include "core/vec3.h"
#include "vgyro/field_rate.h"
#include "vgyro/gyro_buffers.h"
#include "vgyro/random_generator.h"
#include "vgyro/rotation_mode.h"

namespace quelta {

// Everything a pipeline works on besides its own counters and outputs.
struct GyroParts {
  GyroBuffers buffers;
  FieldRateEstimator* fieldRate;
  RotationModeDetector* rotationMode;
  RandomGenerator* random;
};

// Two-tap recursive low-pass y = (b0 x[n] + b1 x[n-1] - a1 y[n-1]) / a0;
// taps dimensionless, per sample.
struct TwoTapLowPass {
  float b[2];
  float a[2];
};

struct VirtualGyroSettings {
  // Field and acceleration low-pass between the median and the mean stage.
  TwoTapLowPass inputFilter;
  // Rate low-pass before publishing.
  TwoTapLowPass rateFilter;
  // Rate published while the start-up error period replaces the computed
  // one, rad/s per axis.
  float startupErrorRate[3];
};

// y = 0.06 x[n] + 0.06 x[n-1] + 0.88 y[n-1] for the inputs, y = 0.15 x[n] +
// 0.15 x[n-1] + 0.7 y[n-1] for the rate.
inline constexpr VirtualGyroSettings kDefaultVirtualGyroSettings{
    {{0.06f, 0.06f}, {1.0f, -0.88f}},
    {{0.15f, 0.15f}, {1.0f, -0.7f}},
    {1.5e-5f, 2.5e-5f, 8e-5f},
};

// The rate from the attitude change, unless both it and the field-only rate
// exceed pi/2 rad/s: then the dominant axis keeps the attitude rate and each
// other axis takes the smaller-magnitude of the two (ties keep the attitude
// rate). A norm that is not a number never exceeds.
void selectRate(const float* attitudeRate, const float* fieldRate, float* w);

class VirtualGyro {
 public:
  constexpr explicit VirtualGyro(const GyroParts& parts,
                                 const VirtualGyroSettings& settings = kDefaultVirtualGyroSettings)
      : parts_(parts), settings_(settings) {}

  // One sample set: field and acceleration (only directions matter), restart
  // request, log mode (1 all lines, 0 error lines only, else none), interval
  // in seconds.
  void process(const float* mag, const float* acc, int32_t restartRequest, int32_t logMode,
               float ts);

  // Published rate x, y, z (rad/s) and attitude x, y, z, w of the last call.
  void copyRate(float* out) const;
  void copyAttitude(float* out) const;

 private:
  bool decideRestart(int32_t& restart);
  float checkInterval(float ts, int32_t restart, int32_t logMode) const;
  void checkInputs(const float* mag, const float* acc, int32_t logMode);
  void smoothInputs(const float* mag, const float* acc);
  Quatf attitudeOfSmoothedSamples() const;
  Quatf rotationSincePrevious(const Quatf& q) const;
  static void rateFromRotation(const Quatf& r, float ts, bool restartThisCall, float* attitudeRate);
  void fieldOnlyRate(float ts, float* fieldRate);
  void applyStartupErrorPeriod(float* w, int32_t logMode);
  void smoothRate(float* w);
  void publishRate(uint8_t mode, float* w, float ts, int32_t logMode);

  GyroParts parts_;
  VirtualGyroSettings settings_;
  uint8_t buffersReady_ = 0;    // buffers have been set up
  uint8_t nanRestart_ = 0;      // a not-a-number rate was published: restart next call
  int32_t startupErrorCalls_ = 0;  // calls since the first invalid input after a restart
  uint8_t startupErrorOpen_ = 0;   // the start-up error period is open
  Quatf previousAttitude_;         // w, x, y, z of the previous call
  float previousInterval_ = 0.01f;                // s
  float attitudeOut_[4] = {0.0f, 0.0f, 0.0f, 0.0f};  // x, y, z, w
  float rateOut_[3] = {0.0f, 0.0f, 0.0f};            // rad/s
};

// A pipeline with its own buffers, detector, axis memory and generator, for
// hosts with several sensors and for tests. Not copyable: the pipeline points
// into its own members.
struct StandaloneVirtualGyro {
  OwnedGyroBuffers buffers;
  FieldRateEstimator fieldRate;
  RotationModeDetector rotationMode;
  RandomGenerator random;
  VirtualGyro gyro{GyroParts{buffers.bindings(), &fieldRate, &rotationMode, &random}};

  StandaloneVirtualGyro() = default;
  StandaloneVirtualGyro(const StandaloneVirtualGyro&) = delete;
  StandaloneVirtualGyro& operator=(const StandaloneVirtualGyro&) = delete;
};

}  // namespace quelta
