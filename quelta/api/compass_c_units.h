// SPDX-License-Identifier: Apache-2.0
// The compass's door: the host's units, axes and frame on the way in and
// out, and the checks that catch values contradicting those units. Its
// state lives at the end of the caller's quelta_compass storage, beside the
// compass object.
#pragma once

#include <cstddef>
#include <cstdint>

#include "quelta/compass/compass_math.h"
#include "quelta/quelta_compass.h"

namespace quelta::api {

// One sample set as the compass takes it: seconds, g, gauss, rad/s, the
// device's axes.
struct DoorSample {
  double t = 0.0;
  compass::Vec3 acc;
  compass::Vec3 field;
  compass::Vec3 gyro;
};

// The default units and a fresh watch; called by quelta_compass_init.
void openDoor(quelta_compass* state);

// Converts a sample set into the compass's units and axes and checks it
// against the units set. Returns 0, or a QUELTA_COMPASS_ERROR_*_UNIT code
// (the sample must then not be fed). field and gyro may be null.
int32_t enterDoor(quelta_compass* state, double t, const double* acc, const double* field, const double* gyro,
                  DoorSample& out);

// Converts the compass's outputs into the host's units and frame.
void leaveDoor(const quelta_compass* state, quelta_compass_output* out);

// The host's field unit per gauss: 1, 100 (uT) or 100000 (nT).
double fieldPerGauss(const quelta_compass* state);

// The door's state lies within the last kDoorStateBytes bytes of the
// storage: what to keep aside to undo a sample set the compass refuses
// after the door has converted it.
inline constexpr size_t kDoorStateBytes = 512;

}  // namespace quelta::api
