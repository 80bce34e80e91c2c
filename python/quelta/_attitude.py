# SPDX-License-Identifier: Apache-2.0
"""Comparing attitudes (quaternions w, x, y, z, device to east-north-up)."""

import numpy as np


def _multiply(p, q):
    pw, px, py, pz = np.moveaxis(np.asarray(p, dtype=float), -1, 0)
    qw, qx, qy, qz = np.moveaxis(np.asarray(q, dtype=float), -1, 0)
    return np.stack(
        [
            pw * qw - px * qx - py * qy - pz * qz,
            pw * qx + px * qw + py * qz - pz * qy,
            pw * qy - px * qz + py * qw + pz * qx,
            pw * qz + px * qy - py * qx + pz * qw,
        ],
        axis=-1,
    )


def heading_error_deg(reference, estimate, north_deg=0.0):
    """Turn about the vertical from estimate to reference, degrees in
    [-180, 180), clockwise positive; one value per row of the (N x 4)
    quaternion arrays. Unlike a difference of azimuths it keeps its meaning
    at any tilt. north_deg: where the reference frame's magnetic north lies,
    degrees clockwise from its +y (e.g. a motion-capture frame's); the
    reference is turned onto it first. NaN where either is NaN."""
    half = np.radians(north_deg) / 2.0
    north = np.array([np.cos(half), 0.0, 0.0, np.sin(half)])
    reference = _multiply(north, reference)
    estimate = np.asarray(estimate, dtype=float)
    conj = estimate * np.array([1.0, -1.0, -1.0, -1.0])
    d = _multiply(reference, conj)
    turn = -2.0 * np.degrees(np.arctan2(d[..., 3], d[..., 0]))
    return (turn + 180.0) % 360.0 - 180.0
