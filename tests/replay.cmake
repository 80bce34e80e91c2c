# SPDX-License-Identifier: Apache-2.0
# Command-line tests of quelta-replay: summary figures against the
# simulator's truth, outputs and report, stored calibration, bad input.
find_package(Python3 REQUIRED COMPONENTS Interpreter)

set(REPLAY_CHECK ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/replay/cli_check.py)
set(REPLAY_WORK ${CMAKE_CURRENT_BINARY_DIR}/replay_cli)
set(REPLAY_FIXTURES ${CMAKE_CURRENT_SOURCE_DIR}/replay/fixtures)

# A 25 s recording in m/s^2 and microtesla with its own offset: still, the
# figure-eight, still again.
add_test(NAME replay.cli.make_fixture
  COMMAND quelta-make-recording --duration 25 --seed 7 --offset -0.21,0.09,0.15 --declination 7
          --acc-unit m/s2 --mag-unit uT --out ${REPLAY_WORK}/handheld_25s.csv)
set_tests_properties(replay.cli.make_fixture PROPERTIES FIXTURES_SETUP replay_recording)
file(MAKE_DIRECTORY ${REPLAY_WORK})

add_test(NAME replay.cli.summary_outputs_and_stored_calibration
  COMMAND ${REPLAY_CHECK} run $<TARGET_FILE:quelta-replay> ${REPLAY_WORK}/run
          ${REPLAY_WORK}/handheld_25s.csv -0.21,0.09,0.15 --engine algo --acc-unit m/s2 --mag-unit uT)
set_tests_properties(replay.cli.summary_outputs_and_stored_calibration PROPERTIES FIXTURES_REQUIRED replay_recording)

add_test(NAME replay.cli.bundled_recording_by_default
  COMMAND ${REPLAY_CHECK} bundled $<TARGET_FILE:quelta-replay> ${REPLAY_WORK}/bundled)

foreach(case
    "missing_column|missing_column.csv:1:17: missing required column 'mz'"
    "huge_value|huge_value.csv:3:16: column 'my': '1e39' is beyond the range of a float"
    "non_numeric|non_numeric.csv:3:16: column 'my': '0.1x' is not a finite number"
    "non_increasing_time|non_increasing_time.csv:4:1: time 0.02 does not increase"
    "short_row|short_row.csv:3:19: expected 7 values, found 6"
    "empty|empty.csv: empty recording"
    "header_only|header_only.csv: no samples after the header row"
    "missing_file|missing_file.csv: cannot open the recording: No such file or directory")
  string(REPLACE "|" ";" parts "${case}")
  list(GET parts 0 name)
  list(GET parts 1 message)
  add_test(NAME replay.cli.bad_input.${name}
    COMMAND ${REPLAY_CHECK} bad-input $<TARGET_FILE:quelta-replay> ${REPLAY_WORK}/bad_${name}
            ${REPLAY_FIXTURES}/${name}.csv "${message}")
endforeach()

# How outputs are written, refused and cleaned up (tests/replay/cli_check.py).
add_test(NAME replay.cli.safe_outputs
  COMMAND ${REPLAY_CHECK} outputs $<TARGET_FILE:quelta-replay> ${REPLAY_WORK}/outputs
          ${PROJECT_SOURCE_DIR}/data/handheld.csv)
# Signals reach the program directly, not through an emulator.
if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
  add_test(NAME replay.cli.interrupted_runs_leave_no_temporaries
    COMMAND ${REPLAY_CHECK} interrupted $<TARGET_FILE:quelta-replay> ${REPLAY_WORK}/interrupted
            ${PROJECT_SOURCE_DIR}/data/handheld.csv)
  set_tests_properties(replay.cli.interrupted_runs_leave_no_temporaries PROPERTIES TIMEOUT 600)
endif()

add_test(NAME replay.cli.usage_error COMMAND ${REPLAY_CHECK} usage $<TARGET_FILE:quelta-replay>)

# --engine compass (libquelta) with --location/--date and --gyro, and the
# default engine unchanged.
add_test(NAME replay.cli.compass_engine
  COMMAND ${REPLAY_CHECK} compass $<TARGET_FILE:quelta-replay> ${REPLAY_WORK}/compass
          ${PROJECT_SOURCE_DIR}/data/handheld.csv)

# An Android logger's form of the bundled recording: nanoseconds, m/s2,
# microtesla, its own column names, the field on every other row.
add_test(NAME replay.cli.android_style_logs
  COMMAND ${REPLAY_CHECK} android $<TARGET_FILE:quelta-replay> ${REPLAY_WORK}/android
          ${PROJECT_SOURCE_DIR}/data/handheld.csv)

