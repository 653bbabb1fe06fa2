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
# includes. Left out: the internal/ folders (headers that are not the public API) and the platform
# folders that hold the services' implementations (Linux/, Posix/, Apple/), which clients reach
# through the seam (Platform/HardwareService.h). Platform/Simulated/ is public: its header is for
# clients that want the simulated services.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/HarkwellFoundation
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h"
  PATTERN "internal" EXCLUDE
  PATTERN "Apple" EXCLUDE
  PATTERN "Linux" EXCLUDE
  PATTERN "Posix" EXCLUDE)
install(FILES ${HARKWELL_GENERATED_INCLUDE_DIR}/HarkwellFoundation/HarkwellFoundationExport.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/HarkwellFoundation)

install(EXPORT HarkwellFoundationTargets
  NAMESPACE HarkwellFoundation::
  DESTINATION ${HARKWELL_CMAKE_PACKAGE_DIR})

# The config file finds libpulse, libpipewire and libsystemd again where a static library passes
# them on to every program; a shared library keeps them to itself.
set(HARKWELL_CONFIG_NEEDS_LIBPULSE OFF)
set(HARKWELL_CONFIG_NEEDS_LIBPIPEWIRE OFF)
set(HARKWELL_CONFIG_NEEDS_LIBSYSTEMD OFF)
if(harkwell_library_type STREQUAL "STATIC_LIBRARY")
  set(HARKWELL_CONFIG_NEEDS_LIBPULSE ${HARKWELL_WITH_PULSEAUDIO})
  set(HARKWELL_CONFIG_NEEDS_LIBPIPEWIRE ${HARKWELL_WITH_PIPEWIRE})
  set(HARKWELL_CONFIG_NEEDS_LIBSYSTEMD ${HARKWELL_WITH_DEVICE_RESERVATION})
endif()
foreach(flag LIBPULSE LIBPIPEWIRE LIBSYSTEMD)
  if(HARKWELL_CONFIG_NEEDS_${flag})
    set(HARKWELL_CONFIG_NEEDS_${flag} ON)
  else()
    set(HARKWELL_CONFIG_NEEDS_${flag} OFF)
  endif()
endforeach()
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
set(HARKWELL_PC_REQUIRES "")
if(HARKWELL_WITH_PULSEAUDIO)
  set(HARKWELL_PC_REQUIRES "libpulse")
endif()
if(HARKWELL_WITH_PIPEWIRE)
  string(APPEND HARKWELL_PC_REQUIRES " libpipewire-0.3")
  string(STRIP "${HARKWELL_PC_REQUIRES}" HARKWELL_PC_REQUIRES)
endif()
if(HARKWELL_WITH_DEVICE_RESERVATION)
  string(APPEND HARKWELL_PC_REQUIRES " libsystemd")
  string(STRIP "${HARKWELL_PC_REQUIRES}" HARKWELL_PC_REQUIRES)
endif()
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
