# Failover benchmark (bench/failover.sh): UID-owned datagram sender and an
# ingress-interface listener.
add_executable(probemond-bench-flow ${CMAKE_CURRENT_LIST_DIR}/flow.cpp)
target_link_libraries(probemond-bench-flow PRIVATE android_base)
