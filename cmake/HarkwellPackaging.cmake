# Installing the library: the archive or shared object, the headers under their
# HarkwellFoundation/ tree, a CMake package (find_package(HarkwellFoundation) gives
# HarkwellFoundation::HarkwellFoundation) with its version file, and a pkg-config file.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(HARKWELL_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/HarkwellFoundation)

install(TARGETS HarkwellFoundation
  EXPORT HarkwellFoundationTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# Every public header keeps its place, so installed code includes exactly what in-tree code
# includes. Headers in internal/ folders are the library's own, and the platform folders hold the
# services' implementations, reached through the seam.
set(harkwell_foreign_platforms PATTERN "internal" EXCLUDE PATTERN "Posix" EXCLUDE)
if(NOT APPLE)
  list(APPEND harkwell_foreign_platforms PATTERN "Apple" EXCLUDE)
endif()
if(NOT HARKWELL_LINUX)
  list(APPEND harkwell_foreign_platforms PATTERN "Linux" EXCLUDE)
endif()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/HarkwellFoundation
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h" ${harkwell_foreign_platforms})

install(EXPORT HarkwellFoundationTargets
  NAMESPACE HarkwellFoundation::
  DESTINATION ${HARKWELL_CMAKE_PACKAGE_DIR})

# The config file finds libpulse, libsystemd and libpipewire again where the library links them.
if(HARKWELL_WITH_PULSEAUDIO)
  set(HARKWELL_CONFIG_NEEDS_LIBPULSE ON)
else()
  set(HARKWELL_CONFIG_NEEDS_LIBPULSE OFF)
endif()
if(HARKWELL_WITH_DEVICE_RESERVATION)
  set(HARKWELL_CONFIG_NEEDS_LIBSYSTEMD ON)
else()
  set(HARKWELL_CONFIG_NEEDS_LIBSYSTEMD OFF)
endif()
if(HARKWELL_WITH_PIPEWIRE)
  set(HARKWELL_CONFIG_NEEDS_LIBPIPEWIRE ON)
else()
  set(HARKWELL_CONFIG_NEEDS_LIBPIPEWIRE OFF)
endif()
configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/HarkwellFoundationConfig.cmake.in
  ${PROJECT_BINARY_DIR}/HarkwellFoundationConfig.cmake
  INSTALL_DESTINATION ${HARKWELL_CMAKE_PACKAGE_DIR})
# 0.x releases may change the API between minor versions.
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/HarkwellFoundationConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/HarkwellFoundationConfig.cmake
  ${PROJECT_BINARY_DIR}/HarkwellFoundationConfigVersion.cmake
  DESTINATION ${HARKWELL_CMAKE_PACKAGE_DIR})

# pkg-config: a static archive needs its dependencies on every link line, a shared library only
# when linking statically.
set(HARKWELL_PC_CFLAGS "")
set(HARKWELL_PC_REQUIRES "")
if(HARKWELL_WITH_PULSEAUDIO)
  set(HARKWELL_PC_CFLAGS "-DHARKWELL_HAVE_PULSEAUDIO=1")
  set(HARKWELL_PC_REQUIRES "libpulse")
endif()
if(HARKWELL_WITH_DEVICE_RESERVATION)
  string(APPEND HARKWELL_PC_CFLAGS " -DHARKWELL_HAVE_DEVICE_RESERVATION=1")
  string(STRIP "${HARKWELL_PC_CFLAGS}" HARKWELL_PC_CFLAGS)
  string(APPEND HARKWELL_PC_REQUIRES " libsystemd")
  string(STRIP "${HARKWELL_PC_REQUIRES}" HARKWELL_PC_REQUIRES)
endif()
if(HARKWELL_WITH_PIPEWIRE)
  string(APPEND HARKWELL_PC_CFLAGS " -DHARKWELL_HAVE_PIPEWIRE=1")
  string(STRIP "${HARKWELL_PC_CFLAGS}" HARKWELL_PC_CFLAGS)
  string(APPEND HARKWELL_PC_REQUIRES " libpipewire-0.3")
  string(STRIP "${HARKWELL_PC_REQUIRES}" HARKWELL_PC_REQUIRES)
endif()
get_target_property(harkwell_library_type HarkwellFoundation TYPE)
if(harkwell_library_type STREQUAL "STATIC_LIBRARY")
  set(HARKWELL_PC_PUBLIC_REQUIRES "${HARKWELL_PC_REQUIRES}")
  set(HARKWELL_PC_PRIVATE_REQUIRES "")
  set(HARKWELL_PC_PUBLIC_LIBS "-pthread")
  set(HARKWELL_PC_PRIVATE_LIBS "")
else()
  set(HARKWELL_PC_PUBLIC_REQUIRES "")
  set(HARKWELL_PC_PRIVATE_REQUIRES "${HARKWELL_PC_REQUIRES}")
  set(HARKWELL_PC_PUBLIC_LIBS "")
  set(HARKWELL_PC_PRIVATE_LIBS "-pthread")
endif()
# The prefix is worked out from where the file itself is installed, so an install into another
# prefix (`cmake --install build --prefix DIR`) still names its own folders.
set(HARKWELL_PC_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE "${HARKWELL_PC_INSTALL_DIR}")
  set(HARKWELL_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH harkwell_pc_up "/prefix/${HARKWELL_PC_INSTALL_DIR}" "/prefix")
  string(REGEX REPLACE "/$" "" harkwell_pc_up "${harkwell_pc_up}")
  set(HARKWELL_PC_PREFIX "\${pcfiledir}/${harkwell_pc_up}")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/HarkwellFoundation.pc.in
  ${PROJECT_BINARY_DIR}/HarkwellFoundation.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/HarkwellFoundation.pc
  DESTINATION ${HARKWELL_PC_INSTALL_DIR})
