# Socket destruction benchmark (bench/destroy.sh runs it).
add_executable(bench-destroy ${CMAKE_CURRENT_LIST_DIR}/destroy.cpp)
target_link_libraries(bench-destroy PRIVATE netctl)
