// SPDX-License-Identifier: Apache-2.0
#include "tools/replay/compass_driver.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

#include "quelta/quelta_compass.h"
#include "quelta/quelta_geomag.h"

namespace quelta::replay {

namespace {

template <size_t N>
void toFloats(const double* in, std::array<float, N>& out) {
  for (size_t k = 0; k < N; ++k) out[k] = static_cast<float>(in[k]);
}

}  // namespace

size_t replayCompassStream(const SampleSource& source, size_t total, const CompassDriverOptions& options,
                           const RowSink& sink, CompassCalibrationOutcome* outcome) {
  // The state is large (tens of kilobytes): kept off the stack.
  auto state = std::make_unique<quelta_compass>();
  quelta_compass_init(state.get());
  if (options.expected) {
    quelta_compass_set_expected_field(state.get(), options.expected->strengthGauss, options.expected->dipDeg);
    quelta_compass_set_declination(state.get(), options.expected->declinationDeg);
  }
  int restoreStatus = -1;
  int restoredAccuracy = -1;
  if (!options.restore.empty()) {
    restoreStatus = quelta_compass_restore_calibration(state.get(), options.restore.data(), options.restore.size());
    quelta_mag_quality restored{};
    if (restoreStatus == QUELTA_MAG_RECORD_OK && quelta_compass_get_calibration_quality(state.get(), &restored) == 0) {
      restoredAccuracy = restored.accuracy;
    }
  }
  bool refitted = false;
  const size_t progressStep = total > 0 ? total / 100 + 1 : 65536;
  RecordedSample sample;
  ReplayRow row;
  quelta_compass_output out{};
  quelta_mag_sample field{};
  quelta_mag_calibration calibration{};
  quelta_mag_quality quality{};
  size_t count = 0;
  while (source(sample)) {
    // A sample without a gyroscope reading (empty or nan) gets none.
    const bool gyro = options.feedGyro && sample.hasGyro && std::isfinite(sample.gyro[0]) &&
                      std::isfinite(sample.gyro[1]) && std::isfinite(sample.gyro[2]);
    // A row without a field reading (a sensor at a lower rate) gives none.
    quelta_compass_update(state.get(), sample.t, sample.acc.data(), sample.hasMag ? sample.mag.data() : nullptr,
                          gyro ? sample.gyro.data() : nullptr);
    quelta_compass_get_output(state.get(), &out);
    quelta_compass_get_field(state.get(), &field);
    quelta_compass_get_calibration(state.get(), &calibration);
    quelta_compass_get_calibration_quality(state.get(), &quality);

    row = ReplayRow{};
    row.t = sample.t;
    row.fieldMissing = !sample.hasMag;
    // The calibration's accuracy, as the fixed pipelines' column means it.
    row.accuracy = quality.accuracy;
    row.newCalibration = field.new_calibration != 0;
    toFloats(calibration.offset, row.offset);
    row.radius = static_cast<float>(calibration.strength);
    toFloats(sample.mag.data(), row.rawField);
    toFloats(field.calibrated, row.calField);
    const double angles[3] = {out.azimuth_deg, out.pitch_deg, out.roll_deg};
    toFloats(angles, row.orientation);
    toFloats(out.angular_rate, row.vgyro);
    const double xyzw[4] = {out.quaternion[1], out.quaternion[2], out.quaternion[3], out.quaternion[0]};
    toFloats(xyzw, row.rotVec);
    toFloats(out.gravity, row.gravity);
    toFloats(out.linear_acceleration, row.linearAcc);

    CompassRow& c = row.compass;
    toFloats(calibration.soft_iron, c.softIron);
    c.model = calibration.model;
    c.disturbance = static_cast<float>(field.disturbance);
    c.disturbed = field.disturbed != 0;
    c.coverage = static_cast<float>(quality.coverage);
    c.residual = static_cast<float>(quality.residual_gauss);
    c.expectedStrength = static_cast<float>(quality.expected_strength);
    c.fittedStrength = static_cast<float>(quality.fitted_strength);
    c.reason = quality.reason;
    c.calibrationHeadingError = static_cast<float>(quality.heading_error_deg);
    c.headingAccuracy = static_cast<float>(out.heading_accuracy_deg);
    c.outputAccuracy = out.accuracy;
    c.flags = out.flags;

    refitted = refitted || row.newCalibration;
    sink(sample, row);
    ++count;
    if (options.progress && count % progressStep == 0) options.progress(count, total);
  }
  if (options.progress) options.progress(count, total);
  if (outcome != nullptr) {
    *outcome = CompassCalibrationOutcome{};
    outcome->restoreStatus = restoreStatus;
    uint8_t record[QUELTA_MAG_RECORD_SIZE];
    quelta_mag_quality last{};
    quelta_compass_get_calibration_quality(state.get(), &last);
    outcome->accuracy = last.accuracy;
    if (quelta_compass_save_calibration(state.get(), record) == QUELTA_MAG_RECORD_OK) {
      outcome->record.assign(record, record + sizeof record);
      // Better: there was none, or this run refitted it and ends at least
      // as accurate as the one it started from.
      outcome->better = restoredAccuracy < 0 || (refitted && last.accuracy >= restoredAccuracy);
    }
  }
  return count;
}

bool readCompassCalibration(const std::string& path, std::vector<uint8_t>& record, bool& found,
                            std::string& problem) {
  record.clear();
  found = false;
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) {
    if (errno == ENOENT) return true;
    problem = "--calibration " + path + ": " + std::strerror(errno);
    return false;
  }
  found = true;
  uint8_t buffer[4096];
  size_t n;
  // A record is small; anything much larger is not one (read a bounded amount).
  while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0 && record.size() < 65536) {
    record.insert(record.end(), buffer, buffer + n);
  }
  const bool failed = std::ferror(f) != 0;
  std::fclose(f);
  if (failed) {
    problem = "--calibration " + path + ": read error";
    return false;
  }
  // A file that is not a calibration record at all is someone else's: it
  // is neither used nor overwritten.
  if (record.size() < QUELTA_MAG_RECORD_SIZE || std::memcmp(record.data(), "QMAG", 4) != 0) {
    problem = "--calibration " + path + ": not a compass calibration record (left as it is)";
    return false;
  }
  return true;
}

