# SPDX-License-Identifier: Apache-2.0
# Golden trace: the driver's output must equal the committed trace byte for
# byte, on every compiler and target (cross builds run it under the
# emulator). Regenerate with tools/golden/regenerate.sh, and only when a
# change of behaviour is intended.
if(TARGET golden_trace)
  # The emulator is a command line (a list): keep it one argument here.
  string(REPLACE ";" "$<SEMICOLON>" quelta_golden_emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")
  set(quelta_golden_compare
    "-DDRIVER=$<TARGET_FILE:golden_trace>"
    "-DEMULATOR=${quelta_golden_emulator}"
    "-DEXPECTED=${CMAKE_CURRENT_SOURCE_DIR}/golden/expected_trace.txt")
  add_test(NAME golden.trace_matches_committed_trace
    COMMAND ${CMAKE_COMMAND} ${quelta_golden_compare}
            "-DACTUAL=${CMAKE_CURRENT_BINARY_DIR}/golden_trace.txt"
            -P ${CMAKE_CURRENT_SOURCE_DIR}/golden/compare_trace.cmake)
  # glibc on x86-64 picks FMA builds of its transcendental functions when the
  # CPU has FMA; the trace must not depend on that choice.
  if(NOT CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
    add_test(NAME golden.trace_matches_with_generic_libm
      COMMAND ${CMAKE_COMMAND} -E env GLIBC_TUNABLES=glibc.cpu.hwcaps=-AVX2,-FMA,-FMA4
              ${CMAKE_COMMAND} ${quelta_golden_compare}
              "-DACTUAL=${CMAKE_CURRENT_BINARY_DIR}/golden_trace_generic_libm.txt"
              -P ${CMAKE_CURRENT_SOURCE_DIR}/golden/compare_trace.cmake)
  endif()
endif()
