// GetCalOri on the process-wide orientation, reading and writing the default
// calibrator's state.
#include "QueltaAlgo.h"
#include "magcal/calibrator.h"
#include "orientation/orientation.h"

namespace quelta {

namespace {
Orientation gDefaultOrientation;  // constant-initialised: no static constructor
}  // namespace

Orientation& defaultOrientation() { return gDefaultOrientation; }

}  // namespace quelta

extern "C" QUELTA_API int32_t GetCalOri(float* out) {
  return quelta::defaultOrientation().compute(quelta::defaultCalibrator().state, out);
}
