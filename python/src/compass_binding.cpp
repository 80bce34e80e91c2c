// SPDX-License-Identifier: Apache-2.0
// quelta._quelta.CompassCore: the compass's C interface over numpy arrays.
// Every call, one sample or many, goes through quelta_compass_run, so that
// update() and run() agree to the bit.
#include <cstring>
#include <memory>
#include <vector>

#include "python/src/bindings.h"
#include "quelta/quelta.h"

namespace quelta::python {

py::dict calibrationDict(const quelta_mag_calibration& c) {
  py::dict d;
  auto offset = rows<double>(3);
  auto soft = py::array_t<double>({3, 3});
  std::memcpy(offset.mutable_data(), c.offset, sizeof c.offset);
  std::memcpy(soft.mutable_data(), c.soft_iron, sizeof c.soft_iron);
  d["offset"] = offset;
  d["soft_iron"] = soft;
  d["strength"] = c.strength;
  d["dip_deg"] = c.dip_deg;
  d["model"] = c.model;
  return d;
}

py::dict qualityDict(const quelta_mag_quality& q) {
  py::dict d;
  d["accuracy"] = q.accuracy;
  d["reason"] = q.reason;
  d["reason_text"] = quelta_mag_reason_text(q.reason);
  d["coverage"] = q.coverage;
  d["residual_gauss"] = q.residual_gauss;
  d["fitted_strength"] = q.fitted_strength;
  d["expected_strength"] = q.expected_strength;
  d["heading_error_deg"] = q.heading_error_deg;
  d["samples"] = q.samples;
  d["new_hard_iron"] = q.new_hard_iron;
  return d;
}

namespace {

class CompassCore {
 public:
  CompassCore() : state_(new quelta_compass) { quelta_compass_init(state_.get()); }

  int32_t setUnits(int32_t time, int32_t acc, int32_t field, int32_t frame, const Doubles& accAxes,
                   const Doubles& fieldAxes, const Doubles& gyroAxes) {
    quelta_compass_units u;
    quelta_compass_units_default(&u);
    u.time_unit = time;
    u.acc_unit = acc;
    u.field_unit = field;
    u.output_frame = frame;
    copyMatrix(accAxes, u.acc_axes, "acc axes");
    copyMatrix(fieldAxes, u.field_axes, "field axes");
    copyMatrix(gyroAxes, u.gyro_axes, "gyro axes");
    Busy busy(busy_, "this Compass");
    return quelta_compass_set_units(state_.get(), &u);
  }

  int32_t setDeclination(double deg) {
    Busy busy(busy_, "this Compass");
    return quelta_compass_set_declination(state_.get(), deg);
  }
  int32_t setExpectedField(double strength, double dipDeg) {
    Busy busy(busy_, "this Compass");
    return quelta_compass_set_expected_field(state_.get(), strength, dipDeg);
  }
  int32_t reset() {
    Busy busy(busy_, "this Compass");
    return quelta_compass_reset(state_.get());
  }

  // The whole arrays in one C call, with the interpreter lock released.
  py::dict run(const Doubles& t, const Doubles& acc, const py::object& mag, const py::object& gyro) {
    const size_t n = lengthOf(t, "t");
    checkRows(acc, n, "acc");
    Doubles magArray, gyroArray;
    if (!mag.is_none()) {
      magArray = Doubles::ensure(mag);
      if (!magArray) throw py::value_error("mag must be an array of numbers");
      checkRows(magArray, n, "mag");
    }
    if (!gyro.is_none()) {
      gyroArray = Doubles::ensure(gyro);
      if (!gyroArray) throw py::value_error("gyro must be an array of numbers");
      checkRows(gyroArray, n, "gyro");
    }
    std::vector<quelta_compass_output> out(n);
    std::vector<quelta_mag_calibration> cal(n);
    auto codes = rows<int32_t>(n);
    {
      Busy busy(busy_, "this Compass");
      const double* tp = t.data();
      const double* ap = acc.data();
      const double* mp = mag.is_none() ? nullptr : magArray.data();
      const double* gp = gyro.is_none() ? nullptr : gyroArray.data();
      int32_t* cp = codes.mutable_data();
      py::gil_scoped_release release;
      quelta_compass_run(state_.get(), n, tp, ap, mp, gp, out.data(), cal.data(), cp);
    }
    return outputs(out, cal, codes);
  }

  py::bytes saveCalibration() const {
    Busy busy(busy_, "this Compass");
    uint8_t record[QUELTA_MAG_RECORD_SIZE];
    const int32_t status = quelta_compass_save_calibration(state_.get(), record);
    if (status != QUELTA_MAG_RECORD_OK) return py::bytes();
    return py::bytes(reinterpret_cast<const char*>(record), sizeof record);
  }

  int32_t restoreCalibration(const py::bytes& record) {
    const std::string bytes = record;
    Busy busy(busy_, "this Compass");
    return quelta_compass_restore_calibration(state_.get(), reinterpret_cast<const uint8_t*>(bytes.data()),
                                              bytes.size());
  }

