# SPDX-License-Identifier: Apache-2.0
"""The compass from Python: run() over arrays is update() sample by sample to
the bit, the heading on a real recording is as good as documented, units
and save/restore work end to end."""

import json

import numpy as np
import pytest

import quelta
from conftest import recordings_dir


def _same_bits(a, b):
    a, b = np.asarray(a), np.asarray(b)
    return a.shape == b.shape and a.dtype == b.dtype and a.tobytes() == b.tobytes()


def _phone_excerpt(recording, seconds=40.0):
    r = recording("n5_ar_nodist_j")
    keep = r["t"] < r["t"][0] + seconds
    t, acc, mag, gyro = r["t"][keep], r["acc"][keep], r["mag"][keep].copy(), r["gyro"][keep].copy()
    # The field at a third of the rate, the gyroscope missing now and then.
    mag[np.arange(len(t)) % 3 != 0] = np.nan
    gyro[np.arange(len(t)) % 97 == 5] = np.nan
    return t, acc, mag, gyro


def test_run_equals_update_sample_by_sample_to_the_bit(recording):
    t, acc, mag, gyro = _phone_excerpt(recording)
    batch = quelta.Compass(expected_field=(0.48, 60.0)).run(t, acc, mag, gyro)
    single = quelta.Compass(expected_field=(0.48, 60.0))
    rows = []
    for i in range(len(t)):
        m = None if np.isnan(mag[i]).all() else mag[i]
        rows.append(single.update(t[i], acc[i], m, gyro[i]))
    assert set(batch) == set(rows[0])
    for key in batch:
        assert _same_bits(batch[key], np.array([r[key] for r in rows], dtype=batch[key].dtype)), key
    assert (batch["status"] == 0).all()
    # Not a trivial run: the compass calibrated and found a heading.
    assert not batch["flags"][-1] & quelta.FLAG_NO_HEADING and batch["accuracy"].max() >= 2
    # The calibration columns are the calibration in use on each row.
    assert _same_bits(batch["offset"][-1], single.calibration()["offset"])


def _heading_error_deg(recording_name, out, truth, t):
    """RMS heading error (the turn about the vertical between the compass's
    attitude and the truth) from 10 s on, the capture frame's north turned
    onto the recording's magnetic north (its sidecar's field)."""
    side = json.loads((recordings_dir() / (recording_name + ".json")).read_text())
    east, north, _ = side["truth_aided_calibration"]["world_field_gauss"]
    err = quelta.heading_error_deg(truth, out["quaternion"], np.degrees(np.arctan2(east, north)))
    use = (t >= t[0] + 10.0) & np.isfinite(err)
    return float(np.sqrt(np.mean(err[use] ** 2)))


# docs/compass_accuracy.md, 50 Hz, whole compass with a gyroscope on the raw
# field ("compass+cal, gyro"): broad_01_slow_rotation 6.0 deg RMS from 10 s
# on. One degree of margin for retuning, which must then update the table.
HEADING_FIGURE_DEG = 6.0 + 1.0


def test_heading_on_a_shared_recording_is_within_the_documented_figure(recording):
    r = recording("broad_01_slow_rotation")
    out = quelta.Compass().run(r["t"], r["acc"], r["mag"], r["gyro"])
    rms = _heading_error_deg("broad_01_slow_rotation", out, r["attitude"], r["t"])
    assert rms <= HEADING_FIGURE_DEG
    # The estimate is honest where it claims accuracy 3: within 10 deg RMS.
    assert out["heading_accuracy"][-1] <= 10.0


def test_android_units_and_axes_give_the_same_compass_and_wrong_units_raise(recording):
    t, acc, mag, gyro = _phone_excerpt(recording, 1e9)  # the whole walk, two minutes
    native = quelta.Compass().run(t, acc, mag, gyro)
    # As an Android app hands them: ns since boot, m/s^2, microtesla; the
    # magnetometer mounted a quarter turn round (its x is the device's y).
    m90 = quelta._quelta.axes(1)
    t_ns = np.round(t * 1e9) + 7.5e12
    android = quelta.Compass(units="android", axes={"field": "rotated_90"}).run(
        t_ns, acc * 9.80665, (mag @ m90) * 100.0, gyro
    )
    assert _same_bits(android["t"], t_ns)
    assert np.array_equal(android["flags"], native["flags"])
    assert np.allclose(android["azimuth"], native["azimuth"], atol=1e-6)
    assert np.array_equal(android["accuracy"], native["accuracy"])
    assert np.allclose(android["gravity"], native["gravity"] * 9.80665, atol=1e-9)
    # Fed as they come, without the units: refused, loudly.
    with pytest.raises(quelta.UnitsError, match="field"):
        quelta.Compass().run(t, acc, mag * 100.0, gyro)
    with pytest.raises(quelta.UnitsError, match="acc"):
        quelta.Compass().run(t, acc * 9.80665, mag, gyro)
    with pytest.raises(quelta.UnitsError, match="time"):
        quelta.Compass().run(t_ns, acc, mag, gyro)
    with pytest.raises(ValueError):
        quelta.Compass(units={"field": "tesla"})
    # The expected field is in the field unit set: 48 uT is the earth's, 48 gauss is not.
    quelta.Compass(units="android", expected_field=(48.0, 60.0))
    with pytest.raises(ValueError):
        quelta.Compass(expected_field=(48.0, 60.0))


def test_calibration_saved_and_restored_carries_over(recording):
    r = recording("n5_calib_figure8_d2")
    fresh = quelta.Compass()
    assert fresh.save_calibration() is None
    first = quelta.Compass()
    first.run(r["t"], r["acc"], r["mag"], r["gyro"])
    record = first.save_calibration()
    assert isinstance(record, bytes) and len(record) == 128
    second = quelta.Compass()
    second.restore_calibration(record)
    assert np.allclose(second.calibration()["offset"], first.calibration()["offset"], atol=1e-6)
    # A restored phone reaches a heading on its first seconds of a walk.
    t, acc, mag, gyro = _phone_excerpt(recording, 5.0)
    out = second.run(t, acc, mag, gyro)
    assert not (out["flags"][-1] & quelta.FLAG_NO_HEADING)
    damaged = bytearray(record)
    damaged[40] ^= 0xFF
    with pytest.raises(ValueError, match="refused"):
        quelta.Compass().restore_calibration(bytes(damaged))
