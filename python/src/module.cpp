// SPDX-License-Identifier: Apache-2.0
// The extension module behind the quelta package.
#include "python/src/bindings.h"
#include "quelta/quelta.h"

PYBIND11_MODULE(_quelta, m) {
  m.doc() = "libquelta and QueltaAlgo bindings (use the quelta package)";
  m.attr("version") = quelta_version();
  quelta::python::bindCompass(m);
  quelta::python::bindMagnetic(m);
  quelta::python::bindData(m);
  quelta::python::bindAlgo(m);
}
