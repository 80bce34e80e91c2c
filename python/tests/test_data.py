# SPDX-License-Identifier: Apache-2.0
"""The field model, the recording reader, the magnetic calibrator and the
fixed pipelines from Python."""

import numpy as np
import pytest

import quelta
from conftest import REPO


def test_field_model_matches_the_published_test_values():
    # The first line of the model's own test values: date, height (km),
    # latitude, longitude, then X, Y, Z, H, F (nT), inclination, declination.
    lines = (REPO / "data" / "wmm" / "WMM2025_TEST_VALUES.txt").read_text().splitlines()
    row = [float(v) for v in next(l for l in lines if l.strip() and not l.startswith("#")).split()]
    f = quelta.geomag.field(row[2], row[3], row[1] * 1000.0, row[0])
    assert f["north_nt"] == pytest.approx(row[4], abs=0.1)
    assert f["east_nt"] == pytest.approx(row[5], abs=0.1)
    assert f["down_nt"] == pytest.approx(row[6], abs=0.1)
    assert f["declination_deg"] == pytest.approx(row[10], abs=0.01)
    assert f["strength_gauss"] == pytest.approx(row[8] / 1e5, abs=1e-6)
    assert quelta.geomag.decimal_year("2025-07-02") == pytest.approx(2025.0 + 182 / 365)
    with pytest.raises(ValueError):
        quelta.geomag.field(91.0, 0.0, 0.0, 2026.0)


def test_recording_reader_reports_where_a_file_is_wrong(tmp_path):
    good = tmp_path / "r.csv"
    good.write_text("t,ax,ay,az,mx,my,mz\n0,0,0,1,0.2,0,-0.4\n0.02,0,0,1,0.2,0,-0.4\n")
    r = quelta.read_recording(good)
    assert r["t"].shape == (2,) and r["acc"].shape == (2, 3) and r["gyro"] is None
    # An Android logger's file: its own names, nanoseconds, m/s^2 and uT,
    # the field at half the rate (empty cells).
    android = tmp_path / "android.csv"
    android.write_text(
        "timestamp_ns,acc_x,acc_y,acc_z,mag_x,mag_y,mag_z\n"
        "3600000000000,0,0,9.80665,20,0,-40\n"
        "3600020000000,0,0,9.80665,,,\n"
        "3600040000000,0,0,9.80665,20,0,-40\n"
    )
    names = {"t": "timestamp_ns", "ax": "acc_x", "ay": "acc_y", "az": "acc_z", "mx": "mag_x", "my": "mag_y", "mz": "mag_z"}
    a = quelta.read_recording(android, acc_unit="m/s2", mag_unit="uT", time_unit="ns", columns=names)
    assert np.allclose(a["t"] - a["t"][0], [0.0, 0.02, 0.04])
    assert np.allclose(a["acc"][:, 2], 1.0) and np.allclose(a["mag"][0], [0.2, 0.0, -0.4])
    assert np.isnan(a["mag"][1]).all() and not np.isnan(a["mag"][2]).any()
    bad = tmp_path / "bad.csv"
    bad.write_text("t,ax,ay,az,mx,my,mz\n0,0,0,1,0.2,zero,-0.4\n")
    with pytest.raises(ValueError, match=r"bad\.csv:2"):
        quelta.read_recording(bad)


def test_mag_calibrator_and_fixed_pipelines_over_arrays(recording):
    r = recording("n5_calib_figure8_d2")
    cal = quelta.MagCalibrator(expected_field=(0.48, 60.0))
    out = cal.run(r["t"], r["mag"], r["acc"])
    assert out["accuracy"][-1] == 3
    # The calibrated field lies on the sphere of the expected strength.
    strength = np.linalg.norm(out["calibrated"][-500:], axis=1)
    assert abs(np.median(strength) - 0.48) < 0.05
    assert np.allclose(cal.apply(r["mag"][-1]), out["calibrated"][-1])
    # The fixed pipelines hold the last field over rows without one.
    mag = r["mag"].copy()
    mag[1::2] = np.nan
    algo = quelta.algo.run(r["t"], r["acc"], mag)
    assert algo["field_held"].sum() == len(mag) // 2
    assert algo["azimuth"].shape == (len(mag),) and algo["rotation_vector"].shape == (len(mag), 4)
    assert (algo["accuracy"] > 0).any()
