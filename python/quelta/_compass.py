# SPDX-License-Identifier: Apache-2.0
"""The compass over numpy arrays (quelta.Compass)."""

import numpy as np

from . import _quelta

FLAG_CALIBRATING = 0x1
FLAG_MAGNETIC_DISTURBANCE = 0x2
FLAG_ACCELERATING = 0x4
FLAG_NO_HEADING = 0x8
FLAG_GYROSCOPE = 0x10
FLAG_RESTING = 0x20

# Units and frames, as the C interface names them (quelta_compass.h).
_TIME = {"s": 0, "ms": 1, "us": 2, "ns": 3}
_ACC = {"g": 0, "m/s2": 1, "m/s^2": 1}
_FIELD = {"gauss": 0, "uT": 1, "nT": 2}
_FRAME = {"enu": 0, "ned": 1}
_AXES = {"as_is": 0, "rotated_90": 1, "rotated_180": 2, "rotated_270": 3, "frd": 4, "face_down": 5}
_PRESETS = {
    None: {},
    "default": {},
    # What Android's SensorEvent gives: nanoseconds, m/s^2, microtesla.
    "android": {"time": "ns", "acc": "m/s2", "field": "uT"},
}

# Return codes of the C interface.
_CODES = {
    -1: "null or uninitialised state",
    -2: "time not finite",
    -3: "accelerometer not finite or beyond 32 g",
    -4: "field not finite or beyond 10 gauss",
    -5: "gyroscope not finite or beyond 2000 deg/s",
    -6: "field quality out of range",
    -7: "setting not finite or out of range",
    -20: "unknown unit or frame",
    -21: "axis matrix not orthogonal",
    -22: "times contradict the time unit (e.g. nanoseconds given as seconds); set units={'time': ...}",
    -23: "accelerations contradict the acceleration unit (e.g. m/s^2 given as g); set units={'acc': ...}",
    -24: "field contradicts the field unit (e.g. microtesla given as gauss); set units={'field': ...}",
}


class UnitsError(ValueError):
    """Samples or settings that contradict the units set."""


def status_text(code):
    """What a row's status code means."""
    return "accepted" if code == 0 else _CODES.get(int(code), "refused (code %d)" % code)


def _check_units(status):
    """Raises UnitsError for the first unit contradiction in status."""
    status = np.asarray(status)
    wrong = np.nonzero((status <= -20) & (status >= -29))[0]
    if wrong.size:
        row = int(wrong[0])
        code = int(status[row])
        raise UnitsError(
            "row %d: %s (code %d; %d of %d rows refused)"
            % (row, _CODES.get(code, "unit contradiction"), code, wrong.size, status.size)
        )


def _matrix(axes):
    if isinstance(axes, str):
        if axes not in _AXES:
            raise ValueError("unknown axis remap %r; one of %s" % (axes, ", ".join(_AXES)))
        return _quelta.axes(_AXES[axes])
    m = np.asarray(axes, dtype=float)
    if m.shape != (3, 3):
        raise ValueError("an axis remap is a name or a 3 x 3 matrix (device = M @ sensor)")
    return m


def _unit(table, value, what):
    if value not in table:
        raise ValueError("unknown %s unit %r; one of %s" % (what, value, ", ".join(table)))
    return table[value]


