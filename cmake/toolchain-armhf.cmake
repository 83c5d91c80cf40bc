# Cross build for 32-bit ARM Linux (arm-linux-gnueabihf), the ABI libVistrel
# ships on, with Debian's cross compiler and its C and C++ runtime under
# /usr/arm-linux-gnueabihf.
#
# The armhf packages the build needs (the AOSP libraries, GoogleTest and
# GoogleMock, 7z.so for libbacktrace) are unpacked under VISTREL_PACKAGE_ROOT
# instead of being installed next to the host's own; tools/ci/armhf.sh does
# that. Test executables run under qemu-arm through tools/ci/qemu-armhf.sh.
#
#   cmake -S . -B build-armhf/build -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake \
#         -DVISTREL_PACKAGE_ROOT=$PWD/build-armhf/sysroot

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# GCC notes on every std::vector iterator passed by value that its ARM calling
# convention changed in GCC 7.1; everything here is built by one compiler.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# try_compile() projects read this file again; they need the same root.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VISTREL_PACKAGE_ROOT)
if(NOT VISTREL_PACKAGE_ROOT)
    message(FATAL_ERROR "set VISTREL_PACKAGE_ROOT to the folder the armhf packages are unpacked in")
endif()

# Libraries, headers and CMake packages come from the unpacked packages or the
# cross runtime, never from the host; programs (python3, edid-decode) from the host.
set(CMAKE_FIND_ROOT_PATH ${VISTREL_PACKAGE_ROOT} /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The AOSP libraries need their own dependencies at link time (libbase,
# libbacktrace and its 7z.so); their run paths name /usr, which the linker
# would resolve on the host.
set(_vistrel_rpath_link
    "-Wl,-rpath-link,${VISTREL_PACKAGE_ROOT}/usr/lib/arm-linux-gnueabihf/android:${VISTREL_PACKAGE_ROOT}/usr/lib/p7zip")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_vistrel_rpath_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_vistrel_rpath_link}")

# ctest and gtest_discover_tests run every test executable through qemu-arm.
get_filename_component(_vistrel_qemu ${CMAKE_CURRENT_LIST_DIR}/../tools/ci/qemu-armhf.sh ABSOLUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR ${_vistrel_qemu} ${VISTREL_PACKAGE_ROOT})
