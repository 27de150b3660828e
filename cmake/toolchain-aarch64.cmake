# Cross build for AArch64 with Debian's toolchain (crossbuild-essential-arm64)
# against the multiarch :arm64 packages. Target programs run through
# qemu-user: binfmt_misc may be absent, so CTest and the scripts start them
# explicitly (CMAKE_CROSSCOMPILING_EMULATOR, PROBEMOND_EMULATOR).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Multiarch: target libraries live beside the host's, under their triplet.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# Debian's libbacktrace:arm64 (pulled in by libutils) needs /usr/lib/p7zip/7z.so,
# which is not multiarch: the host's copy is x86_64. An aarch64 copy sits in an
# overlay that qemu searches first (-L); ./run puts it there.
set(PROBEMOND_AARCH64_OVERLAY "${CMAKE_BINARY_DIR}/aarch64-overlay"
    CACHE PATH "Files qemu-aarch64 finds before the host's (-L)")
set(_link "-Wl,-rpath-link,/usr/lib/aarch64-linux-gnu/android:${PROBEMOND_AARCH64_OVERLAY}/usr/lib/p7zip")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_link}")

find_program(PROBEMOND_QEMU NAMES qemu-aarch64-static qemu-aarch64 REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${PROBEMOND_QEMU} -L ${PROBEMOND_AARCH64_OVERLAY})
