# SPDX-License-Identifier: Apache-2.0
"""The magnetic calibrator on its own (quelta.MagCalibrator)."""

import numpy as np

from . import _quelta


class MagCalibrator:
    """Online hard- and soft-iron calibration of a magnetometer (gauss), with
    a quality report and a per-sample disturbance score.

    expected_field: (strength_gauss, dip_deg) or a quelta.geomag.field() result.
    """

    def __init__(self, expected_field=None):
        self._core = _quelta.MagCore()
        if expected_field is not None:
            self.set_expected_field(expected_field)

    def set_expected_field(self, expected_field):
        if isinstance(expected_field, dict):
            expected_field = (expected_field["strength_gauss"], expected_field["dip_deg"])
        strength, dip = expected_field
        self._core.set_expected_field(float(strength), float(dip))

    def reset(self):
        self._core.reset()

    def run(self, t, mag, acc=None):
        """Whole arrays: t (N), mag (N x 3 raw field, gauss; a row of NaN is no
        sample), acc (N x 3 or None). Returns a dict of arrays: calibrated
        (N x 3), strength, dip, disturbance, disturbed, accuracy,
        new_calibration, valid, offset (N x 3), soft_iron (N x 3 x 3)."""
        return self._core.run(t, mag, acc)

    def update(self, t, mag, acc=None):
        """One sample; the same as run() over one row."""
        acc = None if acc is None else np.asarray(acc, dtype=float).reshape(1, 3)
        out = self._core.run(np.array([t], dtype=float), np.asarray(mag, dtype=float).reshape(1, 3), acc)
        return {k: v[0] for k, v in out.items()}

    def apply(self, raw):
        """The current calibration applied to raw fields (N x 3 or 3)."""
        raw = np.asarray(raw, dtype=float)
        return self._core.apply(raw.reshape(-1, 3)).reshape(raw.shape)

    def save_calibration(self):
        record = self._core.save()
        return record if record else None

    def restore_calibration(self, record):
        status = self._core.restore(bytes(record))
        if status != 0:
            raise ValueError("calibration record refused: %s" % _quelta.mag_record_text(status))

    def calibration(self):
        return self._core.calibration()

    def quality(self):
        return self._core.quality()
