#include "tools/replay/replay_driver.h"

#include <cmath>

#include "tools/replay/log_prefix.h"

namespace quelta::replay {

namespace {

std::array<float, 3> toFloats(const std::array<double, 3>& v) {
  return {static_cast<float>(v[0]), static_cast<float>(v[1]), static_cast<float>(v[2])};
}

void initialise(const Recording& recording, const DriverOptions& options) {
  const AlgoSetup& setup = options.setup;
  const long periodMs = std::lround(recording.nominalPeriod() * 1000.0);
  const int32_t paraC[3] = {static_cast<int32_t>(periodMs), setup.windows[0], setup.windows[1]};
  AlgoInitial(setup.axis.data(), setup.stored.data(), setup.pool.data(), setup.thresholds.data(), paraC,
              options.log);
}

}  // namespace

std::vector<ReplayRow> replayRecording(const Recording& recording, const DriverOptions& options) {
  initialise(recording, options);
  const int32_t mode = options.logMode;
  const size_t total = recording.samples.size();
  const size_t progressStep = total / 100 + 1;
  std::vector<ReplayRow> rows;
  rows.reserve(total);
  double previousT = recording.samples.empty() ? 0.0 : recording.samples[0].t - recording.nominalPeriod();

  for (size_t i = 0; i < total; ++i) {
    const RecordedSample& sample = recording.samples[i];
    const std::array<float, 3> acc = toFloats(sample.acc);
    const std::array<float, 3> mag = toFloats(sample.mag);
    ReplayRow row;
    row.t = sample.t;
    setLogSample(i, sample.t);  // the prefix of the library's log lines

    // Calibration and orientation: the field itself is the saturation probe.
    MainAlgorithmProcess(acc.data(), mag.data(), mag.data(), 0, mode);
    row.poolCount = GetCalMag(row.calField.data());
    GetRawMag(row.rawField.data());
    GetCalOri(row.orientation.data());
    row.accuracy = GetMagAccuracy();
    float parameters[7];
    row.newCalibration = GetCalPara(parameters) == 1;
    row.offset = {parameters[0], parameters[1], parameters[2]};
    row.radius = parameters[3];
    row.geometry = {parameters[4], parameters[5], parameters[6]};
    row.saturation = GetMagSaturation() == 1;

    // Virtual gyroscope and rotation vector, both on the calibrated field.
    const float interval = static_cast<float>(sample.t - previousT);
    previousT = sample.t;
    CalcQueltaGyro(row.calField.data(), acc.data(), 0, mode, interval);
    GetCalGyr(row.vgyro.data());
    GetRotVec_InVG(row.vgyroQuat.data());
    CalcQueltaRotVec(row.calField.data(), acc.data(), mode);
    GetCalRov(row.rotVec.data());
    GetQueltaGravityAcc(row.gravity.data());
    GetQueltaLinearAcc(row.linearAcc.data());

    rows.push_back(row);
    if (options.progress && (i + 1) % progressStep == 0) options.progress(i + 1, total);
  }
  if (options.progress) options.progress(total, total);
  return rows;
}

}  // namespace quelta::replay
