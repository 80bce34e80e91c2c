# SPDX-License-Identifier: Apache-2.0
# The World Magnetic Model: the unit tests read the committed test values;
# the command-line tool on a test-value line, a date, a warning and errors;
# the compiled-in coefficient table matches the committed coefficient file.
target_compile_definitions(test_geomag PRIVATE QUELTA_WMM_DATA_DIR="${PROJECT_SOURCE_DIR}/data/wmm")

if(TARGET quelta-wmm)
  # The emulator is a command line (a list): keep it one argument here.
  string(REPLACE ";" "$<SEMICOLON>" quelta_wmm_emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")
  set(quelta_wmm_run ${CMAKE_COMMAND} "-DTOOL=$<TARGET_FILE:quelta-wmm>" "-DEMULATOR=${quelta_wmm_emulator}")
  set(quelta_wmm_script ${CMAKE_CURRENT_SOURCE_DIR}/geomag/run_wmm.cmake)

  # The first line of the test values: 2025.0, 0 km, 80 N, 0 E.
  add_test(NAME geomag.cli.test_value_line
    COMMAND ${quelta_wmm_run} "-DARGS=80$<SEMICOLON>0$<SEMICOLON>0$<SEMICOLON>2025.0" -DEXIT=0
            "-DSTDOUT_LINE=6521.6 145.9 54791.5 6523.2 55178.5 83.21 1.28" "-DSTDERR=^$"
            -P ${quelta_wmm_script})
  # 2025.0 at 100 km, 80 S 240 E, with the date written as a date.
  add_test(NAME geomag.cli.date_argument
    COMMAND ${quelta_wmm_run} "-DARGS=-80$<SEMICOLON>240$<SEMICOLON>100$<SEMICOLON>2025-01-01" -DEXIT=0
            "-DSTDOUT_LINE=5907.6 14780.3 -49540.7 15917.1 52035.0 -72.19 68.21" "-DSTDERR=^$"
            -P ${quelta_wmm_script})
  add_test(NAME geomag.cli.warnings_on_stderr
    COMMAND ${quelta_wmm_run} "-DARGS=86$<SEMICOLON>140$<SEMICOLON>0$<SEMICOLON>2031.0" -DEXIT=0
            "-DSTDOUT_MATCH=-?[0-9]+\\.[0-9]( -?[0-9]+\\.[0-9]+)+"
            "-DSTDERR=^quelta-wmm: warning: blackout zone.*quelta-wmm: warning: date outside the model's validity"
            -P ${quelta_wmm_script})
  add_test(NAME geomag.cli.bad_latitude
    COMMAND ${quelta_wmm_run} "-DARGS=91$<SEMICOLON>0$<SEMICOLON>0$<SEMICOLON>2026" -DEXIT=1 "-DSTDOUT_LINE="
            "-DSTDERR=latitude must be" -P ${quelta_wmm_script})
  add_test(NAME geomag.cli.bad_date
    COMMAND ${quelta_wmm_run} "-DARGS=0$<SEMICOLON>0$<SEMICOLON>0$<SEMICOLON>2026-02-29" -DEXIT=1 "-DSTDOUT_LINE="
            "-DSTDERR=date must be" -P ${quelta_wmm_script})
  add_test(NAME geomag.cli.usage
    COMMAND ${quelta_wmm_run} "-DARGS=0$<SEMICOLON>0$<SEMICOLON>zero$<SEMICOLON>2026" -DEXIT=2 "-DSTDOUT_LINE="
            "-DSTDERR=HEIGHT_KM 'zero' is not a number.*usage: quelta-wmm" -P ${quelta_wmm_script})
endif()

find_package(Python3 COMPONENTS Interpreter)
if(Python3_FOUND)
  add_test(NAME geomag.coefficient_table_matches_cof
    COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/tools/wmm/make_coefficients.py --check)
endif()