  py::dict calibration() const {
    Busy busy(busy_, "this Compass");
    quelta_mag_calibration c;
    quelta_compass_get_calibration(state_.get(), &c);
    return calibrationDict(c);
  }
  py::dict quality() const {
    Busy busy(busy_, "this Compass");
    quelta_mag_quality q;
    quelta_compass_get_calibration_quality(state_.get(), &q);
    return qualityDict(q);
  }

 private:
  static void copyMatrix(const Doubles& m, double out[9], const char* name) {
    if (m.size() != 9) throw py::value_error(std::string(name) + " must be a 3 x 3 matrix");
    std::memcpy(out, m.data(), 9 * sizeof(double));
  }

  static py::dict outputs(const std::vector<quelta_compass_output>& out, const std::vector<quelta_mag_calibration>& cal,
                          py::array_t<int32_t>& codes) {
    const size_t n = out.size();
    auto t = rows<double>(n), az = rows<double>(n), pitch = rows<double>(n), roll = rows<double>(n);
    auto headingAccuracy = rows<double>(n);
    auto accuracy = rows<int32_t>(n);
    auto flags = rows<uint32_t>(n);
    auto quaternion = rows<double>(n, 4);
    auto gravity = rows<double>(n, 3), linear = rows<double>(n, 3), rate = rows<double>(n, 3),
         bias = rows<double>(n, 3), offset = rows<double>(n, 3);
    auto soft = py::array_t<double>({static_cast<py::ssize_t>(n), py::ssize_t{3}, py::ssize_t{3}});
    double* tp = t.mutable_data();
    double* azp = az.mutable_data();
    double* pp = pitch.mutable_data();
    double* rp = roll.mutable_data();
    double* hp = headingAccuracy.mutable_data();
    int32_t* ap = accuracy.mutable_data();
    uint32_t* fp = flags.mutable_data();
    double* qp = quaternion.mutable_data();
    double* gp = gravity.mutable_data();
    double* lp = linear.mutable_data();
    double* wp = rate.mutable_data();
    double* bp = bias.mutable_data();
    double* op = offset.mutable_data();
    double* sp = soft.mutable_data();
    for (size_t i = 0; i < n; ++i) {
      const quelta_compass_output& o = out[i];
      tp[i] = o.t;
      azp[i] = o.azimuth_deg;
      pp[i] = o.pitch_deg;
      rp[i] = o.roll_deg;
      hp[i] = o.heading_accuracy_deg;
      ap[i] = o.accuracy;
      fp[i] = o.flags;
      std::memcpy(qp + 4 * i, o.quaternion, sizeof o.quaternion);
      std::memcpy(gp + 3 * i, o.gravity, sizeof o.gravity);
      std::memcpy(lp + 3 * i, o.linear_acceleration, sizeof o.linear_acceleration);
      std::memcpy(wp + 3 * i, o.angular_rate, sizeof o.angular_rate);
      std::memcpy(bp + 3 * i, o.gyro_bias, sizeof o.gyro_bias);
      std::memcpy(op + 3 * i, cal[i].offset, sizeof cal[i].offset);
      std::memcpy(sp + 9 * i, cal[i].soft_iron, sizeof cal[i].soft_iron);
    }
    py::dict d;
    d["t"] = t;
    d["quaternion"] = quaternion;
    d["azimuth"] = az;
    d["pitch"] = pitch;
    d["roll"] = roll;
    d["heading_accuracy"] = headingAccuracy;
    d["accuracy"] = accuracy;
    d["flags"] = flags;
    d["gravity"] = gravity;
    d["linear_acceleration"] = linear;
    d["angular_rate"] = rate;
    d["gyro_bias"] = bias;
    d["offset"] = offset;
    d["soft_iron"] = soft;
    d["status"] = codes;
    return d;
  }

  std::unique_ptr<quelta_compass> state_;
  mutable std::atomic<bool> busy_{false};
};

}  // namespace

void bindCompass(py::module_& m) {
  py::class_<CompassCore>(m, "CompassCore", "The compass's C interface (use quelta.Compass)")
      .def(py::init<>())
      .def("set_units", &CompassCore::setUnits)
      .def("set_declination", &CompassCore::setDeclination)
      .def("set_expected_field", &CompassCore::setExpectedField)
      .def("reset", &CompassCore::reset)
      .def("run", &CompassCore::run, py::arg("t"), py::arg("acc"), py::arg("mag"), py::arg("gyro"))
      .def("save_calibration", &CompassCore::saveCalibration)
      .def("restore_calibration", &CompassCore::restoreCalibration)
      .def("calibration", &CompassCore::calibration)
      .def("quality", &CompassCore::quality);
  m.def("mag_record_text", [](int status) { return std::string(quelta_mag_record_text(status)); });
  m.def("axes", [](int32_t named) {
    auto a = py::array_t<double>({3, 3});
    if (quelta_compass_axes(named, a.mutable_data()) != 0) throw py::value_error("unknown axis remap");
    return a;
  });
}

}  // namespace quelta::python
