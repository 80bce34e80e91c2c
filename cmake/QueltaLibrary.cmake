# SPDX-License-Identifier: Apache-2.0
# The library: one set of objects, linked twice.
#   quelta_core  - static archive for tests, tools and benchmarks
#   QueltaAlgo   - the host-facing shared object, QueltaAlgo.so
file(GLOB QUELTA_SOURCES CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/core/*.cpp
  ${PROJECT_SOURCE_DIR}/interface/*.cpp
  ${PROJECT_SOURCE_DIR}/intake/*.cpp
  ${PROJECT_SOURCE_DIR}/magcal/*.cpp
  ${PROJECT_SOURCE_DIR}/orientation/*.cpp
  ${PROJECT_SOURCE_DIR}/vgyro/*.cpp
  ${PROJECT_SOURCE_DIR}/rotvec/*.cpp)

set(QUELTA_LIB_FLAGS
  -fno-exceptions -fno-rtti -fno-threadsafe-statics
  -fvisibility=hidden -fvisibility-inlines-hidden
  -Wall -Wextra -Wshadow -Wconversion -Wno-sign-conversion)
# Speed without touching a single rounding: direct calls inside the library
# and to libm (no interposition of our own functions, no PLT stubs), and
# square roots inlined instead of calling out to set errno (nothing reads
# it). Contraction and fast-math stay off. The optimisation level is the
# build type's: -O3 makes the code half as large again and, with the hot
# paths written as they are, no faster than -O2.
list(APPEND QUELTA_LIB_FLAGS -fno-semantic-interposition -fno-plt -fno-math-errno)

add_library(quelta_objs OBJECT ${QUELTA_SOURCES})
target_include_directories(quelta_objs PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
target_compile_options(quelta_objs PRIVATE ${QUELTA_LIB_FLAGS})
target_compile_definitions(quelta_objs PRIVATE QUELTA_BUILDING_LIBRARY=1)

add_library(quelta_core STATIC $<TARGET_OBJECTS:quelta_objs>)
target_include_directories(quelta_core PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
target_link_libraries(quelta_core PUBLIC m)

add_library(QueltaAlgo SHARED $<TARGET_OBJECTS:quelta_objs>)
target_include_directories(QueltaAlgo PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<INSTALL_INTERFACE:include>)
# Exactly "QueltaAlgo.so": no lib prefix, no soname versioning.
set_target_properties(QueltaAlgo PROPERTIES
  PREFIX "" OUTPUT_NAME QueltaAlgo SUFFIX ".so"
  LINKER_LANGUAGE C)
# Export only the interface names; fail the link if anything would pull in
# the C++ runtime (the library must need libc and libm only). An instrumented
# build leaves the sanitizer runtime's symbols to the host executable.
target_link_options(QueltaAlgo PRIVATE
  -Wl,--version-script=${PROJECT_SOURCE_DIR}/core/QueltaAlgo.map -Wl,--as-needed)
if(NOT QUELTA_INSTRUMENTED)
  target_link_options(QueltaAlgo PRIVATE -Wl,--no-undefined)
endif()
set_property(TARGET QueltaAlgo APPEND PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/core/QueltaAlgo.map)
target_link_libraries(QueltaAlgo PRIVATE m)
