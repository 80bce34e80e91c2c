# SPDX-License-Identifier: Apache-2.0
# Installation for hosts outside Android:
#   QueltaAlgo.so and include/QueltaAlgo.h
#       CMake: find_package(QueltaAlgo)                      -> QueltaAlgo::QueltaAlgo
#       pkg-config: QueltaAlgo.pc
#   libquelta.so (soname libquelta.so.<major>, with its symlinks) and include/quelta/*.h
#       CMake: find_package(QueltaAlgo COMPONENTS Quelta)   -> QueltaAlgo::quelta
#       pkg-config: quelta.pc
#   the programs (quelta-replay), with a run path relative to their own place
#   ($ORIGIN/../lib), so that they find QueltaAlgo.so in any prefix without
#   LD_LIBRARY_PATH: the runtime linker's cache only indexes lib* names, and
#   QueltaAlgo.so has none.
# Everything is relative to the prefix, so the installed tree can be moved
# (cmake --install --prefix, DESTDIR).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(QUELTA_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/QueltaAlgo
  CACHE STRING "Where the CMake package files go, relative to the prefix")
set(QUELTA_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  CACHE STRING "Where QueltaAlgo.pc and quelta.pc go, relative to the prefix")

# Run path of the installed programs: the library directory seen from the
# program directory. Set before the tools are defined, so every program
# created after this point carries it when installed (the build tree keeps
# CMake's own build run path).
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(QUELTA_PROGRAM_RPATH "${CMAKE_INSTALL_LIBDIR}")
else()
  set(quelta_bindir "${CMAKE_INSTALL_BINDIR}")
  if(IS_ABSOLUTE "${quelta_bindir}")
    # A program directory outside the prefix cannot reach the library
    # relatively: name the library directory in full.
    set(QUELTA_PROGRAM_RPATH "${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}")
  else()
    file(RELATIVE_PATH quelta_bin_to_lib /prefix/${quelta_bindir} /prefix/${CMAKE_INSTALL_LIBDIR})
    set(QUELTA_PROGRAM_RPATH "$ORIGIN/${quelta_bin_to_lib}")
  endif()
endif()
set(CMAKE_INSTALL_RPATH "${QUELTA_PROGRAM_RPATH}")

# --- QueltaAlgo.so ---------------------------------------------------------
install(TARGETS QueltaAlgo EXPORT QueltaAlgoTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/QueltaAlgo.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT QueltaAlgoTargets
  NAMESPACE QueltaAlgo::
  DESTINATION ${QUELTA_INSTALL_CMAKEDIR})

# --- libquelta.so: component Quelta of the same package ----------------------
# The real file, the soname link (libquelta.so.0, what the runtime linker and
# its cache look for) and the development link (libquelta.so, what -lquelta
# finds).
install(TARGETS quelta EXPORT QueltaAlgoQueltaTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/quelta
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
install(EXPORT QueltaAlgoQueltaTargets
  NAMESPACE QueltaAlgo::
  DESTINATION ${QUELTA_INSTALL_CMAKEDIR})

# --- Licence ---------------------------------------------------------------
# Apache-2.0; NOTICE carries the World Magnetic Model's attribution. Both go
# with every installed tree (share/doc/QueltaAlgo by default).
set(QUELTA_INSTALL_DOCDIR ${CMAKE_INSTALL_DOCDIR})
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/NOTICE
  DESTINATION ${QUELTA_INSTALL_DOCDIR})

# --- CMake package ---------------------------------------------------------
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/QueltaAlgoConfig.cmake.in
  ${PROJECT_BINARY_DIR}/QueltaAlgoConfig.cmake
  INSTALL_DESTINATION ${QUELTA_INSTALL_CMAKEDIR}
  PATH_VARS QUELTA_INSTALL_DOCDIR)
# 0.x: a new minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QueltaAlgoConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/QueltaAlgoConfig.cmake
  ${PROJECT_BINARY_DIR}/QueltaAlgoConfigVersion.cmake
  DESTINATION ${QUELTA_INSTALL_CMAKEDIR})

# --- pkg-config ------------------------------------------------------------
# The prefix is found from the .pc file's own place, so the tree stays
# relocatable.
if(IS_ABSOLUTE "${QUELTA_INSTALL_PKGCONFIGDIR}")
  set(QUELTA_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH QUELTA_PC_TO_PREFIX /prefix/${QUELTA_INSTALL_PKGCONFIGDIR} /prefix)
  string(REGEX REPLACE "/$" "" QUELTA_PC_TO_PREFIX "${QUELTA_PC_TO_PREFIX}")
  set(QUELTA_PC_PREFIX "\${pcfiledir}/${QUELTA_PC_TO_PREFIX}")
endif()
set(QUELTA_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
set(QUELTA_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
if(NOT IS_ABSOLUTE "${QUELTA_PC_LIBDIR}")
  set(QUELTA_PC_LIBDIR "\${prefix}/${QUELTA_PC_LIBDIR}")
endif()
if(NOT IS_ABSOLUTE "${QUELTA_PC_INCLUDEDIR}")
  set(QUELTA_PC_INCLUDEDIR "\${prefix}/${QUELTA_PC_INCLUDEDIR}")
endif()
# QueltaAlgo.so has no "lib" prefix, so -lQueltaAlgo cannot name it: Libs
# gives the file itself. libquelta.so is an ordinary -lquelta.
foreach(pc QueltaAlgo quelta)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${QUELTA_INSTALL_PKGCONFIGDIR})
endforeach()
