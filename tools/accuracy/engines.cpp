// SPDX-License-Identifier: Apache-2.0
#include "tools/accuracy/engines.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <limits>

#include "quelta/compass/compass.h"
#include "quelta/compass/compass_filter.h"
#include "tools/replay/replay_driver.h"

namespace quelta::accuracy {

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

compass::Vec3 vec(const std::array<double, 3>& a) { return {a[0], a[1], a[2]}; }

compass::Vec3 calibrated(const TruthRecording& truth, const replay::RecordedSample& s) {
  const std::array<double, 3> offset = truth.offsetAt(s.t);
  return {s.mag[0] - offset[0], s.mag[1] - offset[1], s.mag[2] - offset[2]};
}

EngineRun sized(size_t n) {
  EngineRun run;
  run.attitude.assign(n, replay::Quat{kNaN, kNaN, kNaN, kNaN});
  run.rate.assign(n, replay::Vec3{kNaN, kNaN, kNaN});
  run.reportedHeadingDeg.assign(n, kNaN);
  run.accuracy.assign(n, -1);
  run.flags.assign(n, 0u);
  return run;
}

EngineRun runFixed(const replay::Recording& recording) {
  replay::DriverOptions options;
  const std::vector<replay::ReplayRow> rows = replay::replayRecording(recording, options);
  EngineRun run = sized(rows.size());
  for (size_t i = 0; i < rows.size(); ++i) {
    const auto& r = rows[i].rotVec;
    run.attitude[i] = {r[3], r[0], r[1], r[2]};
    run.rate[i] = {rows[i].vgyro[0], rows[i].vgyro[1], rows[i].vgyro[2]};
    run.accuracy[i] = rows[i].accuracy;
  }
  return run;
}

// Tuning experiments: QUELTA_COMPASS_TUNING="tilt.tau=1.2,heading.gate=4" sets
// FilterSettings fields by name for this run.
compass::FilterSettings tunedSettings() {
  compass::FilterSettings s;
  const char* env = std::getenv("QUELTA_COMPASS_TUNING");
  if (env == nullptr) return s;
  struct Field {
    const char* name;
    double* value;
  } fields[] = {
      {"tilt.tau", &s.tilt.tau}, {"tilt.meanTau", &s.tilt.meanTau}, {"tilt.stepLimit", &s.tilt.stepLimit},
      {"tilt.rejectAngleDeg", &s.tilt.rejectAngleDeg}, {"tilt.rejectMaxTime", &s.tilt.rejectMaxTime},
      {"tilt.trackTau", &s.tilt.trackTau}, {"tilt.trackAngleDeg", &s.tilt.trackAngleDeg},
      {"tilt.normToleranceG", &s.tilt.normToleranceG},
      {"heading.gyroNoise", &s.heading.gyroNoise}, {"heading.scaleError", &s.heading.scaleError},
      {"heading.fieldNoise", &s.heading.fieldNoise}, {"heading.innovationTau", &s.heading.innovationTau},
      {"heading.gate", &s.heading.gate}, {"heading.gateFloorDeg", &s.heading.gateFloorDeg},
      {"heading.acceptTime", &s.heading.acceptTime},
      {"bias.startSigma", &s.bias.startSigma}, {"bias.walk", &s.bias.walk}, {"bias.restTau", &s.bias.restTau},
      {"bias.restSigma", &s.bias.restSigma}, {"bias.maxBias", &s.bias.maxBias},
      {"field.strengthTolerance", &s.field.strengthTolerance}, {"field.dipToleranceDeg", &s.field.dipToleranceDeg},
      {"field.referenceTau", &s.field.referenceTau}, {"field.relearnTime", &s.field.relearnTime},
      {"field.turnRateTolDeg", &s.field.turnRateTolDeg}, {"field.turnScaleError", &s.field.turnScaleError},
      {"field.turnRateTau", &s.field.turnRateTau}, {"field.trackDipScale", &s.field.trackDipScale},
      {"disturbedHold", &s.disturbedHold}, {"fieldTiltTau", &s.fieldTiltTau}, {"biasTiltTau", &s.biasTiltTau},
      {"biasTiltTauStart", &s.biasTiltTauStart}, {"biasTiltSigma", &s.biasTiltSigma}, {"biasSettleTime", &s.biasSettleTime}, {"slowRate", &s.slowRate},
      {"coning", &s.coning}, {"readingDelay", &s.readingDelay}, {"trackHeadingTau", &s.trackHeadingTau},
      {"trackHeadingAngleDeg", &s.trackHeadingAngleDeg}, {"trackPredict", &s.trackPredict},
      {"trackDisturbedWeight", &s.trackDisturbedWeight}, {"trackDriftRate", &s.trackDriftRate},
      {"headingNoiseFloorDeg", &s.headingNoiseFloorDeg}, {"innovationWeight", &s.innovationWeight},
      {"trackInnovationWeight", &s.trackInnovationWeight}, {"trackLagTime", &s.trackLagTime},
      {"trackDisturbedErrorDeg", &s.trackDisturbedErrorDeg}, {"warmUp", &s.warmUp}};
  std::string text = env;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find(',', start);
    if (end == std::string::npos) end = text.size();
    const std::string item = text.substr(start, end - start);
    const size_t eq = item.find('=');
    for (Field& f : fields) {
      if (eq != std::string::npos && item.compare(0, eq, f.name) == 0 && std::strlen(f.name) == eq) {
        *f.value = std::strtod(item.c_str() + eq + 1, nullptr);
      }
    }
    start = end + 1;
  }
  return s;
}

