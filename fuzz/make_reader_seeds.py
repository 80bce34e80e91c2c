#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the seed corpora of the reader targets from the replay tool's test
fixtures, the start of the bundled recording and a few hand-made files:

  fuzz/corpus/recording/         units byte, peek-count byte, CSV text
  fuzz/corpus/recording_gz/      units byte, mode byte, parameter byte, then
                                 (mode 0) a gzip file or (modes 1-4) CSV text
                                 that the target compresses itself
  fuzz/corpus/calibration_file/  calibration-file text

The units byte: bit 0 accelerometer in m/s2 (else g), bit 1 field in uT
(else gauss). Run from anywhere; rewrites only these three folders."""
import glob
import gzip
import os
import shutil

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), '..')
CORPUS = os.path.join(ROOT, 'fuzz', 'corpus')

G, MS2, UT = 0, 1, 2

HAND_MADE_RECORDINGS = {
    # Reference columns with the gaps motion capture leaves.
    'reference_gaps': (G, 't,ax,ay,az,mx,my,mz,gx,gy,gz,qw,qx,qy,qz\n'
                          '0,-0.024,-0.036,1.011,0.0021,0.1577,-0.3838,-0.0008,-0.0025,0.0058,0.9997,-0.0196,0.0121,-0.0013\n'
                          '0.02,-0.024,-0.038,1.009,0.0138,0.1396,-0.3845,-0.0014,-0.0011,0.0078,nan,nan,nan,nan\n'
                          '0.04,-0.024,-0.039,1.004,0.0086,0.1341,-0.3952,-0.0009,-0.0007,0.0076,,,,\n'),
    'bom_quoted_upper_case': (G, '\ufeff"T","AX","Ay","aZ","MX","MY","MZ"\r\n'
                                 '0,0,0,1,0.1,0.2,-0.3\r\n0.02,0,0,1,0.1,0.21,-0.3\r\n'),
    'si_units': (MS2 | UT, '# m/s2 and uT\nt,ax,ay,az,mx,my,mz\n'
                           '0,0.1,0.2,9.81,12,-25,40\n0.02,0.1,0.2,9.80,12.5,-25,40\n'),
    'float_overflow': (G, 't,ax,ay,az,mx,my,mz\n0,0,0,1,1e39,0,0\n0.02,0,0,1,0.1,3.5e38,0\n'),
    'extra_columns_comments': (G, '# a comment\nlabel,t,ax,ay,az,mx,my,mz,temp\n\n'
                                  'a,0,0,0,1,0.1,0.2,-0.3,25\n# between\nb,0.02,0,0,1,0.1,0.2,-0.3,25\n'),
    'duplicate_and_partial_columns': (G, 't,ax,ay,az,mx,my,mz,mx,gx,qw\n0,0,0,1,0.1,0.2,-0.3,0,0,1\n'),
}

HAND_MADE_CALIBRATION_FILES = {
    'full': '# QueltaAlgo stored calibration: offset and radius in gauss\n'
            'offset 0.12 -0.25 0.08\nradius 0.5\naxis 1 0 0 0 1 0 0 0 1\n'
            'pool 6 16 32 0.1 0.1 0.85 1.15 1.4\nthresholds 0.1 2e-05 0.0002\nwindows 11 8\n',
    'offset_only': 'offset 0.120040171 -0.250153184 0.0796173289\nradius 0.499420017\n',
    'comments_and_blanks': '\n  # nothing yet\noffset 0 0 0   # none stored\n\nradius 0.5\n',
    'bad_values': 'offset 0.1 0.2\nradius nan\nwindows 11 8.5\npool 1e39 0 0 0 0 0 0 0\n',
    'unknown_key': 'offset 0.1 0.2 0.3\ncolour blue\n',
    'crlf_tabs': 'offset\t0.1\t0.2\t0.3\r\nradius 0.5\r\nwindows -2147483648 2147483647\r\n',
}


def reset(folder):
    path = os.path.join(CORPUS, folder)
    shutil.rmtree(path, ignore_errors=True)
    os.makedirs(path)
    return path


def write(path, name, data):
    with open(os.path.join(path, name), 'wb') as f:
        f.write(data)


def recordings():
    """(name, units, text) of every recording seed."""
    out = []
    for fixture in sorted(glob.glob(os.path.join(ROOT, 'tests', 'replay', 'fixtures', '*.csv'))):
        with open(fixture, encoding='utf-8') as f:
            out.append(('fixture_' + os.path.basename(fixture)[:-4], G, f.read()))
    with open(os.path.join(ROOT, 'data', 'handheld.csv'), encoding='utf-8') as f:
        out.append(('bundled_start', G, ''.join(f.readlines()[:40])))
    for name, (units, text) in HAND_MADE_RECORDINGS.items():
        out.append((name, units, text))
    return out


def main():
    plain = reset('recording')
    compressed = reset('recording_gz')
    for name, units, text in recordings():
        data = text.encode('utf-8')
        write(plain, name, bytes([units, 30]) + data)
        # mtime=0: the same bytes on every run.
        write(compressed, name + '.gz', bytes([units, 0, 0]) + gzip.compress(data, mtime=0))
        write(compressed, name + '.text', bytes([units, 1, 6]) + data)
        write(compressed, name + '.members', bytes([units, 3, 128]) + data)
    calibration = reset('calibration_file')
    for name, text in HAND_MADE_CALIBRATION_FILES.items():
        write(calibration, name, text.encode('utf-8'))


if __name__ == '__main__':
    main()
