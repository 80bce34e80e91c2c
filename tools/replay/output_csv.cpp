// SPDX-License-Identifier: Apache-2.0
#include "tools/replay/output_csv.h"

#include <charconv>
#include <cmath>

namespace quelta::replay {

namespace {

// Appends ",value"; the shortest text that reads back as the same float.
template <size_t N>
char* putFloats(char* at, char* end, const std::array<float, N>& values) {
  for (float v : values) {
    *at++ = ',';
    if (std::isnan(v)) {
      // to_chars writes "-nan" for a negative NaN; readers want "nan".
      for (const char c : {'n', 'a', 'n'}) *at++ = c;
      continue;
    }
    at = std::to_chars(at, end, v).ptr;
  }
  return at;
}

char* putInt(char* at, char* end, int value) {
  *at++ = ',';
  return std::to_chars(at, end, value).ptr;
}

// The columns both engines write, in this order: offset, radius, calibrated
// field, azimuth/pitch/roll, rate, rotation vector, gravity, linear acceleration.
char* putSharedColumns(char* at, char* end, const ReplayRow& r) {
  at = putFloats(at, end, r.offset);
  at = putFloats(at, end, std::array<float, 1>{r.radius});
  at = putFloats(at, end, r.calField);
  at = putFloats(at, end, r.orientation);
  at = putFloats(at, end, r.vgyro);
  at = putFloats(at, end, r.rotVec);
  at = putFloats(at, end, r.gravity);
  return putFloats(at, end, r.linearAcc);
}

}  // namespace

void writeOutputCsvHeader(FILE* out) {
  std::fputs(
      "t,accuracy,pool,new_calibration,saturation,offset_x,offset_y,offset_z,radius,"
      "cal_mx,cal_my,cal_mz,azimuth,pitch,roll,vgyro_x,vgyro_y,vgyro_z,"
      "rv_x,rv_y,rv_z,rv_w,gravity_x,gravity_y,gravity_z,linacc_x,linacc_y,linacc_z\n",
      out);
}

void writeOutputCsvRow(FILE* out, const ReplayRow& r) {
  char line[1024];  // 28 fields of at most 16 characters each
  char* const end = line + sizeof line;
  char* at = std::to_chars(line, end, r.t, std::chars_format::general, 9).ptr;  // as %.9g
  at = putInt(at, end, r.accuracy);
  at = putInt(at, end, r.poolCount);
  at = putInt(at, end, r.newCalibration ? 1 : 0);
  at = putInt(at, end, r.saturation ? 1 : 0);
  at = putSharedColumns(at, end, r);
  *at++ = '\n';
  std::fwrite(line, 1, static_cast<size_t>(at - line), out);
}

void writeCompassCsvHeader(FILE* out) {
  std::fputs(
      "t,accuracy,new_calibration,offset_x,offset_y,offset_z,radius,"
      "cal_mx,cal_my,cal_mz,azimuth,pitch,roll,vgyro_x,vgyro_y,vgyro_z,"
      "rv_x,rv_y,rv_z,rv_w,gravity_x,gravity_y,gravity_z,linacc_x,linacc_y,linacc_z,"
      "soft_xx,soft_xy,soft_xz,soft_yx,soft_yy,soft_yz,soft_zx,soft_zy,soft_zz,model,"
      "disturbance,disturbed,coverage,residual,expected_strength,fitted_strength,reason,"
      "cal_heading_error,heading_accuracy,output_accuracy,flags\n",
      out);
}

void writeCompassCsvRow(FILE* out, const ReplayRow& r) {
  char line[1536];  // 47 fields of at most 16 characters each
  char* const end = line + sizeof line;
  const CompassRow& c = r.compass;
  char* at = std::to_chars(line, end, r.t, std::chars_format::general, 9).ptr;  // as %.9g
  at = putInt(at, end, r.accuracy);
  at = putInt(at, end, r.newCalibration ? 1 : 0);
  at = putSharedColumns(at, end, r);
  at = putFloats(at, end, c.softIron);
  at = putInt(at, end, c.model);
  at = putFloats(at, end, std::array<float, 1>{c.disturbance});
  at = putInt(at, end, c.disturbed ? 1 : 0);
  at = putFloats(at, end, std::array<float, 4>{c.coverage, c.residual, c.expectedStrength, c.fittedStrength});
  at = putInt(at, end, c.reason);
  at = putFloats(at, end, std::array<float, 2>{c.calibrationHeadingError, c.headingAccuracy});
  at = putInt(at, end, c.outputAccuracy);
  at = putInt(at, end, static_cast<int>(c.flags));
  *at++ = '\n';
  std::fwrite(line, 1, static_cast<size_t>(at - line), out);
}

void writeOutputCsv(FILE* out, const std::vector<ReplayRow>& rows) {
  writeOutputCsvHeader(out);
  for (const ReplayRow& row : rows) writeOutputCsvRow(out, row);
}

}  // namespace quelta::replay
