# Test registration shared by every folder.
enable_testing()
find_package(GTest REQUIRED)
include(GoogleTest)

# How scripts and test helpers start a target program: empty on the host,
# the emulator command line in a cross build (space-separated, for shells).
string(JOIN " " PROBEMOND_EMULATOR ${CMAKE_CROSSCOMPILING_EMULATOR})
set(PROBEMOND_EMULATOR_LINE "${PROBEMOND_EMULATOR}" CACHE INTERNAL "for ./run bench")

# Death tests re-execute the test binary (safe beside the managers' threads);
# without binfmt_misc an emulated binary cannot be re-executed, so there the
# child is a plain fork.
if(CMAKE_CROSSCOMPILING_EMULATOR)
  set(PROBEMOND_DEATH_TEST_STYLE fast)
else()
  set(PROBEMOND_DEATH_TEST_STYLE threadsafe)
endif()

# probemond_add_unit_test(NAME [DEVICE] SOURCES... LIBS...)
# A GoogleTest binary whose cases run in-process, without privileges.
# DEVICE: it needs no host stand-in (property file, binder, lab), so the device
# test module in Android.bp builds the same sources; ./run check-device finds
# these targets by their folder. It gets no host-only test helper to link.
function(probemond_add_unit_test name)
  cmake_parse_arguments(T "DEVICE" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  if(T_DEVICE)
    set_target_properties(${name} PROPERTIES FOLDER device-tests)
    set(support probemond_testsupport)
  else()
    set(support probemond_host_testsupport)
  endif()
  target_link_libraries(${name} PRIVATE ${T_LIBS} ${support} GTest::gtest GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
    EXTRA_ARGS --gtest_death_test_style=${PROBEMOND_DEATH_TEST_STYLE}
    PROPERTIES TIMEOUT 300 ENVIRONMENT "PROBEMOND_EMULATOR=${PROBEMOND_EMULATOR}")
endfunction()

# probemond_lab_exec_test(NAME TIMEOUT LABELS COMMAND...): COMMAND run inside
# the lab's device namespace (see lab/lab.sh). The run's own lab
# (PROBEMOND_LAB) is brought up by the "lab.up" fixture; lab tests never run
# in parallel within a run. Exit code 77 (no root, no namespaces) marks the
# test skipped.
function(probemond_lab_exec_test name timeout labels)
  add_test(NAME ${name} COMMAND ${CMAKE_SOURCE_DIR}/lab/lab.sh exec ${ARGN})
  set_tests_properties(${name} PROPERTIES
    FIXTURES_REQUIRED lab RESOURCE_LOCK lab SKIP_RETURN_CODE 77 TIMEOUT ${timeout}
    LABELS "${labels}" ENVIRONMENT "PROBEMOND_SOURCE_DIR=${CMAKE_SOURCE_DIR};PROBEMOND_BUILD_DIR=${CMAKE_BINARY_DIR};PROBEMOND_EMULATOR=${PROBEMOND_EMULATOR}")
endfunction()

# probemond_add_lab_test(NAME SOURCES... LIBS...): a GoogleTest binary run in the lab.
function(probemond_add_lab_test name)
  cmake_parse_arguments(T "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} probemond_host_testsupport GTest::gtest GTest::gmock GTest::gtest_main)
  probemond_lab_exec_test(${name} 600 lab ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:${name}>)
endfunction()

# probemond_add_lab_script_tests(PREFIX SCRIPT CASES...): one test per case of
# a script that runs the daemon as a process in the lab.
function(probemond_add_lab_script_tests prefix script)
  foreach(case ${ARGN})
    probemond_lab_exec_test(${prefix}.${case} 180 "lab;${prefix}" ${script} ${case})
  endforeach()
endfunction()
