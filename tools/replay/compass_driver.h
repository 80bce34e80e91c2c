// SPDX-License-Identifier: Apache-2.0
// Feeds a recording through libquelta's compass (the magnetic layer's
// calibration in front of the compass filter) through its C interface, as
// a host would, and hands each sample's outputs to the caller in the
// columns the fixed pipelines use where the meaning is the same.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/replay/replay_driver.h"

namespace quelta::replay {

// The field the model expects where and when the recording was made.
struct ExpectedField {
  double strengthGauss = 0.0;
  double dipDeg = 0.0;          // positive below the horizon
  double declinationDeg = 0.0;  // true north = magnetic north + declination
};

struct CompassDriverOptions {
  bool feedGyro = false;                  // give the recording's gx gy gz to the filter
  std::optional<ExpectedField> expected;  // from --location and --date
  std::vector<uint8_t> restore;           // a saved calibration record to start from (empty: none)
  std::function<void(size_t done, size_t total)> progress;
};

// What became of the calibration over the run.
struct CompassCalibrationOutcome {
  int restoreStatus = -1;         // QUELTA_MAG_RECORD_* of the restore, -1 when none was given
  std::vector<uint8_t> record;    // the calibration at the end, empty when there is none
  bool better = false;            // worth keeping: new, or at least as accurate as the restored one and refitted
  int accuracy = 0;               // the calibration's accuracy at the end
};

// Replays the samples of source through a fresh compass. Returns the
// number of samples replayed.
size_t replayCompassStream(const SampleSource& source, size_t total, const CompassDriverOptions& options,
                           const RowSink& sink, CompassCalibrationOutcome* outcome = nullptr);

// Reads a saved calibration record. found is false (and true returned)
// when the file does not exist yet.
bool readCompassCalibration(const std::string& path, std::vector<uint8_t>& record, bool& found,
                            std::string& problem);
// The summary lines about the compass's calibration file; contents gets the
// record to write (empty: the file stays as it was).
std::string compassCalibrationSummary(const CompassCalibrationOutcome& outcome, const std::string& path,
                                      std::string& contents);
// The text of a record status (QUELTA_MAG_RECORD_*).
const char* calibrationRecordText(int status);

// The field model at a place (degrees, height in metres) and a date
// (YYYY-MM-DD): false with a reason in problem when the model refuses the
// input; warnings (outside the model's validity, caution zones) are added
// to warnings.
bool expectedFieldAt(double latitudeDeg, double longitudeDeg, double heightM, const std::string& date,
                     ExpectedField& out, std::vector<std::string>& warnings, std::string& problem);

// The text of a calibration reason code (the magnetic layer's).
const char* calibrationReasonText(int reason);

}  // namespace quelta::replay
