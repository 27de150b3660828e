# Steering benchmark (bench/steer.sh): socket holder and killUidSockets timer.
add_executable(probemond-bench-steer ${CMAKE_CURRENT_LIST_DIR}/steer.cpp)
target_link_libraries(probemond-bench-steer PRIVATE netctl android_base)
