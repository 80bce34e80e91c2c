# SPDX-License-Identifier: Apache-2.0
# Runs the golden-trace driver (through EMULATOR when cross-compiled), writes
# its output to ACTUAL and compares it with EXPECTED byte for byte. On a
# mismatch the start of a unified diff is shown.
execute_process(COMMAND ${EMULATOR} ${DRIVER} ${ACTUAL} RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "golden_trace failed: ${status}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${EXPECTED} ${ACTUAL} RESULT_VARIABLE differ)
if(differ)
  find_program(DIFF diff)
  if(DIFF)
    execute_process(COMMAND ${DIFF} -u ${EXPECTED} ${ACTUAL} OUTPUT_VARIABLE delta)
    string(SUBSTRING "${delta}" 0 4000 delta)
    message("${delta}")
  endif()
  message(FATAL_ERROR "golden trace differs from ${EXPECTED}; full output in ${ACTUAL}")
endif()
