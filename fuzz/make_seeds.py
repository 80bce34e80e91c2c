#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the seed corpus fuzz/corpus/<target>/ from readable descriptions.

The byte encoding follows fuzz/fuzz_input.h: value() takes a selector byte
(0-1 special table, 2 raw bits, 3-4 int16/32768, 5 int16/1024, 6 int8*1e-8,
7 int16/8); count() a selector byte (0 special table, 1 int8, 2 byte, 3 raw).
Each target reads an operation byte, then that operation's arguments."""
import os
import struct
import sys

SPECIAL_FLOATS = ['nan', '-nan', 'nanpayload', 'snan', 'inf', '-inf', '0', '-0',
                  'denorm', '-denorm', '1e-40', 'fltmin', 'fltmax', '-fltmax']


def g(v):
    """A plausible value, v * 32768 as int16."""
    i = max(-32768, min(32767, int(round(v * 32768))))
    return bytes([3]) + struct.pack('>h', i)


def big(v):
    """A value up to 4096, v * 8 as int16."""
    return bytes([7]) + struct.pack('>h', int(round(v * 8)))


def special(name):
    return bytes([0, SPECIAL_FLOATS.index(name)])


def raw(f):
    return bytes([2]) + struct.pack('>f', f)


def small(n):
    """count() as a signed byte."""
    return bytes([1, n & 0xff])


def anyint(n):
    return bytes([3]) + struct.pack('>i', n)


def vec(*vs):
    return b''.join(v if isinstance(v, bytes) else g(v) for v in vs)


def mag_run(x_mg, y_mg, z_mg, n_byte, strength_byte):
    """Op 2 of fuzz_magnetic: a turning device with hard iron in milligauss."""
    def int_in(v, lo):
        return struct.pack('>H', v - lo)
    return (bytes([2]) + int_in(x_mg, -4000) + int_in(y_mg, -4000) + int_in(z_mg, -6000)
            + bytes([strength_byte % 256]) + int_in(60, -90) + bytes([20, n_byte, 36, 7]))