// Sample i of a compass run: what the tables judge.
void keep(EngineRun& run, size_t i, const compass::CompassOutput& o) {
  run.attitude[i] = {o.attitude.w, o.attitude.x, o.attitude.y, o.attitude.z};
  run.rate[i] = {o.rate.x, o.rate.y, o.rate.z};
  run.reportedHeadingDeg[i] = o.headingAccuracyDeg;
  run.accuracy[i] = o.accuracy;
  run.flags[i] = o.flags;
}

EngineRun runCompass(const TruthRecording& truth, const replay::Recording& recording, bool gyro, const std::array<double, 3>& bias) {
  EngineRun run = sized(recording.samples.size());
  compass::CompassFilter filter(tunedSettings());
  const compass::FieldQuality quality;  // an ideal calibration, no outside disturbance flag
  for (size_t i = 0; i < recording.samples.size(); ++i) {
    const replay::RecordedSample& s = recording.samples[i];
    const compass::Vec3 field = calibrated(truth, s);
    const compass::Vec3 rate{s.gyro[0] + bias[0], s.gyro[1] + bias[1], s.gyro[2] + bias[2]};
    filter.update(s.t, vec(s.acc), &field, quality, gyro ? &rate : nullptr);
    keep(run, i, filter.output());
  }
  return run;
}

EngineRun runOwnCalibration(const replay::Recording& recording, bool gyro, const std::array<double, 3>& bias) {
  EngineRun run = sized(recording.samples.size());
  static compass::Compass whole;  // large: kept off the stack
  whole = compass::Compass(tunedSettings());
  for (size_t i = 0; i < recording.samples.size(); ++i) {
    const replay::RecordedSample& s = recording.samples[i];
    const compass::Vec3 raw = vec(s.mag);
    const compass::Vec3 rate{s.gyro[0] + bias[0], s.gyro[1] + bias[1], s.gyro[2] + bias[2]};
    whole.update(s.t, vec(s.acc), &raw, gyro ? &rate : nullptr);
    keep(run, i, whole.output());
  }
  return run;
}

EngineRun runTriad(const TruthRecording& truth, const replay::Recording& recording, double window) {
  EngineRun run = sized(recording.samples.size());
  const auto& samples = recording.samples;
  compass::Vec3 sumAcc, sumField;
  size_t first = 0;
  for (size_t i = 0; i < samples.size(); ++i) {
    compass::Vec3 acc = vec(samples[i].acc);
    compass::Vec3 field = calibrated(truth, samples[i]);
    if (window > 0.0) {
      sumAcc = sumAcc + acc;
      sumField = sumField + field;
      while (samples[first].t <= samples[i].t - window) {
        sumAcc = sumAcc - vec(samples[first].acc);
        sumField = sumField - calibrated(truth, samples[first]);
        ++first;
      }
      acc = sumAcc;
      field = sumField;
    }
    compass::Quat q;
    if (compass::attitudeFromVectors(acc, field, q)) run.attitude[i] = {q.w, q.x, q.y, q.z};
  }
  return run;
}

}  // namespace

const char* engineName(Engine engine) {
  switch (engine) {
    case Engine::Fixed: return "fixed pipelines";
    case Engine::CompassGyro: return "compass, gyro";
    case Engine::CompassNoGyro: return "compass, no gyro";
    case Engine::Triad: return "TRIAD";
    case Engine::TriadMean: return "TRIAD 0.5 s";
    case Engine::OwnCalGyro: return "compass+cal, gyro";
    case Engine::OwnCalNoGyro: return "compass+cal, no gyro";
  }
  return "?";
}

EngineRun runEngine(Engine engine, const TruthRecording& truth, const replay::Recording& recording,
                    const std::array<double, 3>& gyroBias) {
  const std::array<double, 3> none{};
  switch (engine) {
    case Engine::Fixed: return runFixed(recording);
    case Engine::CompassGyro: return runCompass(truth, recording, true, gyroBias);
    case Engine::CompassNoGyro: return runCompass(truth, recording, false, none);
    case Engine::Triad: return runTriad(truth, recording, 0.0);
    case Engine::TriadMean: return runTriad(truth, recording, 0.5);
    case Engine::OwnCalGyro: return runOwnCalibration(recording, true, gyroBias);
    case Engine::OwnCalNoGyro: return runOwnCalibration(recording, false, none);
  }
  return {};
}

}  // namespace quelta::accuracy
