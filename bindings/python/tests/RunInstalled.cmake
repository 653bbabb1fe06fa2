# Installs the build into a fresh prefix and runs the Python tests against the installed package,
# with nothing of the build tree on PYTHONPATH.
file(REMOVE_RECURSE ${WORK_DIR})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix
  OUTPUT_QUIET RESULT_VARIABLE installed)
if(NOT installed EQUAL 0)
  message(FATAL_ERROR "cmake --install failed: ${installed}")
endif()
set(package_root ${WORK_DIR}/prefix/${PYTHON_INSTALL_DIR})
if(NOT EXISTS ${package_root}/harkwell/__init__.py)
  message(FATAL_ERROR "the install has no harkwell package in ${package_root}")
endif()
set(ENV{PYTHONPATH} ${package_root})
set(ENV{HARKWELL_EXPECTED_PACKAGE_DIR} ${package_root}/harkwell)
execute_process(COMMAND ${CMAKE_COMMAND} -E env ${PYTEST_ENVIRONMENT} ${PYTEST}
  RESULT_VARIABLE tested)
file(REMOVE_RECURSE ${WORK_DIR})
if(NOT tested EQUAL 0)
  message(FATAL_ERROR "the tests failed against the installed package")
endif()
