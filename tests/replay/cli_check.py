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
"""
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
    if "calimag" not in open(log).read():
        fail("the library's log lines are missing from %s" % log)
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


def check_usage(program):
    for args, pattern in ((["--no-such-option"], "unknown option --no-such-option"),
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
    else:
        fail("usage: see the docstring")
    print("PASS")


if __name__ == "__main__":
    main(sys.argv[1:])
