// SPDX-License-Identifier: Apache-2.0
// The field model (quelta_geomag_*) and the replay tool's recording reader
// for Python.
#include <cmath>
#include <string>
#include <vector>

#include "python/src/bindings.h"
#include "quelta/quelta.h"
#include "tools/replay/recording.h"

namespace quelta::python {

namespace {

py::dict fieldAt(double latitude, double longitude, double heightM, double decimalYear) {
  quelta_geomag_field f;
  quelta_geomag_expected e;
  int status = quelta_geomag_field_at(latitude, longitude, heightM, decimalYear, &f);
  if (status == QUELTA_GEOMAG_OK) status = quelta_geomag_expected_at(latitude, longitude, heightM, decimalYear, &e);
  if (status != QUELTA_GEOMAG_OK) throw py::value_error(quelta_geomag_status_text(status));
  py::dict d;
  d["north_nt"] = f.x_nt;
  d["east_nt"] = f.y_nt;
  d["down_nt"] = f.z_nt;
  d["horizontal_nt"] = f.h_nt;
  d["total_nt"] = f.f_nt;
  d["inclination_deg"] = f.inclination_deg;
  d["declination_deg"] = f.declination_deg;
  d["grid_variation_deg"] = f.grid_variation_deg;
  d["north_nt_per_year"] = f.x_dot_nt;
  d["east_nt_per_year"] = f.y_dot_nt;
  d["down_nt_per_year"] = f.z_dot_nt;
  d["horizontal_nt_per_year"] = f.h_dot_nt;
  d["total_nt_per_year"] = f.f_dot_nt;
  d["inclination_deg_per_year"] = f.inclination_dot_deg;
  d["declination_deg_per_year"] = f.declination_dot_deg;
  d["strength_gauss"] = e.strength_gauss;
  d["dip_deg"] = e.dip_deg;
  d["decimal_year"] = decimalYear;
  d["flags"] = f.flags;
  py::list warnings;
  for (uint32_t bit = 1; bit != 0 && bit <= f.flags; bit <<= 1)
    if (f.flags & bit) warnings.append(std::string(quelta_geomag_flag_text(bit)));
  d["warnings"] = warnings;
  return d;
}

double decimalYear(int year, int month, int day) {
  double out = NAN;
  const int status = quelta_geomag_decimal_year(year, month, day, &out);
  if (status != QUELTA_GEOMAG_OK) throw py::value_error(quelta_geomag_status_text(status));
  return out;
}

// The whole recording as arrays: t (N, s), acc and mag (N x 3, g and gauss),
// gyro (N x 3, rad/s) and attitude (N x 4, w x y z) or None without those
// columns, NaN rows where a row has no value (a field or gyroscope row
// without a reading: sensors at different rates).
py::dict readRecording(const std::string& path, int accUnit, int magUnit, int timeUnit, const std::string& columns) {
  replay::Units units;
  units.acc = accUnit == 1 ? replay::AccUnit::MetresPerSecond2 : replay::AccUnit::G;
  units.mag = magUnit == 1 ? replay::MagUnit::Microtesla : replay::MagUnit::Gauss;
  static const replay::TimeUnit kTimes[] = {replay::TimeUnit::Seconds, replay::TimeUnit::Milliseconds,
                                            replay::TimeUnit::Microseconds, replay::TimeUnit::Nanoseconds};
  if (timeUnit < 0 || timeUnit > 3) throw py::value_error("unknown time unit");
  units.time = kTimes[timeUnit];
  replay::ColumnNames names;
  std::string columnProblem;
  if (!columns.empty() && !replay::parseColumnNames(columns, names, columnProblem))
    throw py::value_error("columns: " + columnProblem);
  std::vector<replay::RecordedSample> samples;
  replay::RecordingReader reader;
  bool gyroColumns = false, attitudeColumns = false;
  std::string problem;
  {
    py::gil_scoped_release release;
    if (reader.open(path, units, names)) {
      gyroColumns = reader.hasGyroColumns();
      attitudeColumns = reader.hasAttitudeColumns();
      replay::RecordedSample s;
      while (reader.next(s)) samples.push_back(s);
    }
    if (reader.failed()) problem = reader.error().describe();
  }
  if (!problem.empty()) throw py::value_error(problem);
  const size_t n = samples.size();
  auto t = rows<double>(n);
  auto acc = rows<double>(n, 3), mag = rows<double>(n, 3), gyro = rows<double>(n, 3);
  auto attitude = rows<double>(n, 4);
  double* tp = t.mutable_data();
  double* ap = acc.mutable_data();
  double* mp = mag.mutable_data();
  double* gp = gyro.mutable_data();
  double* qp = attitude.mutable_data();
  for (size_t i = 0; i < n; ++i) {
    const replay::RecordedSample& s = samples[i];
    tp[i] = s.t;
    for (int k = 0; k < 3; ++k) {
      ap[3 * i + k] = s.acc[k];
      mp[3 * i + k] = s.hasMag ? s.mag[k] : NAN;
      gp[3 * i + k] = s.hasGyro ? s.gyro[k] : NAN;
    }
    for (int k = 0; k < 4; ++k) qp[4 * i + k] = s.hasAttitude ? s.attitude[k] : NAN;
  }
  py::dict d;
  d["name"] = reader.name();
  d["t"] = t;
  d["acc"] = acc;
  d["mag"] = mag;
  d["gyro"] = gyroColumns ? py::object(gyro) : py::object(py::none());
  d["attitude"] = attitudeColumns ? py::object(attitude) : py::object(py::none());
  d["period"] = replay::nominalPeriod(samples);
  return d;
}

}  // namespace

void bindData(py::module_& m) {
  m.def("geomag_field", &fieldAt, py::arg("latitude_deg"), py::arg("longitude_deg"), py::arg("height_m"),
        py::arg("decimal_year"));
  m.def("decimal_year", &decimalYear);
  m.def("geomag_model", [] {
    return py::make_tuple(std::string(quelta_geomag_model_name()), quelta_geomag_valid_from(),
                          quelta_geomag_valid_until());
  });
  m.def("read_recording", &readRecording, py::arg("path"), py::arg("acc_unit"), py::arg("mag_unit"),
        py::arg("time_unit"), py::arg("columns"));
}

}  // namespace quelta::python
