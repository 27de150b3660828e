# The benchmarks run once in a quick form by CTest, so a change that breaks
# them (a client command, the dump text, the callback line) shows up in
# `./run test`. Nothing here is timed: figures come from `./run bench`.
# A lab name of their own keeps them apart from the lab tests and from a
# `./run bench` in progress; they share it, so they run one at a time.
foreach(name footprint failover steer)
  add_test(NAME bench.${name} COMMAND ${CMAKE_CURRENT_LIST_DIR}/${name}.sh)
  set_tests_properties(bench.${name} PROPERTIES
    SKIP_RETURN_CODE 77 TIMEOUT 300 RESOURCE_LOCK bench-smoke-lab LABELS "lab;bench"
    ENVIRONMENT "PROBEMOND_LAB=probemond-smoke;PROBEMOND_BUILD_DIR=${CMAKE_BINARY_DIR};PROBEMOND_EMULATOR=${PROBEMOND_EMULATOR};PROBEMOND_BENCH_SECONDS=1;PROBEMOND_BENCH_TRIALS=1;PROBEMOND_BENCH_CHANGES=2")
endforeach()
