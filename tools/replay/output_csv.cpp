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
  at = putFloats(at, end, r.offset);
  at = putFloats(at, end, std::array<float, 1>{r.radius});
  at = putFloats(at, end, r.calField);
  at = putFloats(at, end, r.orientation);
  at = putFloats(at, end, r.vgyro);
  at = putFloats(at, end, r.rotVec);
  at = putFloats(at, end, r.gravity);
  at = putFloats(at, end, r.linearAcc);
  *at++ = '\n';
  std::fwrite(line, 1, static_cast<size_t>(at - line), out);
}

void writeOutputCsv(FILE* out, const std::vector<ReplayRow>& rows) {
  writeOutputCsvHeader(out);
  for (const ReplayRow& row : rows) writeOutputCsvRow(out, row);
}

}  // namespace quelta::replay
