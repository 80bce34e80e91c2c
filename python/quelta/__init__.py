# SPDX-License-Identifier: Apache-2.0
"""quelta: an electronic compass for Python, over numpy arrays.

    import quelta
    r = quelta.read_recording("walk.csv.gz")
    out = quelta.Compass().run(r["t"], r["acc"], r["mag"], r["gyro"])
    print(out["azimuth"][-1], out["heading_accuracy"][-1])

Compass          the compass (libquelta): attitude, azimuth, heading accuracy,
                 with the magnetometer calibrated inside
MagCalibrator    the magnetic calibrator on its own
geomag           the World Magnetic Model 2025: quelta.geomag.field(...)
read_recording   the replay tool's recording reader (CSV and .csv.gz)
algo             the fixed pipelines of QueltaAlgo.so over arrays
heading_error_deg  the turn about the vertical between two attitudes

Units unless set otherwise: seconds, g, gauss, rad/s, device axes x right,
y towards the top edge, z out of the screen; quaternions w, x, y, z from the
device to east-north-up.
"""

from . import _quelta
from . import algo, geomag
from ._compass import (
    Compass,
    UnitsError,
    status_text,
    FLAG_CALIBRATING,
    FLAG_MAGNETIC_DISTURBANCE,
    FLAG_ACCELERATING,
    FLAG_NO_HEADING,
    FLAG_GYROSCOPE,
    FLAG_RESTING,
)
from ._attitude import heading_error_deg
from ._magnetic import MagCalibrator
from ._recording import read_recording

__version__ = _quelta.version

__all__ = [
    "Compass",
    "MagCalibrator",
    "UnitsError",
    "status_text",
    "read_recording",
    "heading_error_deg",
    "geomag",
    "algo",
    "FLAG_CALIBRATING",
    "FLAG_MAGNETIC_DISTURBANCE",
    "FLAG_ACCELERATING",
    "FLAG_NO_HEADING",
    "FLAG_GYROSCOPE",
    "FLAG_RESTING",
]