SEEDS = {
    'calibration': {
        # Wave the device through 64 spread samples: partial fits, then the full fit.
        'sphere_to_full_fit': bytes([3, 63, 32, 0]) + vec(0.12, -0.25, 0.08) + bytes([0, 0, 0])
        + bytes([5, 2, 5, 5]),
        # Stored calibration, odd window lengths, then samples.
        'stored_calibration_odd_windows': bytes([0, 0, 1]) + vec(0.12, -0.25, 0.08, 0.5)
        + bytes([0, 0, 0b111]) + small(-20) + anyint(0x7fffffff) + small(0) + bytes([1])
        + bytes([4]) + vec(0, 0, 1, 0.3, 0.1, -0.2, 0.3, 0.1, -0.2) + bytes([1, 40]),
        # Pool counts beyond the capacity, then a long wave.
        'pool_beyond_capacity': bytes([0, 0, 0, 0b111, 1]) + small(40) + bytes([0, 1])
        + small(50) + bytes([0, 1]) + anyint(1000) + bytes([0, 0, 0, 1])
        + bytes([3, 63, 56, 0]) + vec(0.0, 0.0, 0.0) + bytes([0, 0, 0])
        + bytes([3, 63, 56, 10]) + vec(0.0, 0.0, 0.0) + bytes([0, 0, 0]),
        # NaN samples and a NaN stored offset.
        'nan_everywhere': bytes([1]) + special('nan') * 9 + bytes([0, 0])
        + bytes([0, 0, 1]) + special('nan') * 4 + bytes([0, 0, 0, 1])
        + bytes([4]) + vec(0, 0, 1) + special('nan') * 3 + vec(0, 0, 0) + bytes([0, 35])
        + bytes([5, 5]),
        # Repeated far-off field at accuracy 3: the quality watch downgrades.
        'quality_downgrade': bytes([0, 0, 1]) + vec(0.1, 0.1, 0.1, 0.5) + bytes([0, 0, 0b1])
        + anyint(1000) + bytes([1]) + bytes([4]) + vec(0, 0, 1, 0.1, 0.1, 0.1, 0, 0, 0)
        + bytes([1, 63]),
    },
    'rotvec': {
        # One tame sample 48 times: past both moving means, recovery checked.
        'steady_48': bytes([1]) + vec(0.0, 0.5, -0.4, 0.0, 0.0, 1.0) + bytes([0, 47]),
        # A NaN sample, then 48 tame ones twice.
        'nan_then_recover': bytes([0]) + special('nan') * 6 + bytes([0])
        + (bytes([1]) + vec(0.0, 0.5, -0.4, 0.0, 0.0, 1.0) + bytes([1, 47])) * 2,
        # Turning device with the callback on, hold threshold 0.
        'turning_logged': bytes([5, 1, 3]) + special('0') + bytes([2, 47]) + vec(0.1, 0.2, 0.9)
        + bytes([32, 10, 120, 130, 1]),
        'cn2b_degenerate': bytes([4]) + special('0') * 6 + raw(1e-4) + special('0')
        + bytes([4]) + special('inf') * 8,
    },
    'vgyro': {
        # Turning at 2 rad/s for 64 calls: rotating mode, field rate, compensation.
        'turning_2rad': bytes([2, 63]) + vec(0.0, 0.0, 1.0) + bytes([32, 0, 1, 10, 20, 0, 130, 120]),
        # Zero acceleration, zero interval, restart, NaN.
        'zero_inputs': bytes([0]) + vec(0.2, 0.0, -0.4) + special('0') * 3 + bytes([0, 1, 255])
        + special('0') + bytes([1]) + vec(0.2, 0.0, -0.4, 0, 0, 1) + bytes([220, 1, 0])
        + bytes([0]) + special('nan') * 6 + bytes([0, 1, 0]),
        'building_blocks': bytes([3, 0]) + vec(0.2, 0, 0) + bytes([220]) + raw(0.01)
        + bytes([3, 1]) + vec(1, 5, 10) + bytes([0, 4]) + vec(0.06, 0.06, 0, 0)
        + bytes([0, 4]) + vec(1.0, -0.88, 0, 0) + raw(0.01)
        + bytes([3, 2]) + anyint(0x7fffffff) + bytes([1]),
    },
    'buffers': {
        # Fill the raw field buffer, median, low-pass, mean, field rate.
        'chain': (bytes([3, 0]) + vec(0.1, 0.2, 0.3)) * 4
        + bytes([5, 0, 1]) + small(3) + bytes([1])
        + bytes([7, 1, 2, 1]) + small(2) + vec(0.06, 0.06) + small(2) + vec(1.0, -0.88)
        + bytes([6, 2, 3]) + small(3) + bytes([0]) + bytes([8, 3]) + raw(0.01),
        # Hand-made buffers: width 0, width 5, length 40; odd windows and k.
        'hand_made': bytes([0, 0, 0, 2, 0, 0]) + bytes([0, 1, 0, 7, 0, 39])
        + (bytes([3, 11]) + vec(1, 2, 3, 4, 5)) * 3
        + bytes([4, 11]) + small(-1) + vec(0, 0, 0, 0, 0)
        + bytes([5, 11, 11]) + small(0) + bytes([1])
        + bytes([6, 11, 11]) + small(0) + bytes([0])
        + bytes([5, 10, 10]) + anyint(-2147483648) + bytes([1]),
    },
    'math': {
        'vectors': bytes([0]) + small(5) + vec(3, 1, 2, -0.5, 0) + vec(1, 1, 1, 1, 1)
        + bytes([0]) + anyint(-2147483648),
        'quaternions': bytes([1]) + vec(-0.5, 0.5, 0.5, 0.5, 0, 1, 0, 0),
        'complex': bytes([2]) + vec(0, 1, 0, 0) + vec(2) + small(4),
    },
    'magnetic': {
        # Turning device runs (op 2) with a phone-like hard iron, then a
        # save/restore with one damaged byte (op 4).
        'turning_then_save': (mag_run(600, -700, 4100, 50, 250) * 4) + bytes([4, 17, 3]),
        # A magnet appears: the offset jumps between runs.
        'magnet_appears': mag_run(0, 0, 0, 50, 250) * 3 + mag_run(-70, -10, 580, 50, 250) * 3,
        # Broken samples: NaN time and field, backwards time, zeros, reset.
        'broken_stream': bytes([0, 4]) + special('nan') + vec(0.2, -0.1) + special('inf')
        + vec(0, 0, 1) + bytes([1, 3])
        + bytes([1, 2, 9]) + vec(0.3, 0.1, -0.4, 0.01, 0.02, 0.99) + bytes([1, 1])
        + bytes([8]) + bytes([6]) + bytes([3]) + vec(0.5, 60) + bytes([5, 40]) + b'QMAG' + bytes(36),
    },
}


def main():
    root = os.path.join(os.path.dirname(os.path.abspath(__file__)), 'corpus')
    for target, seeds in SEEDS.items():
        folder = os.path.join(root, target)
        os.makedirs(folder, exist_ok=True)
        for name, data in seeds.items():
            with open(os.path.join(folder, name), 'wb') as f:
                f.write(data)
    return 0


if __name__ == '__main__':
    sys.exit(main())