class Compass:
    """The compass: attitude, azimuth, pitch, roll and a heading accuracy
    estimate from an accelerometer, a raw (uncalibrated) magnetometer and,
    when there is one, a gyroscope. The magnetometer is calibrated inside.

    declination_deg: degrees east; with it headings refer to true north
        (quelta.geomag.field(...)["declination_deg"]).
    expected_field: (strength, dip_deg) at the device's place, strength in
        the field unit set, or a quelta.geomag.field(...) result. Helps the
        calibration.
    units: None (s, g, gauss), "android" (ns, m/s^2, uT) or a dict with any
        of "time" (s, ms, us, ns), "acc" (g, m/s2) and "field" (gauss, uT, nT).
        Outputs follow: "t" in the time unit, gravity and linear
        acceleration in the acceleration unit.
    axes: how the sensors are mounted: a name (as_is, rotated_90,
        rotated_180, rotated_270, frd, face_down), a 3 x 3 matrix
        (device = M @ sensor), or a dict {"acc": ..., "field": ..., "gyro": ...}.
    frame: "enu" (quaternion device to east-north-up) or "ned".

    Values that contradict the units (a field of 390 "gauss", gravity of 9.8
    "g", nanoseconds given as seconds) raise UnitsError.
    """

    def __init__(self, declination_deg=0.0, expected_field=None, units=None, axes=None, frame="enu"):
        self._core = _quelta.CompassCore()
        if isinstance(units, str) or units is None:
            if units not in _PRESETS:
                raise ValueError("unknown units preset %r; one of default, android, or a dict" % units)
            units = _PRESETS[units]
        unknown = set(units) - {"time", "acc", "field"}
        if unknown:
            raise ValueError("unknown units keys: %s" % ", ".join(sorted(unknown)))
        self._field_per_gauss = {0: 1.0, 1: 100.0, 2: 100000.0}[_unit(_FIELD, units.get("field", "gauss"), "field")]
        if axes is None:
            axes = "as_is"
        if isinstance(axes, dict):
            unknown = set(axes) - {"acc", "field", "gyro"}
            if unknown:
                raise ValueError("unknown axes keys: %s" % ", ".join(sorted(unknown)))
            per = {k: _matrix(axes.get(k, "as_is")) for k in ("acc", "field", "gyro")}
        else:
            m = _matrix(axes)
            per = {"acc": m, "field": m, "gyro": m}
        code = self._core.set_units(
            _unit(_TIME, units.get("time", "s"), "time"),
            _unit(_ACC, units.get("acc", "g"), "acceleration"),
            _unit(_FIELD, units.get("field", "gauss"), "field"),
            _unit(_FRAME, frame, "frame"),
            per["acc"],
            per["field"],
            per["gyro"],
        )
        if code != 0:
            raise UnitsError(_CODES.get(code, "settings refused (code %d)" % code))
        if self._core.set_declination(float(declination_deg)) != 0:
            raise ValueError("declination must be finite")
        if expected_field is not None:
            self.set_expected_field(expected_field)

    def set_expected_field(self, expected_field):
        """(strength in the field unit, dip_deg), or a quelta.geomag.field() result."""
        if isinstance(expected_field, dict):
            strength = expected_field["strength_gauss"] * self._field_per_gauss
            dip = expected_field["dip_deg"]
        else:
            strength, dip = expected_field
        if self._core.set_expected_field(float(strength), float(dip)) != 0:
            raise ValueError("expected field (%r, %r) is not one the earth could have" % (strength, dip))

    def set_declination(self, declination_deg):
        if self._core.set_declination(float(declination_deg)) != 0:
            raise ValueError("declination must be finite")

    def reset(self):
        """Forgets the calibration and the attitude; keeps units and declination."""
        self._core.reset()

    def run(self, t, acc, mag, gyro=None):
        """Runs whole arrays in one call: t (N), acc (N x 3), mag (N x 3 raw
        field, or None), gyro (N x 3, or None). A row of NaN in mag or gyro
        means "no reading in this row" (sensors at different rates).

        Returns a dict of numpy arrays, one row per sample: t, quaternion
        (N x 4, w x y z), azimuth, pitch, roll (degrees), heading_accuracy
        (estimated RMS heading error, degrees; 180 = unknown), accuracy
        (0..3), flags (FLAG_*), gravity, linear_acceleration, angular_rate,
        gyro_bias (N x 3), offset (N x 3) and soft_iron (N x 3 x 3) of the
        calibration in use, status (0, or the code that refused the row).
        While FLAG_NO_HEADING is set the azimuth is meaningless.
        """
        out = self._core.run(t, acc, mag, gyro)
        _check_units(out["status"])
        return out

    def update(self, t, acc, mag=None, gyro=None):
        """One sample set; returns the outputs as run() does, for one row
        (scalars and vectors). The same to the bit as run() over the rows."""
        def row(v):
            return None if v is None else np.asarray(v, dtype=float).reshape(1, 3)

        out = self.run(np.array([t], dtype=float), row(acc), row(mag), row(gyro))
        return {k: v[0] for k, v in out.items()}

    def save_calibration(self):
        """The calibration as a 128-byte record, or None when there is none yet."""
        record = self._core.save_calibration()
        return record if record else None

    def restore_calibration(self, record):
        """Adopts a record from save_calibration(); ValueError if it is refused."""
        status = self._core.restore_calibration(bytes(record))
        if status != 0:
            raise ValueError("calibration record refused: %s" % _quelta.mag_record_text(status))

    def calibration(self):
        """The calibration in use: offset, soft_iron (calibrated = soft_iron @ (raw - offset)), strength, dip_deg, model."""
        return self._core.calibration()

    def calibration_quality(self):
        """The calibration's quality: accuracy, reason (and its text), coverage, residual, ..."""
        return self._core.quality()
