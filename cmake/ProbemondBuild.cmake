# Compiler flags and the Debian packages that stand in for the platform libraries.
add_compile_options(-Wall -Wextra -Werror -fno-exceptions)
add_compile_definitions(PROBEMOND_HOST=1)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  add_compile_options(-Wthread-safety)
endif()

if(PROBEMOND_SANITIZE)
  string(REPLACE "," ";" _sans "${PROBEMOND_SANITIZE}")
  foreach(_s IN LISTS _sans)
    if(NOT _s MATCHES "^(address|undefined|thread)$")
      message(FATAL_ERROR "unknown sanitizer '${_s}'")
    endif()
  endforeach()
  add_compile_options(-fsanitize=${PROBEMOND_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${PROBEMOND_SANITIZE})
  if("thread" IN_LIST _sans)
    # Every program created after this gets the suppressions of glibc's own
    # races (the runtime finds them by name, so they must be linked in).
    add_library(probemond_tsan_suppressions OBJECT ${CMAKE_CURRENT_LIST_DIR}/tsan_suppressions.cpp)
    link_libraries(probemond_tsan_suppressions)
  endif()
endif()

# Debian ships the platform's liblog and libutils under an "android" subfolder.
set(ANDROID_INCLUDE_DIR /usr/include/android)
find_library(ANDROID_LIBLOG NAMES log PATHS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android NO_DEFAULT_PATH REQUIRED)
find_library(ANDROID_LIBUTILS NAMES utils PATHS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android NO_DEFAULT_PATH REQUIRED)
get_filename_component(ANDROID_LIBDIR ${ANDROID_LIBLOG} DIRECTORY)

add_library(android_log INTERFACE)
target_include_directories(android_log SYSTEM INTERFACE ${ANDROID_INCLUDE_DIR})
target_link_libraries(android_log INTERFACE ${ANDROID_LIBLOG})
target_link_options(android_log INTERFACE "LINKER:-rpath,${ANDROID_LIBDIR}")

add_library(android_utils INTERFACE)
target_include_directories(android_utils SYSTEM INTERFACE ${ANDROID_INCLUDE_DIR})
target_link_libraries(android_utils INTERFACE ${ANDROID_LIBUTILS} android_log)
target_link_options(android_utils INTERFACE "LINKER:-rpath,${ANDROID_LIBDIR}")

find_package(Threads REQUIRED)

# libbase: header-only use (unique_fd), as libbase_headers on a device.
add_library(android_base INTERFACE)
target_include_directories(android_base SYSTEM INTERFACE ${ANDROID_INCLUDE_DIR})
