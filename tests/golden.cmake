# Golden trace: the driver's output must equal the committed trace byte for
# byte, on every compiler and target (cross builds run it under the
# emulator). Regenerate with tools/golden/regenerate.sh, and only when a
# change of behaviour is intended.
if(TARGET golden_trace)
  add_test(NAME golden.trace_matches_committed_trace
    COMMAND ${CMAKE_COMMAND}
            "-DDRIVER=$<TARGET_FILE:golden_trace>"
            "-DEMULATOR=${CMAKE_CROSSCOMPILING_EMULATOR}"
            "-DEXPECTED=${CMAKE_CURRENT_SOURCE_DIR}/golden/expected_trace.txt"
            "-DACTUAL=${CMAKE_CURRENT_BINARY_DIR}/golden_trace.txt"
            -P ${CMAKE_CURRENT_SOURCE_DIR}/golden/compare_trace.cmake)
endif()