std::string compassCalibrationSummary(const CompassCalibrationOutcome& outcome, const std::string& path,
                                      std::string& contents) {
  std::string text;
  contents.clear();
  if (outcome.restoreStatus > 0) {
    text += "calibration      saved record not used (" + std::string(calibrationRecordText(outcome.restoreStatus)) +
            "): calibrated from scratch\n";
  }
  if (outcome.better && !outcome.record.empty()) {
    contents.assign(outcome.record.begin(), outcome.record.end());
    text += "calibration      written to " + path + "\n";
  } else if (outcome.record.empty()) {
    text += "calibration      none at the end; " + path + " left as it was\n";
  } else {
    text += "calibration      not better than the one restored; " + path + " left as it was\n";
  }
  return text;
}

const char* calibrationRecordText(int status) { return quelta_mag_record_text(status); }

bool expectedFieldAt(double latitudeDeg, double longitudeDeg, double heightM, const std::string& date,
                     ExpectedField& out, std::vector<std::string>& warnings, std::string& problem) {
  double year = 0.0;
  int status = quelta_geomag_decimal_year_from_text(date.c_str(), &year);
  if (status != QUELTA_GEOMAG_OK) {
    problem = "--date " + date + ": " + quelta_geomag_status_text(status);
    return false;
  }
  quelta_geomag_expected expected{};
  status = quelta_geomag_expected_at(latitudeDeg, longitudeDeg, heightM, year, &expected);
  if (status != QUELTA_GEOMAG_OK) {
    problem = std::string("--location: ") + quelta_geomag_status_text(status);
    return false;
  }
  for (uint32_t flag = 1; flag != 0 && flag <= expected.flags; flag <<= 1) {
    if ((expected.flags & flag) != 0) warnings.push_back(std::string("field model: ") + quelta_geomag_flag_text(flag));
  }
  out.strengthGauss = expected.strength_gauss;
  out.dipDeg = expected.dip_deg;
  out.declinationDeg = expected.declination_deg;
  return true;
}

const char* calibrationReasonText(int reason) { return quelta_mag_reason_text(reason); }

}  // namespace quelta::replay
