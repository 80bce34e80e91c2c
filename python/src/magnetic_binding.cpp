// SPDX-License-Identifier: Apache-2.0
// quelta._quelta.MagCore: the magnetic calibrator (quelta_mag_*) over numpy
// arrays; one call runs a whole array in C++.
#include <cmath>
#include <cstring>
#include <memory>

#include "python/src/bindings.h"
#include "quelta/quelta.h"

namespace quelta::python {

namespace {

class MagCore {
 public:
  MagCore() : state_(new quelta_mag_state) { quelta_mag_init(state_.get()); }

  void setExpectedField(double strengthGauss, double dipDeg) {
    Busy busy(busy_, "this MagCalibrator");
    quelta_mag_set_expected_field(state_.get(), strengthGauss, dipDeg);
  }
  void reset() {
    Busy busy(busy_, "this MagCalibrator");
    quelta_mag_reset(state_.get());
  }

  // Rows of three NaN in mag are "no sample": their outputs are NaN (valid
  // 0) and the calibration columns hold the one in use.
  py::dict run(const Doubles& t, const Doubles& mag, const py::object& acc) {
    const size_t n = lengthOf(t, "t");
    checkRows(mag, n, "mag");
    Doubles accArray;
    if (!acc.is_none()) {
      accArray = Doubles::ensure(acc);
      if (!accArray) throw py::value_error("acc must be an array of numbers");
      checkRows(accArray, n, "acc");
    }
    auto calibrated = rows<double>(n, 3), offset = rows<double>(n, 3);
    auto soft = py::array_t<double>({static_cast<py::ssize_t>(n), py::ssize_t{3}, py::ssize_t{3}});
    auto strength = rows<double>(n), dip = rows<double>(n), disturbance = rows<double>(n);
    auto disturbed = rows<int32_t>(n), accuracy = rows<int32_t>(n), fresh = rows<int32_t>(n), valid = rows<int32_t>(n);
    {
      Busy busy(busy_, "this MagCalibrator");
      const double* tp = t.data();
      const double* mp = mag.data();
      const double* ap = acc.is_none() ? nullptr : accArray.data();
      double* cp = calibrated.mutable_data();
      double* op = offset.mutable_data();
      double* sp = soft.mutable_data();
      double* strp = strength.mutable_data();
      double* dp = dip.mutable_data();
      double* dsp = disturbance.mutable_data();
      int32_t* dfp = disturbed.mutable_data();
      int32_t* accp = accuracy.mutable_data();
      int32_t* np = fresh.mutable_data();
      int32_t* vp = valid.mutable_data();
      py::gil_scoped_release release;
      quelta_mag_sample s;
      quelta_mag_calibration c;
      quelta_mag_quality q;
      for (size_t i = 0; i < n; ++i) {
        const double* m = mp + 3 * i;
        if (std::isnan(m[0]) && std::isnan(m[1]) && std::isnan(m[2])) {
          quelta_mag_get_quality(state_.get(), &q);
          std::memset(&s, 0, sizeof s);
          s.calibrated[0] = s.calibrated[1] = s.calibrated[2] = NAN;
          s.strength = s.dip_deg = s.disturbance = NAN;
          s.accuracy = q.accuracy;
        } else {
          quelta_mag_update(state_.get(), tp[i], m, ap != nullptr ? ap + 3 * i : nullptr, &s);
        }
        quelta_mag_get_calibration(state_.get(), &c);
        std::memcpy(cp + 3 * i, s.calibrated, sizeof s.calibrated);
        std::memcpy(op + 3 * i, c.offset, sizeof c.offset);
        std::memcpy(sp + 9 * i, c.soft_iron, sizeof c.soft_iron);
        strp[i] = s.strength;
        dp[i] = s.dip_deg;
        dsp[i] = s.disturbance;
        dfp[i] = s.disturbed;
        accp[i] = s.accuracy;
        np[i] = s.new_calibration;
        vp[i] = s.valid;
      }
    }
    py::dict d;
    d["calibrated"] = calibrated;
    d["strength"] = strength;
    d["dip"] = dip;
    d["disturbance"] = disturbance;
    d["disturbed"] = disturbed;
    d["accuracy"] = accuracy;
    d["new_calibration"] = fresh;
    d["valid"] = valid;
    d["offset"] = offset;
    d["soft_iron"] = soft;
    return d;
  }

  py::array_t<double> apply(const Doubles& raw) {
    if (raw.ndim() != 2 || raw.shape(1) != 3) throw py::value_error("raw must have shape (N, 3)");
    const size_t n = static_cast<size_t>(raw.shape(0));
    auto out = rows<double>(n, 3);
    Busy busy(busy_, "this MagCalibrator");
    for (size_t i = 0; i < n; ++i) quelta_mag_apply(state_.get(), raw.data() + 3 * i, out.mutable_data() + 3 * i);
    return out;
  }

  py::bytes save() const {
    Busy busy(busy_, "this MagCalibrator");
    uint8_t record[QUELTA_MAG_RECORD_SIZE];
    if (quelta_mag_save(state_.get(), record) != QUELTA_MAG_RECORD_OK) return py::bytes();
    return py::bytes(reinterpret_cast<const char*>(record), sizeof record);
  }
  int restore(const py::bytes& record) {
    const std::string bytes = record;
    Busy busy(busy_, "this MagCalibrator");
    return quelta_mag_restore(state_.get(), reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
  py::dict calibration() const {
    Busy busy(busy_, "this MagCalibrator");
    quelta_mag_calibration c;
    quelta_mag_get_calibration(state_.get(), &c);
    return calibrationDict(c);
  }
  py::dict quality() const {
    Busy busy(busy_, "this MagCalibrator");
    quelta_mag_quality q;
    quelta_mag_get_quality(state_.get(), &q);
    return qualityDict(q);
  }

 private:
  std::unique_ptr<quelta_mag_state> state_;
  mutable std::atomic<bool> busy_{false};
};

}  // namespace

void bindMagnetic(py::module_& m) {
  py::class_<MagCore>(m, "MagCore", "The magnetic calibrator's C interface (use quelta.MagCalibrator)")
      .def(py::init<>())
      .def("set_expected_field", &MagCore::setExpectedField)
      .def("reset", &MagCore::reset)
      .def("run", &MagCore::run, py::arg("t"), py::arg("mag"), py::arg("acc"))
      .def("apply", &MagCore::apply)
      .def("save", &MagCore::save)
      .def("restore", &MagCore::restore)
      .def("calibration", &MagCore::calibration)
      .def("quality", &MagCore::quality);
}

}  // namespace quelta::python
