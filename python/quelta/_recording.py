# SPDX-License-Identifier: Apache-2.0
"""Recordings as the replay tool reads them (quelta.read_recording)."""

from . import _quelta

_ACC = {"g": 0, "m/s2": 1, "m/s^2": 1}
_MAG = {"gauss": 0, "uT": 1}
_TIME = {"s": 0, "ms": 1, "us": 2, "ns": 3}


def read_recording(path, acc_unit="g", mag_unit="gauss", time_unit="s", columns=None):
    """Reads a recording (CSV or .csv.gz, header t,ax,ay,az,mx,my,mz and
    optionally gx,gy,gz and qw,qx,qy,qz), converting to seconds, g and gauss.

    columns: the header names of columns named otherwise, as a dict
    {"t": "timestamp_ns", "ax": "acc_x", ...} or the replay tool's
    "t=timestamp_ns,ax=acc_x,..." text. Rows whose field (or gyroscope)
    cells are empty or nan have no reading of that sensor: NaN rows, which
    Compass.run takes as "no sample".

    Returns a dict: name, t (N, s), acc (N x 3, g), mag (N x 3, gauss), gyro
    (N x 3, rad/s, or None without gyroscope columns), attitude (N x 4, w x y
    z, device to east-north-up, or None), period (median interval, s). Rows
    without a gyroscope or attitude value hold NaN there. Raises ValueError
    naming the file, line and column of the first problem."""
    if acc_unit not in _ACC:
        raise ValueError("acc_unit is one of %s" % ", ".join(_ACC))
    if mag_unit not in _MAG:
        raise ValueError("mag_unit is one of %s" % ", ".join(_MAG))
    if time_unit not in _TIME:
        raise ValueError("time_unit is one of %s" % ", ".join(_TIME))
    if isinstance(columns, dict):
        columns = ",".join("%s=%s" % item for item in columns.items())
    return _quelta.read_recording(str(path), _ACC[acc_unit], _MAG[mag_unit], _TIME[time_unit], columns or "")
