# Probe accuracy benchmark (bench/probe.sh runs it in the lab).
add_executable(probemond-probe-bench ${CMAKE_CURRENT_LIST_DIR}/probe_bench.cpp)
target_link_libraries(probemond-probe-bench PRIVATE probe)
