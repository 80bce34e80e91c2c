#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds README.md and docs/*.md to what the build really has.

  check_docs.py --source DIR --build DIR --program NAME=PATH... [--emulator CMD]
                [--docs FILE...]

Fails (exit 1, every problem listed) when a document
  - names an option (--something) of one of the project's programs that the
    program's --help does not list. An option belongs to the nearest
    command named before it on the same line; with none, to quelta-replay,
    the program the documents are about. Options of outside commands
    (cmake, ctest, pkg-config, compilers, ...) and linker options
    (-Wl,--x) are not checked;
  - names a test that `ctest -N` does not list: GoogleTest names
    (Suite.Name, or .Name right after a Suite.Name on the same line) and
    ctest names in backquotes (golden.trace_matches_committed_trace);
  - shows a host snippet whose lines do not appear, in order, in the example
    program that compiles it: the first ```c block of README.md is part of
    examples/compass_minimal.c, that of docs/algo.md of examples/compass_host.c;
  - links (Markdown [text](path)) to a file of the repository that is not
    there.
"""
import argparse
import glob
import os
import re
import shlex
import subprocess
import sys

OUTSIDE_COMMANDS = {
    'cmake', 'ctest', 'pkg-config', 'cc', 'gcc', 'g++', 'clang', 'clang++', 'c++', 'ld', 'git',
    'apt-get', 'apt', 'chromium', 'valgrind', 'ldconfig', 'python3', 'make', 'ninja', 'sh',
    'bash', 'env', 'nm', 'readelf', 'objdump', 'qemu-aarch64', 'gzip', 'zcat', 'curl', 'docker',
}
OPTION = re.compile(r'(?<![\w,/-])--([A-Za-z][\w-]*)')
COMMAND_WORD = re.compile(r'[\w./+-]+')
GTEST_NAME = re.compile(r'(?<![\w.])([A-Z][A-Za-z0-9]+)\.([A-Z][A-Za-z0-9_]+)(?![\w])')
GTEST_CONTINUATION = re.compile(r'`\.([A-Z][A-Za-z0-9_]*)`')
CODE_SPAN = re.compile(r'`([^`]+)`')
FILE_EXTENSIONS = {'c', 'h', 'cpp', 'hpp', 'cc', 'so', 'pc', 'csv', 'gz', 'json', 'md', 'txt',
                   'cmake', 'py', 'sh', 'html', 'png', 'svg', 'cof', 'map', 'in', 'bp', 'log',
                   'cal', 'zip', 'tar', 'xz'}


def help_options(command):
    """Options listed by `command --help`, or None when it cannot run."""
    try:
        result = subprocess.run(command + ['--help'], capture_output=True, text=True, timeout=60)
    except OSError as error:
        sys.exit(f'cannot run {command}: {error}')
    text = result.stdout + result.stderr
    if result.returncode != 0:
        sys.exit(f'{" ".join(command)} --help failed ({result.returncode}):\n{text}')
    return set(OPTION.findall(text))


def ctest_names(build):
    result = subprocess.run(['ctest', '--test-dir', build, '-N'], capture_output=True, text=True,
                            timeout=120)
    if result.returncode != 0:
        sys.exit(f'ctest -N failed:\n{result.stdout}{result.stderr}')
    names = set(re.findall(r'^\s*Test\s+#\d+:\s+(\S+)\s*$', result.stdout, re.M))
    if not names:
        sys.exit('ctest -N lists no tests')
    return names


def owner_of(line, position, programs):
    """The command an option at position belongs to: the nearest command word
    before it on the line (None when there is none or it is not ours)."""
    owner = None
    for match in COMMAND_WORD.finditer(line[:position]):
        word = os.path.basename(match.group(0))
        if word in programs or word in OUTSIDE_COMMANDS or word.endswith(('.sh', '.py')):
            owner = word
    return owner


def check_options(path, lines, programs, problems):
    for number, line in enumerate(lines, 1):
        for match in OPTION.finditer(line):
            option = match.group(1)
            owner = owner_of(line, match.start(), programs) or 'quelta-replay'
            known = programs.get(owner)
            if known is None:
                continue  # an outside command or a script
            if option not in known:
                problems.append(f'{path}:{number}: --{option} is not listed by {owner} --help')


def check_tests(path, lines, tests, problems):
    suffixes = set()
    groups = set()
    for name in tests:
        parts = name.split('.')
        for i in range(len(parts)):
            suffixes.add('.'.join(parts[i:]))
            if i > 0:
                groups.add('.'.join(parts[:i]))
    prefixes = {name.split('.')[0] for name in tests}
    for number, line in enumerate(lines, 1):
        suite = None
        events = [(m.start(), 'gtest', m) for m in GTEST_NAME.finditer(line)]
        events += [(m.start(), 'continuation', m) for m in GTEST_CONTINUATION.finditer(line)]
        for _, kind, match in sorted(events, key=lambda e: e[0]):
            if kind == 'gtest':
                suite, name = match.group(1), match.group(2)
                full = f'{suite}.{name}'
                if name.lower() in FILE_EXTENSIONS:
                    continue
            else:
                if suite is None:
                    continue
                full = f'{suite}.{match.group(1)}'
            if full not in suffixes:
                problems.append(f'{path}:{number}: test {full} is not known to ctest -N')
        for span in CODE_SPAN.findall(line):
            token = span.strip()
            if not re.fullmatch(r'[a-z][a-z0-9_]*(\.[A-Za-z0-9_]+)+', token):
                continue
            parts = token.split('.')
            if parts[0] not in prefixes or parts[-1] in FILE_EXTENSIONS:
                continue
            if token not in tests and token not in groups:
                problems.append(f'{path}:{number}: test {token} is not known to ctest -N')


# Each document's first C block is a host snippet, part of this example;
# later blocks show fragments of the headers.
SNIPPETS = {'README.md': 'examples/compass_minimal.c', 'docs/algo.md': 'examples/compass_host.c'}
LINK = re.compile(r'\[[^\]]*\]\(([^)\s]+)\)')


def check_snippet(source, document, example, problems):
    path = os.path.join(source, document)
    if not os.path.exists(path):
        problems.append(f'{document}: missing (it holds the snippet of {example})')
        return
    with open(path, encoding='utf-8') as f:
        text = f.read()
    with open(os.path.join(source, example), encoding='utf-8') as f:
        program = [line.strip() for line in f]
    blocks = re.findall(r'^```c\n(.*?)^```', text, re.M | re.S)
    if not blocks:
        problems.append(f'{document}: no C snippet (```c block) of {example}')
    for block in blocks[:1]:
        position = 0
        for line in block.splitlines():
            wanted = line.strip()
            if not wanted:
                continue
            try:
                position = program.index(wanted, position) + 1
            except ValueError:
                problems.append(f'{document}: C snippet line not in {example} (in this order): {wanted}')
                break


def check_links(path, shown, lines, problems):
    """Relative links lead to files that exist (anchors and web links aside)."""
    for number, line in enumerate(lines, 1):
        for target in LINK.findall(line):
            if re.match(r'[a-z]+:', target) or target.startswith('#'):
                continue
            file = target.split('#', 1)[0]
            if not os.path.exists(os.path.join(os.path.dirname(path), file)):
                problems.append(f'{shown}:{number}: link to {target}, which does not exist')


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--source', required=True)
    parser.add_argument('--build', required=True)
    parser.add_argument('--program', action='append', default=[], metavar='NAME=PATH')
    parser.add_argument('--emulator', default='')
    parser.add_argument('--docs', nargs='*')
    args = parser.parse_args()

    emulator = shlex.split(args.emulator)
    programs = {}
    for entry in args.program:
        name, path = entry.split('=', 1)
        programs[name] = help_options(emulator + [path])
    if 'quelta-replay' not in programs:
        sys.exit('--program quelta-replay=PATH is required')
    tests = ctest_names(args.build)

    docs = args.docs
    if docs is None:
        docs = [os.path.join(args.source, 'README.md')]
        docs += sorted(glob.glob(os.path.join(args.source, 'docs', '*.md')))
    problems = []
    for path in docs:
        with open(path, encoding='utf-8') as f:
            lines = f.read().splitlines()
        shown = os.path.relpath(path, args.source)
        check_options(shown, lines, programs, problems)
        check_tests(shown, lines, tests, problems)
        check_links(path, shown, lines, problems)
    if args.docs is None:
        for document, example in SNIPPETS.items():
            check_snippet(args.source, document, example, problems)

    for problem in problems:
        print(problem)
    if problems:
        return 1
    print(f'{len(docs)} documents checked against {", ".join(sorted(programs))} --help '
          f'and {len(tests)} tests')
    return 0


if __name__ == '__main__':
    sys.exit(main())