# The real recordings beside the repository (../shared/recordings, or two
# levels up from a worktree); tests that need them skip when absent.
if(NOT DEFINED QUELTA_SHARED_RECORDINGS)
  set(QUELTA_SHARED_RECORDINGS "")
  foreach(candidate ${PROJECT_SOURCE_DIR}/../shared/recordings ${PROJECT_SOURCE_DIR}/../../shared/recordings)
    if(IS_DIRECTORY ${candidate})
      get_filename_component(QUELTA_SHARED_RECORDINGS ${candidate} ABSOLUTE)
      break()
    endif()
  endforeach()
endif()
set(QUELTA_SHARED_RECORDINGS "${QUELTA_SHARED_RECORDINGS}" CACHE PATH "Real recordings (*.csv.gz) for the tests that use them; empty: none")

# Input side: a directory, the forms of one recording (spreadsheet export,
# gzip, standard input), the shared real recordings and their units, an
# impossible stored calibration, the version.
add_test(NAME replay.cli.bad_input.directory
  COMMAND ${REPLAY_CHECK} bad-input $<TARGET_FILE:quelta-replay> ${REPLAY_WORK}/bad_directory
          ${REPLAY_FIXTURES} "fixtures: cannot read the recording: Is a directory")
add_test(NAME replay.cli.stored_calibration_outside_the_band
  COMMAND ${REPLAY_CHECK} stored $<TARGET_FILE:quelta-replay> ${REPLAY_WORK}/stored)
add_test(NAME replay.cli.version
  COMMAND ${REPLAY_CHECK} version $<TARGET_FILE:quelta-replay> ${PROJECT_SOURCE_DIR}/include/QueltaAlgo.h)
get_target_property(replay_definitions quelta_replay INTERFACE_COMPILE_DEFINITIONS)
if("QUELTA_REPLAY_HAVE_ZLIB=1" IN_LIST replay_definitions)
  add_test(NAME replay.cli.inputs_gzip_stdin_and_spreadsheet_export
    COMMAND ${REPLAY_CHECK} inputs $<TARGET_FILE:quelta-replay> ${REPLAY_WORK}/inputs
            ${PROJECT_SOURCE_DIR}/data/handheld.csv)
  add_test(NAME replay.cli.shared_recordings_and_their_units
    COMMAND ${REPLAY_CHECK} recordings $<TARGET_FILE:quelta-replay> ${REPLAY_WORK}/recordings
            "${QUELTA_SHARED_RECORDINGS}")
  set_tests_properties(replay.cli.shared_recordings_and_their_units PROPERTIES SKIP_RETURN_CODE 77)
  add_test(NAME replay.cli.bad_input.truncated_gzip
    COMMAND ${REPLAY_CHECK} bad-input $<TARGET_FILE:quelta-replay> ${REPLAY_WORK}/bad_truncated_gzip
            ${REPLAY_FIXTURES}/truncated.csv.gz "truncated.csv.gz:22: the compressed recording ends early")
endif()

# The unit tests of tests/replay/ also drive the library directly.
target_link_libraries(test_replay PRIVATE quelta_replay_driver quelta_recording_sim)
target_compile_definitions(test_replay PRIVATE QUELTA_SHARED_RECORDINGS="${QUELTA_SHARED_RECORDINGS}")

if(CMAKE_CROSSCOMPILING_EMULATOR)
  list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
  get_property(replay_tests DIRECTORY PROPERTY TESTS)
  list(FILTER replay_tests INCLUDE REGEX "^replay\\.cli\\.")
  set_tests_properties(${replay_tests} PROPERTIES ENVIRONMENT "QUELTA_EMULATOR=${emulator}")
endif()
set_tests_properties(replay.cli.safe_outputs PROPERTIES TIMEOUT 600)

# The report in a real browser: the bundled recording's and a one-million-row
# one's, rendered by headless Chromium (skipped where it is missing). Label
# "browser": .ci/run runs it once in a step of its own, not under the
# sanitizers or the emulator, where a million rows take too long.
if(NOT CMAKE_CROSSCOMPILING AND NOT QUELTA_SANITIZE)
  add_test(NAME replay.browser.report_renders_in_chromium
    COMMAND ${REPLAY_CHECK} browser $<TARGET_FILE:quelta-replay> ${REPLAY_WORK}/browser
            ${PROJECT_SOURCE_DIR}/data/handheld.csv ${PROJECT_SOURCE_DIR}/tools/replay/render_report.sh)
  set_tests_properties(replay.browser.report_renders_in_chromium PROPERTIES
    LABELS browser SKIP_RETURN_CODE 77 TIMEOUT 900 RUN_SERIAL TRUE)
endif()
