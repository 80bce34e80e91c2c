// SPDX-License-Identifier: Apache-2.0
// Shared pieces of the Python bindings (module quelta._quelta): array
// checks and the lock that refuses concurrent use of one object.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <atomic>
#include <cstddef>
#include <stdexcept>
#include <string>

#include "quelta/quelta_magnetic.h"

namespace quelta::python {

namespace py = pybind11;

// Float64, C-contiguous views of whatever the caller passed (lists, other
// dtypes and strides are converted).
using Doubles = py::array_t<double, py::array::c_style | py::array::forcecast>;

// n values, or n x 3 rows; throws ValueError naming the argument otherwise.
inline size_t lengthOf(const Doubles& a, const char* name) {
  if (a.ndim() != 1) throw py::value_error(std::string(name) + " must be one-dimensional (N values)");
  return static_cast<size_t>(a.shape(0));
}
inline void checkRows(const Doubles& a, size_t n, const char* name, py::ssize_t width = 3) {
  if (a.ndim() != 2 || a.shape(1) != width || static_cast<size_t>(a.shape(0)) != n)
    throw py::value_error(std::string(name) + " must have shape (N, " + std::to_string(width) + ") with N = " +
                          std::to_string(n));
}

// New arrays of n rows (and width columns when width > 0).
template <typename T>
py::array_t<T> rows(size_t n, py::ssize_t width = 0) {
  if (width == 0) return py::array_t<T>(static_cast<py::ssize_t>(n));
  return py::array_t<T>({static_cast<py::ssize_t>(n), width});
}

// Held while one call works on an object with the interpreter lock
// released; a second thread is refused instead of racing.
class Busy {
 public:
  Busy(std::atomic<bool>& flag, const char* what) : flag_(flag) {
    if (flag_.exchange(true)) throw std::runtime_error(std::string(what) + " is in use by another thread");
  }
  ~Busy() { flag_.store(false); }
  Busy(const Busy&) = delete;
  Busy& operator=(const Busy&) = delete;

 private:
  std::atomic<bool>& flag_;
};

// The magnetic layer's calibration and quality as dicts.
py::dict calibrationDict(const quelta_mag_calibration& c);
py::dict qualityDict(const quelta_mag_quality& q);

void bindCompass(py::module_& m);
void bindMagnetic(py::module_& m);
void bindData(py::module_& m);
void bindAlgo(py::module_& m);

}  // namespace quelta::python
