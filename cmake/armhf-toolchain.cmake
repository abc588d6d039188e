# Cross build for the recorder: 32-bit ARM, hard-float EABI (arm-linux-gnueabihf), with
# Debian's cross compiler (g++-arm-linux-gnueabihf).
#
# The C library and libstdc++ come with the cross compiler (/usr/arm-linux-gnueabihf). The
# libraries velmar links (TinyXML, the TLS and crypto libraries, GoogleTest/GoogleMock) come
# from Debian's armhf packages unpacked into a sysroot folder; SQLite from its amalgamation
# and TinyXML from its sources for the static program. scripts/cross-build prepares them all:
#
#   cmake -S . -B build-armhf -G Ninja \
#         -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake \
#         -DVELMAR_ARMHF_SYSROOT=$PWD/build-armhf/sysroot \
#         -DVELMAR_SQLITE_SOURCE=$PWD/build-armhf/sqlite \
#         -DVELMAR_TINYXML_SOURCE=$PWD/build-armhf/tinyxml -DVELMAR_BENCH=OFF
#
# With qemu-arm installed, CTest and gtest_discover_tests run the test programs under it.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(VELMAR_ARMHF_TRIPLET arm-linux-gnueabihf)

set(CMAKE_C_COMPILER ${VELMAR_ARMHF_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${VELMAR_ARMHF_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${VELMAR_ARMHF_TRIPLET})

# The sysroot folder may also come from the environment, so that CMake's own try_compile
# projects, which read this file again, see the same one.
if(NOT VELMAR_ARMHF_SYSROOT AND DEFINED ENV{VELMAR_ARMHF_SYSROOT})
  set(VELMAR_ARMHF_SYSROOT "$ENV{VELMAR_ARMHF_SYSROOT}")
endif()
if(NOT VELMAR_ARMHF_SYSROOT)
  get_filename_component(VELMAR_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build-armhf/sysroot"
                         ABSOLUTE)
endif()
set(VELMAR_ARMHF_SYSROOT "${VELMAR_ARMHF_SYSROOT}" CACHE PATH
    "Folder holding the unpacked armhf library packages (usr/include, usr/lib/${VELMAR_ARMHF_TRIPLET})")
set(ENV{VELMAR_ARMHF_SYSROOT} "${VELMAR_ARMHF_SYSROOT}")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VELMAR_ARMHF_SYSROOT)

# Libraries, headers and package files only from the sysroot and the cross C library, never
# from the build machine; programs (python3, ...) from the build machine.
set(CMAKE_FIND_ROOT_PATH "${VELMAR_ARMHF_SYSROOT}" /usr/${VELMAR_ARMHF_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Headers that differ by architecture (a library's configuration header) sit in the multiarch
# folder.
set(CMAKE_C_STANDARD_INCLUDE_DIRECTORIES "${VELMAR_ARMHF_SYSROOT}/usr/include/${VELMAR_ARMHF_TRIPLET}")
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES "${VELMAR_ARMHF_SYSROOT}/usr/include/${VELMAR_ARMHF_TRIPLET}")

# Shared libraries of the sysroot (libsqlite3.so.0, libtinyxml.so.2.6.2) are found at link
# time through -rpath-link; at run time the build tree's RPATH points at the same folder.
set(VELMAR_ARMHF_LIBDIR "${VELMAR_ARMHF_SYSROOT}/usr/lib/${VELMAR_ARMHF_TRIPLET}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${VELMAR_ARMHF_LIBDIR}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${VELMAR_ARMHF_LIBDIR}")

# Test programs run under user-mode QEMU with the cross C library as the root for the
# dynamic loader. A fully static build (VELMAR_FULLY_STATIC, the default of a cross build)
# needs no loader: CMakeLists.txt gives it an empty folder as the root instead.
find_program(VELMAR_QEMU_ARM NAMES qemu-arm qemu-arm-static)
if(VELMAR_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${VELMAR_QEMU_ARM};-L;/usr/${VELMAR_ARMHF_TRIPLET}")
endif()
