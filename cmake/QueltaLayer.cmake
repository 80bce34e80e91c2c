# SPDX-License-Identifier: Apache-2.0
# The opt-in layer beside QueltaAlgo.so: libquelta.so.
#   quelta_layer_objs  every source of quelta/<subsystem>/*.cpp (and the C interface in quelta/api/)
#   quelta_layer       static archive for tests, tools and benchmarks
#   quelta             the shared object libquelta.so (soname libquelta.so.<major>)
# Reentrant by design: no globals, no heap; every state is caller-owned.
# Deterministic, no fast-math; not bound to the exact library's bit rules.
file(GLOB QUELTA_LAYER_SOURCES CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/quelta/*/*.cpp)

# The exact library's flags (no exceptions, no RTTI, hidden symbols, direct
# calls, no errno from libm, the same warnings).
set(QUELTA_LAYER_FLAGS ${QUELTA_LIB_FLAGS})

add_library(quelta_layer_objs OBJECT ${QUELTA_LAYER_SOURCES})
target_include_directories(quelta_layer_objs PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
target_compile_options(quelta_layer_objs PRIVATE ${QUELTA_LAYER_FLAGS})
target_compile_definitions(quelta_layer_objs PRIVATE QUELTA_LAYER_BUILDING=1)

add_library(quelta_layer STATIC $<TARGET_OBJECTS:quelta_layer_objs>)
target_include_directories(quelta_layer PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
target_link_libraries(quelta_layer PUBLIC m)

add_library(quelta SHARED $<TARGET_OBJECTS:quelta_layer_objs>)
target_include_directories(quelta PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<INSTALL_INTERFACE:include>)
set_target_properties(quelta PROPERTIES
  OUTPUT_NAME quelta VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
  LINKER_LANGUAGE C)
# Exports: the quelta_* C interface only; libc and libm only at run time.
target_link_options(quelta PRIVATE
  -Wl,--version-script=${PROJECT_SOURCE_DIR}/quelta/api/libquelta.map -Wl,--as-needed)
if(NOT QUELTA_INSTRUMENTED)
  target_link_options(quelta PRIVATE -Wl,--no-undefined)
endif()
set_property(TARGET quelta APPEND PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/quelta/api/libquelta.map)
target_link_libraries(quelta PRIVATE m)

# The World Magnetic Model's coefficients are compiled into the library; the
# published files and their public-domain notice go with it.
if(QUELTA_INSTALL)
  install(FILES
    ${PROJECT_SOURCE_DIR}/data/wmm/README.md
    ${PROJECT_SOURCE_DIR}/data/wmm/WMM2025.COF
    ${PROJECT_SOURCE_DIR}/data/wmm/WMM2025_TEST_VALUES.txt
    DESTINATION share/quelta/wmm)
endif()
