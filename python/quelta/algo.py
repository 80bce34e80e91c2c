# SPDX-License-Identifier: Apache-2.0
"""The fixed pipelines of QueltaAlgo.so over arrays.

QueltaAlgo.so keeps its state process-wide (it serves hosts built around its
fixed interface): one run at a time in the whole process. A second thread
calling run() while one is running gets RuntimeError instead of corrupting
the first. Each run sets the pipelines up afresh and restarts the
calibration and the virtual gyroscope, but the rotation vector's smoothing
carries over from an earlier run in the same process; for results equal to
the replay tool's (quelta-replay --engine algo), run once per process.

New applications should use quelta.Compass: it is far more accurate.
"""

from . import _quelta


def run(t, acc, mag):
    """t (N, s), acc (N x 3, g), mag (N x 3, raw field, gauss; a row of NaN
    holds the previous field, as the pipelines need one on every row).

    Returns a dict of arrays: azimuth, pitch, roll (degrees), accuracy
    (0..3), offset (N x 3) and radius of the hard-iron calibration,
    calibrated (N x 3), field_held (1 where a NaN row held the previous
    field), angular_rate (N x 3, the virtual gyroscope, rad/s),
    rotation_vector (N x 4, x y z w), gravity (N x 3, unit direction),
    linear_acceleration (N x 3, g)."""
    return _quelta.algo_run(t, acc, mag)
