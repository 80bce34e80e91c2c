#!/usr/bin/env python3
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
  cli_check.py version REPLAY HEADER
      --version prints the version macro of HEADER.
"""
import gzip
import shutil
import csv
import html.parser
import os
import re
import shlex
import subprocess
import sys
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
        drawn = [p.get("d", "") for p in svgs[plot].iter(SVG + "path") if p.get("class") in ("line", "points")]
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
    status, summary, errors = replay(program, ["--calibration=" + calibration], workdir)
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


def main(args):
    if len(args) >= 5 and args[0] == "run":
        check_run(args[1], args[2], args[3], args[4], args[5:])
    elif len(args) == 5 and args[0] == "bad-input":
        check_bad_input(*args[1:])
    elif len(args) == 3 and args[0] == "bundled":
        check_bundled(args[1], args[2])
    elif len(args) == 2 and args[0] == "usage":
        check_usage(args[1])
    elif len(args) == 2 and args[0] == "report":
        check_report(args[1])
    elif len(args) == 4 and args[0] == "inputs":
        check_inputs(*args[1:])
    elif len(args) == 4 and args[0] == "recordings":
        check_recordings(*args[1:])
    elif len(args) == 3 and args[0] == "stored":
        check_stored(args[1], args[2])
    elif len(args) == 3 and args[0] == "version":
        check_version(args[1], args[2])
    else:
        fail("usage: see the docstring")
    print("PASS")


if __name__ == "__main__":
    main(sys.argv[1:])
