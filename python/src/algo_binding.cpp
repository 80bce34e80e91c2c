// SPDX-License-Identifier: Apache-2.0
// quelta._quelta.algo_run: the fixed pipelines of QueltaAlgo.so (hard-iron
// calibration, orientation, virtual gyroscope, rotation vector) over whole
// arrays, in the order the replay tool calls them.
//
// Their state is process-wide: one run at a time in the whole process (a
// second thread is refused, not queued), and a run starts from whatever the
// previous run left in the pipelines that have no restart (the rotation
// vector's smoothing); for results equal to the replay tool's, run once per
// process.
#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "QueltaAlgo.h"
#include "python/src/bindings.h"
#include "tools/replay/algo_setup.h"

namespace quelta::python {

namespace {

std::atomic<bool> algoBusy{false};

// Median interval of t, as the replay tool sets the pipelines up with.
double medianPeriod(const double* t, size_t n) {
  if (n < 2) return 0.02;
  std::vector<double> d(n - 1);
  for (size_t i = 1; i < n; ++i) d[i - 1] = t[i] - t[i - 1];
  std::nth_element(d.begin(), d.begin() + d.size() / 2, d.end());
  const double p = d[d.size() / 2];
  return p > 0.0 ? p : 0.02;
}

py::dict algoRun(const Doubles& t, const Doubles& acc, const Doubles& mag) {
  const size_t n = lengthOf(t, "t");
  checkRows(acc, n, "acc");
  checkRows(mag, n, "mag");
  Busy busy(algoBusy, "quelta.algo (process-wide state)");
  auto azimuth = rows<double>(n), pitch = rows<double>(n), roll = rows<double>(n), radius = rows<double>(n);
  auto accuracy = rows<int32_t>(n), held = rows<int32_t>(n);
  auto offset = rows<double>(n, 3), calibrated = rows<double>(n, 3), vgyro = rows<double>(n, 3);
  auto rotation = rows<double>(n, 4), gravity = rows<double>(n, 3), linear = rows<double>(n, 3);
  const double* tp = t.data();
  const double* ap = acc.data();
  const double* mp = mag.data();
  double* azp = azimuth.mutable_data();
  double* pp = pitch.mutable_data();
  double* rp = roll.mutable_data();
  double* radp = radius.mutable_data();
  int32_t* accp = accuracy.mutable_data();
  int32_t* hp = held.mutable_data();
  double* op = offset.mutable_data();
  double* cp = calibrated.mutable_data();
  double* vp = vgyro.mutable_data();
  double* qp = rotation.mutable_data();
  double* gp = gravity.mutable_data();
  double* lp = linear.mutable_data();
  {
    py::gil_scoped_release release;
    const replay::AlgoSetup setup;
    const double period = medianPeriod(tp, n);
    const int32_t paraC[3] = {static_cast<int32_t>(std::lround(period * 1000.0)), setup.windows[0], setup.windows[1]};
    AlgoInitial(setup.axis.data(), setup.stored.data(), setup.pool.data(), setup.thresholds.data(), paraC, nullptr);
    const int32_t silent = -1;
    // The pipelines need a field on every row: a row of NaN holds the last one.
    std::array<float, 3> field{0.0f, 0.0f, 0.0f};
    double previousT = n > 0 ? tp[0] - period : 0.0;
    for (size_t i = 0; i < n; ++i) {
      const double* m = mp + 3 * i;
      const bool none = std::isnan(m[0]) && std::isnan(m[1]) && std::isnan(m[2]);
      hp[i] = none ? 1 : 0;
      if (!none) field = {static_cast<float>(m[0]), static_cast<float>(m[1]), static_cast<float>(m[2])};
      const float a[3] = {static_cast<float>(ap[3 * i]), static_cast<float>(ap[3 * i + 1]),
                          static_cast<float>(ap[3 * i + 2])};
      const int32_t restart = i == 0 ? 1 : 0;
      MainAlgorithmProcess(a, field.data(), field.data(), restart, silent);
      float cal[3], ori[3], parameters[7], w[3], q[4], g[3], l[3];
      GetCalMag(cal);
      GetCalOri(ori);
      accp[i] = GetMagAccuracy();
      GetCalPara(parameters);
      const float interval = static_cast<float>(tp[i] - previousT);
      previousT = tp[i];
      CalcQueltaGyro(cal, a, restart, silent, interval);
      GetCalGyr(w);
      CalcQueltaRotVec(cal, a, silent);
      GetCalRov(q);
      GetQueltaGravityAcc(g);
      GetQueltaLinearAcc(l);
      azp[i] = ori[0];
      pp[i] = ori[1];
      rp[i] = ori[2];
      radp[i] = parameters[3];
      for (int k = 0; k < 3; ++k) {
        op[3 * i + k] = parameters[k];
        cp[3 * i + k] = cal[k];
        vp[3 * i + k] = w[k];
        gp[3 * i + k] = g[k];
        lp[3 * i + k] = l[k];
      }
      for (int k = 0; k < 4; ++k) qp[4 * i + k] = q[k];
    }
  }
  py::dict d;
  d["azimuth"] = azimuth;
  d["pitch"] = pitch;
  d["roll"] = roll;
  d["accuracy"] = accuracy;
  d["offset"] = offset;
  d["radius"] = radius;
  d["calibrated"] = calibrated;
  d["field_held"] = held;
  d["angular_rate"] = vgyro;
  d["rotation_vector"] = rotation;
  d["gravity"] = gravity;
  d["linear_acceleration"] = linear;
  return d;
}

}  // namespace

void bindAlgo(py::module_& m) {
  m.def("algo_run", &algoRun, py::arg("t"), py::arg("acc"), py::arg("mag"));
}

}  // namespace quelta::python
