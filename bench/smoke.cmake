# The benchmarks run once in a quick form by CTest, so a change that breaks
# them (a client command, the dump text, the callback line) shows up in
# `./run test`. Nothing here is timed: figures come from `./run bench`.
# Each brings up a lab of its own (named after the run's); they run one at a
# time to spare the machine.
foreach(name footprint failover steer)
  add_test(NAME bench.${name} COMMAND ${CMAKE_CURRENT_LIST_DIR}/${name}.sh)
  set_tests_properties(bench.${name} PROPERTIES
    SKIP_RETURN_CODE 77 TIMEOUT 300 RESOURCE_LOCK bench-smoke-lab LABELS "lab;bench"
    ENVIRONMENT "PROBEMOND_BUILD_DIR=${CMAKE_BINARY_DIR};PROBEMOND_EMULATOR=${PROBEMOND_EMULATOR};PROBEMOND_BENCH_SECONDS=1;PROBEMOND_BENCH_TRIALS=1;PROBEMOND_BENCH_CHANGES=2")
endforeach()
