#include "tools/replay/output_csv.h"

namespace quelta::replay {

namespace {

template <size_t N>
void writeFloats(FILE* out, const std::array<float, N>& values) {
  for (float v : values) std::fprintf(out, ",%.9g", static_cast<double>(v));
}

}  // namespace

void writeOutputCsv(FILE* out, const std::vector<ReplayRow>& rows) {
  std::fputs(
      "t,accuracy,pool,new_calibration,saturation,offset_x,offset_y,offset_z,radius,"
      "cal_mx,cal_my,cal_mz,azimuth,pitch,roll,vgyro_x,vgyro_y,vgyro_z,"
      "rv_x,rv_y,rv_z,rv_w,gravity_x,gravity_y,gravity_z,linacc_x,linacc_y,linacc_z\n",
      out);
  for (const ReplayRow& r : rows) {
    std::fprintf(out, "%.9g,%d,%d,%d,%d", r.t, r.accuracy, r.poolCount, r.newCalibration ? 1 : 0,
                 r.saturation ? 1 : 0);
    writeFloats(out, r.offset);
    writeFloats(out, std::array<float, 1>{r.radius});
    writeFloats(out, r.calField);
    writeFloats(out, r.orientation);
    writeFloats(out, r.vgyro);
    writeFloats(out, r.rotVec);
    writeFloats(out, r.gravity);
    writeFloats(out, r.linearAcc);
    std::fputc('\n', out);
  }
}

}  // namespace quelta::replay
