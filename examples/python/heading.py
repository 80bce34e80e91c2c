#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Replays a recording through quelta.Compass and plots the heading, the
heading accuracy estimate (with the actual error drawn over it when the
recording has a reference attitude), the accuracy level and the
magnetometer calibration, to a PNG.

    python3 examples/python/heading.py RECORDING.csv[.gz] [--out heading.png]
        [--declination DEG] [--no-gyro]

A recording's reference attitude (qw qx qy qz) is in a motion-capture frame
whose north is only close to magnetic north: it is turned onto magnetic
north by the field of the recording's sidecar (NAME.json,
truth_aided_calibration.world_field_gauss) when there is one, else by the
median heading error over the samples where the compass claims accuracy 3.
The actual error is the turn about the vertical between the compass's
attitude and the reference (quelta.heading_error_deg), which keeps its
meaning at any tilt; the error plots show its size.
"""

import argparse
import json
import pathlib
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402

import quelta  # noqa: E402


def wrap(deg):
    return (np.asarray(deg) + 180.0) % 360.0 - 180.0


def reference_heading(attitude):
    """Azimuth of the top edge (device y) from w x y z quaternions, degrees."""
    w, x, y, z = attitude.T
    east = 2.0 * (x * y - w * z)
    north = 1.0 - 2.0 * (x * x + z * z)
    return np.degrees(np.arctan2(east, north))


def north_offset(path, out, reference):
    """Where magnetic north lies in the reference's frame, degrees clockwise
    from its +y, and how it was found."""
    name = pathlib.Path(path).name.split(".")[0]
    sidecar = pathlib.Path(path).with_name(name + ".json")
    if sidecar.exists():
        field = json.loads(sidecar.read_text()).get("truth_aided_calibration", {}).get("world_field_gauss")
        if field:
            return float(np.degrees(np.arctan2(field[0], field[1]))), "sidecar field"
    error = quelta.heading_error_deg(reference, out["quaternion"])
    use = (out["accuracy"] == 3) & np.isfinite(error)
    if not use.any():
        return 0.0, "none"
    d = np.radians(error[use])
    return float(np.degrees(np.arctan2(np.median(np.sin(d)), np.median(np.cos(d))))), "median error"


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("recording")
    parser.add_argument("--out", default="heading.png")
    parser.add_argument("--declination", type=float, default=0.0, help="degrees east (true north)")
    parser.add_argument("--no-gyro", action="store_true", help="leave the gyroscope out")
    args = parser.parse_args()

    r = quelta.read_recording(args.recording)
    t = r["t"] - r["t"][0]
    gyro = None if args.no_gyro else r["gyro"]
    out = quelta.Compass(declination_deg=args.declination).run(r["t"], r["acc"], r["mag"], gyro)
    heading = out["azimuth"].copy()
    no_heading = (out["flags"] & quelta.FLAG_NO_HEADING) != 0
    heading[no_heading] = np.nan  # no heading yet: nothing to show

    fig, axes = plt.subplots(4, 1, figsize=(11, 11), sharex=True, gridspec_kw={"height_ratios": [3, 3, 1, 2]})
    fig.suptitle("%s: %d samples over %.0f s%s" % (pathlib.Path(r["name"]).name, len(t), t[-1], ", no gyroscope" if gyro is None else ""))

    ax = axes[0]
    ax.plot(t, heading, ".", ms=1.5, label="compass azimuth")
    error = None
    if r["attitude"] is not None:
        north, how = north_offset(args.recording, out, r["attitude"])
        reference = (reference_heading(r["attitude"]) - north + args.declination) % 360.0
        ax.plot(t, reference, ".", ms=1.0, color="0.5", label="reference (north by %s)" % how)
        error = np.abs(quelta.heading_error_deg(r["attitude"], out["quaternion"], north - args.declination))
        error[no_heading] = np.nan
    ax.set_ylabel("heading, deg")
    ax.set_ylim(0, 360)
    ax.set_yticks(range(0, 361, 90))
    ax.legend(loc="upper right", markerscale=8)

    # The estimate's useful range is a few degrees: a log scale shows 1 to
    # 180 degrees, the actual error drawn over the estimate.
    ax = axes[1]
    if error is not None:
        ax.plot(t, np.maximum(error, 0.1), ".", ms=1.0, color="tab:red", alpha=0.5, label="actual error")
        late = (t >= 10.0) & np.isfinite(error)
        if late.any():
            ax.set_title("heading error from 10 s: RMS %.1f deg" % np.sqrt(np.mean(error[late] ** 2)), fontsize=9)
    ax.plot(t, out["heading_accuracy"], color="tab:blue", label="estimated RMS error")
    for level in (10, 20, 45):
        ax.axhline(level, color="0.8", lw=0.8, ls="--")
    ax.set_yscale("log")
    ax.set_ylim(0.5, 200)
    ax.set_ylabel("heading error, deg")
    ax.legend(loc="upper right", markerscale=8)

    ax = axes[2]
    ax.step(t, out["accuracy"], where="post", color="tab:green", label="accuracy 0..3")
    ax.fill_between(t, 0, 3.3, where=no_heading, color="0.85", step="post", label="no heading")
    disturbed = (out["flags"] & quelta.FLAG_MAGNETIC_DISTURBANCE) != 0
    ax.fill_between(t, 0, 3.3, where=disturbed, color="tab:orange", alpha=0.3, step="post", label="disturbed")
    ax.set_ylim(0, 3.3)
    ax.set_yticks([0, 1, 2, 3])
    ax.set_ylabel("accuracy")
    ax.legend(loc="lower right", fontsize=8, ncol=3)

    ax = axes[3]
    for k, name in enumerate("xyz"):
        ax.plot(t, out["offset"][:, k], label="offset " + name)
    ax.set_ylabel("hard iron, gauss")
    ax.set_xlabel("time, s")
    ax.legend(loc="upper right", fontsize=8, ncol=3)

    fig.tight_layout()
    fig.savefig(args.out, dpi=90)
    print("wrote %s" % args.out)
    return 0


if __name__ == "__main__":
    sys.exit(main())
