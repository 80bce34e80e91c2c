# SPDX-License-Identifier: Apache-2.0
# Sanitizer and fuzzing builds.
#
#   QUELTA_SANITIZE   list of sanitizers for everything built here, e.g.
#                     "address;undefined" (the asan-ubsan preset). Every
#                     report is fatal: no recovery, so a test or a fuzz run
#                     that triggers one fails.
#   QUELTA_BUILD_FUZZ libFuzzer targets in fuzz/ (Clang only). Turns on the
#                     coverage instrumentation the fuzzer needs on the library.
set(QUELTA_SANITIZE "" CACHE STRING "Sanitizers to build with, e.g. address;undefined")
option(QUELTA_BUILD_FUZZ "Build the libFuzzer targets (Clang)" OFF)

set(QUELTA_SANITIZER_FLAGS "")
if(QUELTA_SANITIZE)
  set(sanitizers ${QUELTA_SANITIZE})
  # Float-to-int overflow is undefined behaviour; GCC leaves it out of
  # "undefined", Clang includes it. Ask for it by name on both.
  if("undefined" IN_LIST sanitizers)
    list(APPEND sanitizers float-cast-overflow)
  endif()
  list(JOIN sanitizers "," joined)
  list(APPEND QUELTA_SANITIZER_FLAGS -fsanitize=${joined} -fno-sanitize-recover=all
       -fno-omit-frame-pointer)
endif()

if(QUELTA_BUILD_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "QUELTA_BUILD_FUZZ needs Clang (libFuzzer)")
  endif()
  # Coverage feedback for the library and every helper; the fuzz targets
  # themselves link the fuzzer's driver (fuzz/CMakeLists.txt).
  list(APPEND QUELTA_SANITIZER_FLAGS -fsanitize=fuzzer-no-link)
endif()

# A C host of the instrumented shared object: same sanitizers; with Clang the
# object's function-type checks need the C++ half of the runtime as well.
set(QUELTA_HOST_SANITIZER_FLAGS ${QUELTA_SANITIZER_FLAGS})
set(QUELTA_HOST_SANITIZER_LIBS "")
if(QUELTA_SANITIZE AND CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  list(APPEND QUELTA_HOST_SANITIZER_FLAGS -fsanitize-link-c++-runtime)
  list(APPEND QUELTA_HOST_SANITIZER_LIBS -lstdc++)
endif()

if(QUELTA_SANITIZER_FLAGS)
  add_compile_options(${QUELTA_SANITIZER_FLAGS})
  add_link_options(${QUELTA_SANITIZER_FLAGS})
  message(STATUS "QueltaAlgo: building with ${QUELTA_SANITIZER_FLAGS}")
endif()

# In an instrumented build the shared object needs the sanitizer runtime: the
# host executable brings it (Clang), or the object names it as a dependency
# (GCC). The dependency and install checks are told so.
if(QUELTA_SANITIZE OR QUELTA_BUILD_FUZZ)
  set(QUELTA_INSTRUMENTED ON)
else()
  set(QUELTA_INSTRUMENTED OFF)
endif()
