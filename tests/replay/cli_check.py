#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Command-line checks of quelta-replay, run by ctest (see tests/replay.cmake).

  cli_check.py run REPLAY WORKDIR RECORDING OFFSET_X,Y,Z [replay options...]
      replays RECORDING with every output, checks the summary against the
      simulator's truth, the output table, the report, the log and the stored
      calibration, then replays again from the stored calibration.
  cli_check.py bad-input REPLAY WORKDIR FILE EXPECTED_MESSAGE_REGEX
      the recording is refused with the message and exit status 1, and no
      output is left behind.
  cli_check.py bundled REPLAY WORKDIR
      the program with no recording replays the bundled one from anywhere.
  cli_check.py usage REPLAY
      unknown options and a second recording are usage errors (status 2).
  cli_check.py report FILE
      the report is well-formed and holds its plots.
  cli_check.py outputs REPLAY WORKDIR RECORDING
      how outputs are written: modes kept, links followed, FIFOs, devices and
      standard output written in place, read-only targets, shared targets and
      the recording refused, every path checked before the replay.
  cli_check.py browser REPLAY WORKDIR RECORDING RENDER_SCRIPT
      the report of RECORDING and of a one-million-row recording made from
      it: at most 2 MB, every named plot present in the DOM headless
      Chromium builds, the rendered image not blank. Skips (77) without
      Chromium.
  cli_check.py interrupted REPLAY WORKDIR RECORDING
      SIGINT, SIGTERM and a closed pipe leave no temporary file behind and
      the old outputs as they were.
  cli_check.py inputs REPLAY WORKDIR RECORDING
      the same recording as a spreadsheet writes it (byte-order mark, quoted
      capitals, CRLF, gaps in the reference), gzip-compressed (with and
      without the .gz name) and on standard input gives the same outputs.
  cli_check.py recordings REPLAY WORKDIR DIR
      every DIR/*.csv.gz replays without a units warning; converted to m/s2
      and microtesla, one board and one phone recording are warned about,
      naming both options. Skips (77) without DIR.
  cli_check.py stored REPLAY WORKDIR
      a stored calibration with an impossible radius is reported, not used,
      and replaced by the run's fit.
  cli_check.py android REPLAY WORKDIR RECORDING
      the recording as an Android logger writes it (nanosecond times, m/s2,
      microtesla, its own column names, the field on every other row only):
      without the unit options each one is warned about by name; with them
      (and --columns) both engines give the original's summary, and with the
      gaps the summary says how each engine took the rows without a field.
  cli_check.py version REPLAY HEADER
      --version prints the version macro of HEADER.
  cli_check.py compass REPLAY WORKDIR RECORDING
      --engine compass on the bundled simulated recording: its columns, the
      calibration against the simulator's truth, the heading against the
      reference, the report; --location/--date turn the azimuth by the
      declination; --gyro and the rate it is judged against; --engine algo
      is the fixed pipelines and the compass the default, byte for byte; bad values are usage errors.
"""
import gzip
import shutil
import csv
import html.parser
import os
import re
import shlex
import signal
import stat
import subprocess
import sys
import threading
import time
import xml.etree.ElementTree as ET

SVG = "{http://www.w3.org/2000/svg}"
PLOTS = ["plot-accuracy", "plot-offset", "plot-field-xy", "plot-field-xz", "plot-field-yz",
         "plot-azimuth", "plot-pitch-roll", "plot-vgyro-x", "plot-vgyro-y", "plot-vgyro-z"]


def fail(message):
    print("FAIL: " + message)
    sys.exit(1)


def replay(program, args, cwd):
    # Cross builds run the program through their emulator (qemu-user).
    emulator = shlex.split(os.environ.get("QUELTA_EMULATOR", ""))
    result = subprocess.run(emulator + [program] + args, cwd=cwd, capture_output=True, text=True, timeout=300)
    return result.returncode, result.stdout, result.stderr


def summary_value(summary, key):
    for line in summary.splitlines():
        if line.startswith(key):
            return line[len(key):].strip()
    fail("summary has no '%s' line:\n%s" % (key, summary))


def check_report(path, with_reference=True):
    text = open(path, encoding="utf-8").read()
    # The HTML parser must accept it, and it is well-formed XML as well.
    html.parser.HTMLParser().feed(text)
    try:
        root = ET.fromstring(text.split("\n", 1)[1])  # without the doctype line
    except ET.ParseError as error:
        fail("report is not well-formed: %s" % error)
    if root.tag != "html":
        fail("report root is %s" % root.tag)
    if list(root.iter("script")):
        fail("report contains a script")
    if re.search(r'(src|href)\s*=\s*"(https?:)?//', text):
        fail("report refers to something outside itself")
    svgs = {svg.get("id"): svg for svg in root.iter(SVG + "svg")}
    expected = PLOTS + (["plot-attitude-error"] if with_reference else [])
    for plot in expected:
        if plot not in svgs:
            fail("report lacks plot %s (has %s)" % (plot, sorted(svgs)))
        drawn = [p.get("d", "") for p in svgs[plot].iter(SVG + "path") if p.get("class") in ("line", "points", "band")]
        if not any(len(d) > 100 for d in drawn):
            fail("plot %s draws no data" % plot)
    for plot in ["plot-field-xy", "plot-field-xz", "plot-field-yz"]:
        if not [e for e in svgs[plot].iter(SVG + "ellipse") if e.get("class") == "fit"]:
            fail("plot %s lacks the fitted circle" % plot)


def check_run(program, workdir, recording, truth, options):
    os.makedirs(workdir, exist_ok=True)
    truth = [float(v) for v in truth.split(",")]
    out, report, log, calibration = (os.path.join(workdir, name) for name in
                                     ("out.csv", "report.html", "library.log", "stored.cal"))
    for path in (out, report, log, calibration):
        if os.path.exists(path):
            os.remove(path)
    status, summary, errors = replay(program, [recording, "--out", out, "--report", report, "--log", log,
                                               "--calibration", calibration] + options, workdir)
    if status != 0:
        fail("replay exited with %d: %s" % (status, errors))
    print(summary)

    offset = [float(v) for v in summary_value(summary, "offset").split()[:3]]
    if max(abs(a - b) for a, b in zip(offset, truth)) > 0.003:
        fail("offset %s is not within 3 milligauss of the truth %s" % (offset, truth))
    radius = float(summary_value(summary, "radius").split()[0])
    if abs(radius - 0.5) > 0.01:
        fail("radius %g is not the field strength 0.5" % radius)
    if not re.search(r"\b3 at [0-9.]+ s", summary_value(summary, "accuracy reached")):
        fail("accuracy 3 was not reached")
    for key in ("virtual gyro", "rotation vector", "azimuth", "field geometry"):
        summary_value(summary, key)

    rows = list(csv.DictReader(open(out)))
    samples = int(summary_value(summary, "samples").split()[0])
    if len(rows) != samples or rows[-1]["accuracy"] != "3":
        fail("output table has %d rows (want %d) ending at accuracy %s" % (len(rows), samples, rows[-1]["accuracy"]))
    check_report(report)
    log_text = open(log).read()
    if "calimag" not in log_text:
        fail("the library's log lines are missing from %s" % log)
    check_log_prefixes(log_text, samples)
    stored = dict((line.split()[0], line.split()[1:]) for line in open(calibration) if not line.startswith("#"))
    if max(abs(float(a) - b) for a, b in zip(stored["offset"], truth)) > 0.003:
        fail("stored offset %s is not the fitted one" % stored["offset"])
    leftovers = [name for name in os.listdir(workdir) if ".tmp-" in name]
    if leftovers:
        fail("temporary files left behind: %s" % leftovers)

    # A second run starts from the stored calibration: accuracy 3 from the first sample.
    status, summary, errors = replay(program, [recording, "--calibration", calibration] + options, workdir)
    if status != 0:
        fail("second replay exited with %d: %s" % (status, errors))
    first = float(open(out).readlines()[1].split(",")[0])
    if not re.search(r"\b3 at %.2f s" % first, summary_value(summary, "accuracy reached")):
        fail("the stored calibration was not adopted:\n" + summary)


def check_bad_input(program, workdir, recording, pattern):
    os.makedirs(workdir, exist_ok=True)
    out, report = os.path.join(workdir, "bad.csv"), os.path.join(workdir, "bad.html")
    status, summary, errors = replay(program, [recording, "--out", out, "--report", report], workdir)
    if status != 1:
        fail("exit status %d, want 1 (stderr: %s)" % (status, errors))
    if not re.search(pattern, errors):
        fail("message %r does not match %r" % (errors, pattern))
    if summary:
        fail("printed a summary for bad input: %s" % summary)
    if os.path.exists(out) or os.path.exists(report) or [n for n in os.listdir(workdir) if ".tmp-" in n]:
        fail("output left behind after bad input")
    print(errors.strip())


def check_bundled(program, workdir):
    os.makedirs(workdir, exist_ok=True)
    status, summary, errors = replay(program, [], workdir)
    if status != 0:
        fail("replay of the bundled recording exited with %d: %s" % (status, errors))
    if "handheld.csv" not in summary_value(summary, "recording"):
        fail("not the bundled recording:\n" + summary)
    print(summary)


def check_log_prefixes(text, samples):
    """Every line names the sample it belongs to; the samples run in order."""
    last = -1
    for number, line in enumerate(text.splitlines(), 1):
        match = re.match(r"\[(setup|#(\d+) t=(-?\d+\.\d{3}))\] ", line)
        if not match:
            fail("log line %d has no sample prefix: %r" % (number, line))
        if match.group(2) is not None:
            index = int(match.group(2))
            if index < last or index >= samples:
                fail("log line %d: sample %d after %d (of %d)" % (number, index, last, samples))
            last = index
        elif last >= 0:
            fail("log line %d: a set-up line after the samples" % number)
    if last != samples - 1:
        fail("the log ends at sample %d of %d" % (last, samples))


def summary_without_name(summary):
    return "\n".join(line for line in summary.splitlines() if not line.startswith("recording"))


def spreadsheet_version(text):
    """The recording as a spreadsheet exports it: byte-order mark, quoted
    capital headers, CRLF, and every seventh reference attitude missing."""
    lines = text.splitlines()
    out = []
    header = None
    for line in lines:
        if line.startswith("#") or not line.strip():
            out.append(line)
            continue
        fields = line.split(",")
        if header is None:
            header = fields
            out.append(",".join('"%s"' % f.strip().upper() for f in fields))
            continue
        if len(out) % 7 == 3 and "qw" in header:
            for name in ("qw", "qx", "qy", "qz"):
                fields[header.index(name)] = "nan" if len(out) % 2 else ""
        out.append(",".join(fields))
    return "\ufeff" + "\r\n".join(out) + "\r\n"


def check_inputs(program, workdir, recording):
    os.makedirs(workdir, exist_ok=True)
    original = open(recording, encoding="utf-8").read()
    variants = {"spreadsheet.csv": spreadsheet_version(original).encode("utf-8")}
    variants["packed.csv.gz"] = gzip.compress(original.encode("utf-8"))
    variants["packed_without_suffix.csv"] = variants["packed.csv.gz"]
    for name, data in variants.items():
        with open(os.path.join(workdir, name), "wb") as handle:
            handle.write(data)

    reference_out = os.path.join(workdir, "reference.csv")
    status, reference_summary, errors = replay(program, [recording, "--out=" + reference_out], workdir)
    if status != 0:
        fail("replay of %s exited with %d: %s" % (recording, status, errors))
    reference_rows = open(reference_out).read()
    for name in variants:
        out = os.path.join(workdir, name + ".out.csv")
        status, summary, errors = replay(program, [name, "--out=" + out], workdir)
        if status != 0:
            fail("replay of %s exited with %d: %s" % (name, status, errors))
        # The reference columns do not reach the library: its outputs are the same.
        if open(out).read() != reference_rows:
            fail("%s gives other outputs than %s" % (name, recording))
        if name != "spreadsheet.csv" and summary_without_name(summary) != summary_without_name(reference_summary):
            fail("%s gives another summary:\n%s\nwant:\n%s" % (name, summary, reference_summary))

    # Standard input, plain and compressed.
    emulator = shlex.split(os.environ.get("QUELTA_EMULATOR", ""))
    for name in (recording, os.path.join(workdir, "packed.csv.gz")):
        with open(name, "rb") as handle:
            result = subprocess.run(emulator + [program, "-"], stdin=handle, cwd=workdir, capture_output=True,
                                    text=True, timeout=300)
        if result.returncode != 0:
            fail("replay of standard input exited with %d: %s" % (result.returncode, result.stderr))
        if summary_value(result.stdout, "recording") != "standard input":
            fail("standard input is not named as such:\n" + result.stdout)
        if summary_without_name(result.stdout) != summary_without_name(reference_summary):
            fail("standard input gives another summary:\n" + result.stdout)


def si_version(text):
    """The recording in m/s2 and microtesla."""
    lines = text.splitlines()
    out = []
    header = None
    for line in lines:
        if line.startswith("#") or not line.strip():
            continue
        fields = line.split(",")
        if header is None:
            header = fields
        else:
            for name, scale in (("ax", 9.80665), ("ay", 9.80665), ("az", 9.80665),
                                ("mx", 100.0), ("my", 100.0), ("mz", 100.0)):
                k = header.index(name)
                fields[k] = repr(float(fields[k]) * scale)
        out.append(",".join(fields))
    return "\n".join(out) + "\n"


ANDROID_NAMES = {"t": "timestamp_ns", "ax": "acc_x", "ay": "acc_y", "az": "acc_z", "mx": "mag_x", "my": "mag_y",
                 "mz": "mag_z", "gx": "gyro_x", "gy": "gyro_y", "gz": "gyro_z"}


def android_version(text, renamed, field_every):
    """The recording as an Android logger writes it: whole nanoseconds (exact:
    the decimal point moves), m/s2, microtesla; with renamed, its own column
    names; the field only on every field_every-th row, empty cells between."""
    from decimal import Decimal
    out = []
    header = None
    for line in text.splitlines():
        if line.startswith("#") or not line.strip():
            continue
        fields = line.split(",")
        if header is None:
            header = fields
            out.append(",".join(ANDROID_NAMES.get(f, f) if renamed else f for f in fields))
            continue
        row = len(out) - 1
        for k, name in enumerate(header):
            if name == "t":
                fields[k] = str((Decimal(fields[k]) * 10 ** 9).to_integral_exact())
            elif name in ("ax", "ay", "az"):
                fields[k] = repr(float(fields[k]) * 9.80665)
            elif name in ("mx", "my", "mz"):
                fields[k] = str(Decimal(fields[k]) * 100) if row % field_every == 0 else ""
        out.append(",".join(fields))
    return "\n".join(out) + "\n"


def check_android(program, workdir, recording):
    os.makedirs(workdir, exist_ok=True)
    original = open(recording, encoding="utf-8").read()
    for name, renamed, every in (("units.csv", False, 1), ("android.csv", True, 1), ("gaps.csv", True, 2)):
        with open(os.path.join(workdir, name), "w") as handle:
            handle.write(android_version(original, renamed, every))
    units = ["--time-unit", "ns", "--acc-unit", "m/s2", "--mag-unit", "uT"]
    columns = "--columns=" + ",".join("%s=%s" % pair for pair in ANDROID_NAMES.items())

    # Fed as they come: each unit is warned about, naming its option.
    status, summary, errors = replay(program, ["units.csv"], workdir)
    if status != 0:
        fail("units.csv exited with %d: %s" % (status, errors))
    for option in ("--time-unit ns", "--acc-unit m/s2", "--mag-unit uT"):
        if option not in errors:
            fail("no warning naming %s:\n%s" % (option, errors))
    # Other column names are refused until --columns names them.
    status, summary, errors = replay(program, ["android.csv"] + units, workdir)
    if status != 1 or "missing required column 't'" not in errors:
        fail("android.csv without --columns: status %d, %r" % (status, errors))

    for engine in ("algo", "compass"):
        status, want, errors = replay(program, [recording, "--engine", engine], workdir)
        if status != 0:
            fail("%s exited with %d: %s" % (recording, status, errors))
        for name, extra in (("units.csv", []), ("android.csv", [columns])):
            status, summary, errors = replay(program, [name, "--engine", engine] + units + extra, workdir)
            if status != 0 or errors:
                fail("%s %s: status %d, %r" % (name, engine, status, errors))
            if summary_without_name(summary) != summary_without_name(want):
                fail("%s --engine %s gives another summary:\n%s\nwant:\n%s" % (name, engine, summary, want))

        # Half the rows without a field: both engines still calibrate and
        # say how they took those rows.
        status, summary, errors = replay(program, ["gaps.csv", "--engine", engine] + units + [columns], workdir)
        if status != 0 or errors:
            fail("gaps.csv %s: status %d, %r" % (engine, status, errors))
        taken = "given to the compass as no reading" if engine == "compass" else "previous row's field"
        gaps = summary_value(summary, "field readings")
        if not gaps.startswith("none on 1500 of 3000 rows") or taken not in gaps:
            fail("gaps.csv %s: field readings line %r" % (engine, gaps))
        if summary_value(summary, "accuracy reached").split("(final ")[1] != "3)":
            fail("gaps.csv %s did not calibrate:\n%s" % (engine, summary))
        heading = summary_figure(summary, "azimuth", r"median ([0-9.]+) deg")
        if heading > 3.0:
            fail("gaps.csv %s: median azimuth error %.2f deg\n%s" % (engine, heading, summary))


def check_recordings(program, workdir, directory):
    names = sorted(n for n in os.listdir(directory) if n.endswith(".csv.gz")) if os.path.isdir(directory) else []
    if not names:
        print("no recordings in %r: skipped" % directory)
        sys.exit(77)
    os.makedirs(workdir, exist_ok=True)

    def first_of(prefix):
        return next((n for n in names if n.startswith(prefix)), None)

    for name in names:
        path = os.path.join(directory, name)
        status, summary, errors = replay(program, [path], workdir)
        if status != 0:
            fail("%s: exit status %d: %s" % (name, status, errors))
        if "warning" in errors:
            fail("%s: unexpected warning: %s" % (name, errors))
        rows = sum(1 for line in gzip.open(path, "rt") if line.strip() and not line.startswith("#")) - 1
        if int(summary_value(summary, "samples").split()[0]) != rows:
            fail("%s: summary %r, want %d samples" % (name, summary_value(summary, "samples"), rows))
        print("%s: %s" % (name, summary_value(summary, "samples")))

        # End to end on one recording of each device (the unit tests check
        # every recording's converted samples).
        if name not in (first_of("broad_"), first_of("n5_")):
            continue
        # The compass engine, fed the gyroscope, on the same real recordings.
        status, summary, errors = replay(program, [path, "--engine=compass", "--gyro"], workdir)
        if status != 0 or "warning" in errors:
            fail("%s with the compass: status %d, %r" % (name, status, errors))
        if ("gyroscope fed" not in summary_value(summary, "engine") or
                "rate from the reference attitude" not in summary_value(summary, "angular rate")):
            fail("%s with the compass: summary\n%s" % (name, summary))
        si = os.path.join(workdir, name[:-len(".gz")])
        with open(si, "w") as handle:
            handle.write(si_version(gzip.open(path, "rt").read()))
        status, summary, errors = replay(program, [si], workdir)
        if status != 0 or "--acc-unit m/s2" not in errors or "--mag-unit uT" not in errors:
            fail("%s in m/s2 and uT: status %d, no warning naming both options: %r" % (name, status, errors))
        if not errors.startswith("quelta-replay: warning: ") or "warning" in summary:
            fail("%s: the warnings do not come first on standard error: %r" % (name, errors))
        status, summary, errors = replay(program, [si, "--acc-unit=m/s2", "--mag-unit=uT"], workdir)
        if status != 0 or "warning" in errors:
            fail("%s with its units declared: status %d, %r" % (name, status, errors))
        os.remove(si)


def check_stored(program, workdir):
    os.makedirs(workdir, exist_ok=True)
    calibration = os.path.join(workdir, "wrong.cal")
    with open(calibration, "w") as handle:
        handle.write("offset 0.12 -0.25 0.08\nradius 50\n")
    status, summary, errors = replay(program, ["--engine=algo", "--calibration=" + calibration], workdir)
    if status != 0:
        fail("replay exited with %d: %s" % (status, errors))
    if not re.search(r"warning: stored radius 50 gauss is outside the band the library accepts \(0\.2 to 0\.8 "
                     r"gauss\); not used", errors):
        fail("the impossible stored radius was not reported: %r" % errors)
    if "stored calibration not used: stored radius 50 gauss" not in summary:
        fail("the summary does not say the stored calibration was not used:\n" + summary)
    # Had it been adopted, accuracy 3 would hold from the first sample.
    if re.search(r"\b3 at 0\.00 s", summary_value(summary, "accuracy reached")):
        fail("the stored calibration was adopted:\n" + summary)
    stored = dict((line.split()[0], line.split()[1:]) for line in open(calibration) if not line.startswith("#"))
    if not 0.45 < float(stored["radius"][0]) < 0.55:
        fail("the file was not replaced by the run's fit: %s" % stored)


def check_version(program, header):
    version = re.search(r'#define QUELTA_ALGO_VERSION_STRING "([^"]+)"', open(header).read()).group(1)
    status, out, errors = replay(program, ["--version"], ".")
    if status != 0 or out != "quelta-replay %s\n" % version or errors:
        fail("--version: status %d, %r, want version %s" % (status, out, version))
    status, out, errors = replay(program, ["--version=2"], ".")
    if status != 2 or "takes no value" not in errors:
        fail("--version=2: status %d, %r" % (status, errors))


def check_usage(program):
    for args, pattern in ((["--no-such-option"], "unknown option --no-such-option"),
                          (["--no-such-option=1"], "unknown option --no-such-option"),
                          (["-x"], "unknown option -x"),
                          (["--out="], "option --out needs a value"),
                          (["--axis=1,0,0"], "bad value '1,0,0' for --axis"),
                          (["a.csv", "b.csv"], "more than one recording"),
                          (["--acc-unit", "furlong"], "bad value 'furlong' for --acc-unit"),
                          (["--axis", "1,0,0"], "bad value '1,0,0' for --axis"),
                          (["--out"], "option --out needs a value")):
        status, summary, errors = replay(program, args, ".")
        if status != 2 or not re.search(pattern, errors) or summary:
            fail("%s: status %d, message %r" % (args, status, errors))
    status, summary, errors = replay(program, ["--help"], ".")
    if status != 0 or "usage: quelta-replay" not in summary:
        fail("--help: status %d" % status)


def temporaries(workdir):
    return [name for name in os.listdir(workdir) if ".tmp-" in name]


def refused(program, args, cwd, pattern, untouched=()):
    """The run fails with status 1 and the message, before writing anything."""
    before = {path: open(path, "rb").read() for path in untouched if os.path.isfile(path)}
    status, summary, errors = replay(program, args, cwd)
    if status != 1 or not re.search(pattern, errors) or summary:
        fail("%s: status %d, stdout %r, stderr %r (want %r)" % (args, status, summary[:200], errors, pattern))
    for path, content in before.items():
        if open(path, "rb").read() != content:
            fail("%s was changed by a refused run" % path)
    if temporaries(cwd):
        fail("temporaries left by a refused run: %s" % temporaries(cwd))
    print("refused as expected: %s" % errors.strip())


def check_outputs(program, workdir, recording):
    os.makedirs(workdir, exist_ok=True)
    for name in os.listdir(workdir):
        path = os.path.join(workdir, name)
        if os.path.isdir(path) and not os.path.islink(path):
            os.chmod(path, 0o755)
            for inner in os.listdir(path):
                os.remove(os.path.join(path, inner))
            os.rmdir(path)
        else:
            os.remove(path)
    w = lambda name: os.path.join(workdir, name)

    # A regular file keeps its mode; a link stays a link and its target is written.
    with open(w("kept.csv"), "w") as f:
        f.write("old\n")
    os.chmod(w("kept.csv"), 0o640)
    with open(w("linked.html"), "w") as f:
        f.write("old\n")
    os.symlink("linked.html", w("link.html"))
    status, summary, errors = replay(program, [recording, "--out", "kept.csv", "--report", "link.html"], workdir)
    if status != 0:
        fail("run with a kept mode and a link: %d %s" % (status, errors))
    if stat.S_IMODE(os.stat(w("kept.csv")).st_mode) != 0o640 or not open(w("kept.csv")).read().startswith("t,"):
        fail("kept.csv lost its mode 0640 or was not written")
    if not os.path.islink(w("link.html")) or "<svg" not in open(w("linked.html")).read():
        fail("the link was replaced, or its target not written")
    if not summary.startswith("recording"):
        fail("summary not on standard output: %r" % summary[:200])

    # Standard output: "-" and /dev/stdout both stream the table there, and
    # the summary moves to standard error.
    for name in ("-", "/dev/stdout"):
        status, out, errors = replay(program, [recording, "--out", name], workdir)
        if status != 0 or not out.startswith("t,accuracy") or "recording" not in errors or "recording " in out:
            fail("--out %s: status %d, stdout starts %r, stderr %r" % (name, status, out[:40], errors[:200]))
        rows = out.count("\n")
        if rows < 1000:
            fail("--out %s: only %d lines on standard output" % (name, rows))
    if not stat.S_ISCHR(os.stat("/dev/null").st_mode):
        fail("/dev/null is not a device")
    status, out, errors = replay(program, [recording, "--engine=algo", "--report", "/dev/null", "--log", "/dev/null"],
                                 workdir)
    if status == 0:
        fail("two outputs on /dev/null were accepted")
    status, out, errors = replay(program, [recording, "--report", "/dev/null"], workdir)
    if status != 0 or not stat.S_ISCHR(os.stat("/dev/null").st_mode):
        fail("--report /dev/null: status %d, %s" % (status, errors))

    # A full device: the write fails with its reason, and the device stays.
    status, out, errors = replay(program, [recording, "--report", "/dev/full"], workdir)
    if status != 1 or "--report /dev/full: write failed: No space left on device" not in errors:
        fail("--report /dev/full: status %d, %r" % (status, errors))
    if not stat.S_ISCHR(os.stat("/dev/full").st_mode):
        fail("/dev/full was replaced")

    # A FIFO is written in place: its reader gets the table, the FIFO stays.
    os.mkfifo(w("pipe.csv"))
    received = []
    reader = threading.Thread(target=lambda: received.append(open(w("pipe.csv")).read()))
    reader.start()
    status, out, errors = replay(program, [recording, "--out", "pipe.csv"], workdir)
    reader.join(timeout=60)
    if status != 0 or not received or not received[0].startswith("t,accuracy"):
        fail("--out FIFO: status %d, %s" % (status, errors))
    if not stat.S_ISFIFO(os.stat(w("pipe.csv")).st_mode):
        fail("the FIFO was replaced")

    # Refused, before anything is written (also for root: judged by the mode bits).
    with open(w("readonly.csv"), "w") as f:
        f.write("keep me\n")
    os.chmod(w("readonly.csv"), 0o444)
    refused(program, [recording, "--out", "readonly.csv"], workdir, r"--out readonly.csv: is read-only \(mode 0444\)",
            [w("readonly.csv")])
    os.mkdir(w("adir"))
    refused(program, [recording, "--report", "fresh.html", "--out", "adir"], workdir, r"--out adir: is a directory")
    if os.path.exists(w("fresh.html")):
        fail("an output was written although another one was refused")
    refused(program, [recording, "--out", "missing/out.csv"], workdir, r"--out missing/out.csv: directory missing: ")
    refused(program, [recording, "--out", "kept.csv", "--report", "kept.csv"], workdir,
            r"--report kept.csv: the same file as --out kept.csv", [w("kept.csv")])
    os.symlink("kept.csv", w("alias.csv"))
    refused(program, [recording, "--engine=algo", "--out", "kept.csv", "--log", "alias.csv"], workdir,
            r"--log alias.csv: the same file as --out kept.csv", [w("kept.csv")])
    refused(program, [recording, "--engine=algo", "--out", "new.csv", "--log", "./new.csv"], workdir,
            r"--log ./new.csv: the same file as --out new.csv")
    refused(program, [recording, "--out", "-", "--report", "/dev/stdout"], workdir,
            r"--report /dev/stdout: the same file as --out -")
    with open(w("input.csv"), "w") as f:
        f.write(open(recording).read())
    refused(program, ["input.csv", "--out", "input.csv"], workdir, r"--out input.csv: is the recording being replayed",
            [w("input.csv")])
    if os.geteuid() != 0:
        os.chmod(w("adir"), 0o555)
        refused(program, [recording, "--out", "adir/out.csv"], workdir, r"--out adir/out.csv: cannot create a file in adir")
        os.chmod(w("adir"), 0o755)


def long_recording(source, path, rows):
    """The source's rows repeated with time carried on."""
    lines = [line for line in open(source) if line.strip() and not line.startswith("#")]
    header, data = lines[0], lines[1:]
    times = [float(line.split(",", 1)[0]) for line in data]
    span = times[-1] - times[0] + (times[-1] - times[0]) / (len(times) - 1)
    with open(path, "w") as out:
        out.write(header)
        for i in range(rows):
            k = i % len(data)
            out.write("%.6f,%s" % (times[k] + (i // len(data)) * span, data[k].split(",", 1)[1]))


def check_interrupted(program, workdir, recording):
    os.makedirs(workdir, exist_ok=True)
    for name in os.listdir(workdir):
        os.remove(os.path.join(workdir, name))
    w = lambda name: os.path.join(workdir, name)
    long_recording(recording, w("long.csv"), 200000)
    emulator = shlex.split(os.environ.get("QUELTA_EMULATOR", ""))
    for name, number in (("SIGINT", signal.SIGINT), ("SIGTERM", signal.SIGTERM)):
        with open(w("out.csv"), "w") as f:
            f.write("old\n")
        process = subprocess.Popen(emulator + [program, "long.csv", "--out", "out.csv", "--report", "report.html",
                                               "--engine=algo", "--log", "lib.log"], cwd=workdir,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        deadline = time.time() + 120
        while len(temporaries(workdir)) < 2 and process.poll() is None and time.time() < deadline:
            time.sleep(0.01)
        if process.poll() is not None:
            fail("%s: the replay ended before it could be interrupted" % name)
        time.sleep(0.2)
        process.send_signal(number)
        status = process.wait(timeout=120)
        if status != -number:
            fail("%s: exit status %d, want death by the signal" % (name, status))
        if temporaries(workdir):
            fail("%s left temporaries: %s" % (name, temporaries(workdir)))
        if open(w("out.csv")).read() != "old\n" or os.path.exists(w("report.html")):
            fail("%s: the old output was changed or a new one appeared" % name)
        print("%s: no temporary left, old output kept" % name)

    # A closed pipe: the table goes to a reader that stops after one line,
    # while the log is being written to its temporary.
    process = subprocess.Popen(emulator + [program, "long.csv", "--out", "-", "--report", "report.html",
                                           "--engine=algo", "--log", "lib.log"], cwd=workdir,
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    process.stdout.readline()
    while not temporaries(workdir) and process.poll() is None:
        time.sleep(0.01)
    process.stdout.close()
    status = process.wait(timeout=120)
    if status != -signal.SIGPIPE:
        fail("closed pipe: exit status %d, want death by SIGPIPE" % status)
    if temporaries(workdir) or os.path.exists(w("report.html")) or os.path.exists(w("lib.log")):
        fail("closed pipe left %s" % os.listdir(workdir))
    print("closed pipe: no temporary left")


def png_pixels(path):
    """Width, height and RGB rows of an 8-bit RGB or RGBA PNG."""
    import struct
    import zlib
    data = open(path, "rb").read()
    if data[:8] != b"\x89PNG\r\n\x1a\n":
        fail("%s is not a PNG" % path)
    pos, idat, width, height, colour = 8, b"", 0, 0, 0
    while pos < len(data):
        length, kind = struct.unpack(">I4s", data[pos:pos + 8])
        chunk = data[pos + 8:pos + 8 + length]
        if kind == b"IHDR":
            width, height, depth, colour = struct.unpack(">IIBB", chunk[:10])
            if depth != 8 or colour not in (2, 6):
                fail("unexpected PNG format: depth %d colour type %d" % (depth, colour))
        elif kind == b"IDAT":
            idat += chunk
        pos += 12 + length
    raw = zlib.decompress(idat)
    step = 3 if colour == 2 else 4
    stride = width * step
    rows, previous = [], bytearray(stride)
    for y in range(height):
        line = raw[y * (stride + 1):(y + 1) * (stride + 1)]
        kind, row = line[0], bytearray(line[1:])
        for i in range(stride):
            a = row[i - step] if i >= step else 0
            b = previous[i]
            c = previous[i - step] if i >= step else 0
            if kind == 1:
                row[i] = (row[i] + a) & 255
            elif kind == 2:
                row[i] = (row[i] + b) & 255
            elif kind == 3:
                row[i] = (row[i] + (a + b) // 2) & 255
            elif kind == 4:
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                row[i] = (row[i] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
        rows.append(bytes(row))
        previous = row
    return width, height, step, rows


def check_browser(program, workdir, recording, render):
    browser = shutil.which("chromium") or shutil.which("chromium-browser")
    if not browser:
        print("SKIP: chromium not found (Debian package chromium)")
        sys.exit(77)
    os.makedirs(workdir, exist_ok=True)
    w = lambda name: os.path.join(workdir, name)
    import tempfile
    profiles = lambda: {n for n in os.listdir(tempfile.gettempdir()) if n.startswith("quelta-render-profile")}
    profiles_before = profiles()
    long_recording(recording, w("million.csv"), 1000000)
    for name, source in (("bundled", recording), ("million", w("million.csv"))):
        report = w(name + ".html")
        started = time.time()
        status, summary, errors = replay(program, [source, "--out", w(name + "_out.csv"), "--report", report], workdir)
        if status != 0:
            fail("%s: replay exited with %d: %s" % (name, status, errors))
        print("%s: replayed in %.1f s" % (name, time.time() - started))
        size = os.path.getsize(report)
        if size > 2 * 1024 * 1024:
            fail("%s: report is %d bytes, more than 2 MB" % (name, size))
        check_report(report)

        # The DOM as Chromium builds it holds every plot.
        started = time.time()
        result = subprocess.run([render, "--dump-dom", report], capture_output=True, text=True, timeout=300)
        if result.returncode != 0:
            fail("%s: render script failed: %s" % (name, result.stderr))
        missing = [plot for plot in PLOTS + ["plot-attitude-error"] if 'id="%s"' % plot not in result.stdout]
        if missing:
            fail("%s: Chromium's DOM lacks %s" % (name, missing))
        # The screenshot is not blank: plenty of pixels differ from the page's background.
        image = w(name + ".png")
        result = subprocess.run([render, report, image, "1400,3600"], capture_output=True, text=True, timeout=300,
                                env=dict(os.environ, QUELTA_RENDER_SCALE="0.5"))
        seconds = time.time() - started
        if result.returncode != 0 or not os.path.exists(image):
            fail("%s: screenshot failed: %s" % (name, result.stderr))
        width, height, step, rows = png_pixels(image)
        background = rows[0][:3]
        inked = sum(1 for row in rows[::4] for x in range(0, width * step, 4 * step) if row[x:x + 3] != background)
        colours = len({row[x:x + 3] for row in rows[::4] for x in range(0, width * step, 4 * step)})
        sampled = len(rows[::4]) * len(range(0, width * step, 4 * step))
        if inked < sampled * 0.05 or colours < 8:
            fail("%s: rendered image looks blank (%d of %d sampled pixels inked, %d colours)" % (name, inked, sampled, colours))
        print("%s: %d bytes, rendered twice in %.1f s, %d of %d sampled pixels inked, %d colours" %
              (name, size, seconds, inked, sampled, colours))
        # Seconds, not minutes (a report drawing every sample took over 300 s).
        if seconds > 120:
            fail("%s: rendering took %.0f s" % (name, seconds))
    leftovers = [n for n in os.listdir(workdir) if n.startswith("chromium-profile") or ".tmp-" in n]
    if leftovers:
        fail("left behind: %s" % leftovers)
    if profiles() - profiles_before:
        fail("browser profiles left behind: %s" % sorted(profiles() - profiles_before))
    for name in ("million.csv", "million_out.csv", "bundled_out.csv"):
        os.remove(w(name))  # large; the reports and images stay to be looked at


COMPASS_COLUMNS = ("t,accuracy,new_calibration,offset_x,offset_y,offset_z,radius,cal_mx,cal_my,cal_mz,azimuth,pitch,"
                   "roll,vgyro_x,vgyro_y,vgyro_z,rv_x,rv_y,rv_z,rv_w,gravity_x,gravity_y,gravity_z,linacc_x,linacc_y,"
                   "linacc_z,soft_xx,soft_xy,soft_xz,soft_yx,soft_yy,soft_yz,soft_zx,soft_zy,soft_zz,model,"
                   "disturbance,disturbed,coverage,residual,expected_strength,fitted_strength,reason,"
                   "cal_heading_error,heading_accuracy,output_accuracy,flags").split(",")


def wrap180(angle):
    return (angle + 180.0) % 360.0 - 180.0


def summary_figure(summary, key, pattern):
    match = re.search(pattern, summary_value(summary, key))
    if not match:
        fail("summary line '%s' does not match %r:\n%s" % (key, pattern, summary))
    return float(match.group(1))


def check_compass(program, workdir, recording):
    os.makedirs(workdir, exist_ok=True)
    out, report = os.path.join(workdir, "compass.csv"), os.path.join(workdir, "compass.html")
    truth_offset = [0.12, -0.25, 0.08]  # data/handheld.csv: the simulator's hard iron; field 0.5 gauss

    def run(args, name):
        status, summary, errors = replay(program, [recording, "--engine", "compass"] + args, workdir)
        if status != 0:
            fail("%s: exit status %d: %s" % (name, status, errors))
        return summary

    # Magnetic north, no gyroscope.
    summary = run(["--out", out, "--report", report], "compass")
    print(summary)
    table = open(out).read()
    header = table.split("\n", 1)[0].split(",")
    if header != COMPASS_COLUMNS:
        fail("compass columns %s, want %s" % (header, COMPASS_COLUMNS))
    rows = list(csv.DictReader(table.splitlines()))
    if len(rows) != int(summary_value(summary, "samples").split()[0]):
        fail("%d rows for %s" % (len(rows), summary_value(summary, "samples")))
    if not re.search(r"\b3 at [0-9.]+ s", summary_value(summary, "accuracy reached")) or rows[-1]["accuracy"] != "3":
        fail("the compass did not calibrate:\n" + summary)
    last = rows[-1]
    offset = [float(last["offset_" + a]) for a in "xyz"]
    if max(abs(a - b) for a, b in zip(offset, truth_offset)) > 0.015:
        fail("final offset %s not within 15 milligauss of the truth %s" % (offset, truth_offset))
    if abs(float(last["radius"]) - 0.5) > 0.015 or abs(float(last["fitted_strength"]) - 0.5) > 0.015:
        fail("fitted strength %s, want 0.5 gauss" % last["radius"])
    soft = [float(last["soft_" + a + b]) for a in "xyz" for b in "xyz"]
    if max(abs(v - (1.0 if i % 4 == 0 else 0.0)) for i, v in enumerate(soft)) > 0.03:
        fail("soft-iron matrix %s is not near identity (the simulator has none)" % soft)
    for row in rows:
        q = [float(row[k]) for k in ("rv_x", "rv_y", "rv_z", "rv_w")]
        if abs(sum(v * v for v in q) - 1.0) > 1e-4 or not 0.0 <= float(row["azimuth"]) <= 360.0:
            fail("row at t=%s: attitude %s, azimuth %s" % (row["t"], q, row["azimuth"]))
    # accuracy is the calibration's; the output's level never claims more.
    if any(int(row["output_accuracy"]) > int(row["accuracy"]) for row in rows):
        fail("output_accuracy above the calibration's accuracy")
    flags = [int(row["flags"]) for row in rows]
    if any(f & 0x10 for f in flags):
        fail("the gyroscope flag is set without --gyro")
    # The simulated hand is undisturbed: the flag is (almost) never raised.
    if sum(int(row["disturbed"]) for row in rows) > len(rows) // 20:
        fail("disturbance flagged on more than 5 %% of an undisturbed recording:\n" + summary)
    for key in ("engine", "soft iron", "quality", "field strength", "disturbance", "heading accuracy", "flags",
                "heading  ", "tilt "):
        summary_value(summary, key)
    if summary_figure(summary, "tilt ", r"RMS error ([0-9.]+) deg") > 5.0:
        fail("tilt RMS above 5 deg on the simulated hand:\n" + summary)
    if "against the reference gyroscope" not in summary_value(summary, "angular rate"):
        fail("without --gyro the rate is judged against the recorded gyroscope:\n" + summary)
    azimuth_rms = summary_figure(summary, "azimuth", r"RMS error ([0-9.]+) deg")
    attitude_rms = summary_figure(summary, "attitude", r"RMS error ([0-9.]+) deg")
    # Without a gyroscope the filter lags the figure-eight's fast turns
    # (about 7 deg RMS over every calibrated sample); a wrong sign or axis
    # would be tens of degrees.
    if azimuth_rms > 10.0 or attitude_rms > 10.0:
        fail("heading against the reference: azimuth RMS %.2f, attitude RMS %.2f deg (want <= 10)" %
             (azimuth_rms, attitude_rms))
    magnetic_alignment = summary_figure(summary, "azimuth", r"heading alignment (-?[0-9.]+) deg")
    global PLOTS
    plots = PLOTS
    PLOTS = plots + ["plot-disturbance", "plot-heading-accuracy", "plot-compass-state", "plot-calibration-quality", "plot-coverage",
                     "plot-soft-iron"]
    try:
        check_report(report)
    finally:
        PLOTS = plots
    # The same run again gives the same table.
    run(["--out", out + ".again"], "compass again")
    if open(out + ".again").read() != table:
        fail("two compass runs of the same recording differ")

    # True north: the field model's declination turns every azimuth.
    summary = run(["--out", out, "--location", "48.1,11.6,520", "--date=2026-06-01"], "compass with location")
    declination = summary_figure(summary, "engine", r"declination (-?[0-9.]+) deg")
    if not 3.0 < declination < 6.0:
        fail("declination %.2f deg at 48.1 N 11.6 E in 2026 is implausible" % declination)
    expected = summary_figure(summary, "field strength", r"expected ([0-9.]+) gauss")
    if not 0.45 < expected < 0.52:
        fail("expected strength %.4f gauss at 48.1 N 11.6 E is implausible" % expected)
    true_rows = list(csv.DictReader(open(out)))
    shifts = sorted(wrap180(float(b["azimuth"]) - float(a["azimuth"]))
                    for a, b in zip(rows, true_rows) if a["accuracy"] == "3" and b["accuracy"] == "3")
    if len(shifts) < len(rows) // 3:
        fail("only %d samples at accuracy 3 in both runs" % len(shifts))
    median = shifts[len(shifts) // 2]
    if abs(median - declination) > 0.3:
        fail("azimuths turned by %.2f deg (median), want the declination %.2f" % (median, declination))
    status, _, errors = replay(program, [recording, "--engine=compass", "--location=48.1,11.6", "--date=2040-01-01"],
                               workdir)
    if status != 0 or "warning: field model: date outside the model's validity" not in errors:
        fail("a date beyond the field model's validity: status %d, no warning: %r" % (status, errors))
    true_alignment = summary_figure(summary, "azimuth", r"heading alignment (-?[0-9.]+) deg")
    if abs(wrap180(magnetic_alignment - true_alignment - declination)) > 0.3:
        fail("heading alignment %.2f on magnetic, %.2f on true north: not the declination %.2f apart" %
             (magnetic_alignment, true_alignment, declination))

    # The gyroscope fed: its flag, and the rate judged against the reference attitude.
    summary = run(["--out", out, "--gyro", "--report", report], "compass with gyroscope")
    if open(report).read().count("rate from the reference attitude") < 3:
        fail("the report's rate plots do not show the rate from the reference attitude with --gyro")
    print(summary)
    if "against the rate from the reference attitude" not in summary_value(summary, "angular rate"):
        fail("with --gyro the rate must be judged against the reference attitude:\n" + summary)
    rate_rms = summary_figure(summary, "angular rate", r"RMS error ([0-9.]+) rad/s")
    if rate_rms > 0.02:
        fail("rate RMS %.4f rad/s against the reference attitude with the simulator's exact gyroscope" % rate_rms)
    gyro_rows = list(csv.DictReader(open(out)))
    if not all(int(row["flags"]) & 0x10 for row in gyro_rows[1:]):
        fail("the gyroscope flag is not set on every row with --gyro")
    if summary_figure(summary, "attitude", r"RMS error ([0-9.]+) deg") > 5.0:
        fail("attitude RMS with the gyroscope above 5 deg:\n" + summary)
    # A recording without gyroscope columns has nothing to feed.
    bare = os.path.join(workdir, "no_gyro.csv")
    with open(bare, "w") as handle:
        for line in open(recording):
            if line.startswith("#"):
                continue
            handle.write(",".join(line.rstrip("\n").split(",")[:7]) + "\n")
    status, summary, errors = replay(program, [bare, "--engine", "compass", "--gyro"], workdir)
    if status != 1 or "--gyro: the recording has no gyroscope columns" not in errors:
        fail("--gyro without gx gy gz: status %d, %r" % (status, errors))

    # The default engine is the compass; --engine algo gives the fixed pipelines.
    outputs = []
    for args in ([], ["--engine", "compass"], ["--engine=compass"]):
        status, summary, errors = replay(program, [recording, "--out", out] + args, workdir)
        if status != 0:
            fail("%s: exit status %d: %s" % (args, status, errors))
        outputs.append((summary, open(out).read()))
    if outputs[1] != outputs[0] or outputs[2] != outputs[0]:
        fail("--engine compass differs from the default")
    if outputs[0][1].split("\n", 1)[0].split(",") != COMPASS_COLUMNS or not re.search(r"^engine ", outputs[0][0], re.M):
        fail("the default run is not the compass's")
    status, summary, errors = replay(program, [recording, "--out", out, "--engine=algo"], workdir)
    if status != 0 or not open(out).read().startswith("t,accuracy,pool,new_calibration,saturation,") or \
            re.search(r"^engine ", summary, re.M):
        fail("--engine algo is not the fixed pipelines' run: %d %s" % (status, errors))

    # Bad values and options of the other engine: usage errors, nothing written.
    os.remove(out)
    for args, pattern in ((["--engine", "fast"], "bad value 'fast' for --engine"),
                          (["--engine=compass", "--location", "91,0", "--date", "2026-01-01"],
                           r"bad value '91,0' for --location \(LAT,LON\[,HEIGHT_M\]"),
                          (["--engine=compass", "--location", "48.1", "--date", "2026-01-01"],
                           "bad value '48.1' for --location"),
                          (["--engine=compass", "--location", "48.1,11.6,high", "--date", "2026-01-01"],
                           "bad value '48.1,11.6,high' for --location"),
                          (["--engine=compass", "--location", "48.1,11.6", "--date", "2026-02-30"],
                           r"bad value '2026-02-30' for --date \(YYYY-MM-DD\)"),
                          (["--engine=compass", "--location", "48.1,11.6", "--date", "1.6.2026"],
                           "bad value '1.6.2026' for --date"),
                          (["--engine=compass", "--location", "48.1,11.6", "--date", "1850-06-01"],
                           "bad value '1850-06-01' for --date"),
                          (["--engine=compass", "--location", "48.1,11.6"], "--location and --date go together"),
                          (["--engine=algo", "--location", "48.1,11.6", "--date", "2026-01-01"],
                           "--location needs --engine compass"),
                          (["--engine=algo", "--gyro"], "--gyro needs --engine compass"),
                          (["--log", "lib.log"], "--log sets up the fixed pipelines"),
                          (["--engine=compass", "--windows", "9,8"], "--windows sets up the fixed pipelines")):
        status, summary, errors = replay(program, [recording, "--out", out] + args, workdir)
        if status != 2 or not re.search(pattern, errors) or summary or os.path.exists(out):
            fail("%s: status %d, message %r" % (args, status, errors))


def main(args):
    if len(args) >= 5 and args[0] == "run":
        check_run(args[1], args[2], args[3], args[4], args[5:])
    elif len(args) == 5 and args[0] == "bad-input":
        check_bad_input(*args[1:])
    elif len(args) == 3 and args[0] == "bundled":
        check_bundled(args[1], args[2])
    elif len(args) == 2 and args[0] == "usage":
        check_usage(args[1])
    elif len(args) == 4 and args[0] == "outputs":
        check_outputs(*args[1:])
    elif len(args) == 5 and args[0] == "browser":
        check_browser(*args[1:])
    elif len(args) == 4 and args[0] == "interrupted":
        check_interrupted(*args[1:])
    elif len(args) == 2 and args[0] == "report":
        check_report(args[1])
    elif len(args) == 4 and args[0] == "inputs":
        check_inputs(*args[1:])
    elif len(args) == 4 and args[0] == "recordings":
        check_recordings(*args[1:])
    elif len(args) == 3 and args[0] == "stored":
        check_stored(args[1], args[2])
    elif len(args) == 4 and args[0] == "compass":
        check_compass(*args[1:])
    elif len(args) == 4 and args[0] == "android":
        check_android(*args[1:])
    elif len(args) == 3 and args[0] == "version":
        check_version(args[1], args[2])
    else:
        fail("usage: see the docstring")
    print("PASS")


if __name__ == "__main__":
    main(sys.argv[1:])
