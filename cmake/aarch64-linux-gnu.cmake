# Cross build for 64-bit Arm (aarch64-linux-gnu) with Debian's cross compiler.
#
#   Debian multiarch (what `./dev build --arch arm64` uses): the arm64 -dev packages live beside the
#   PC's own under /usr/lib/aarch64-linux-gnu and /usr/include/aarch64-linux-gnu; Qt's moc/rcc
#   come from the PC's qtbase5-dev-tools.
#     cmake -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
#
#   A device SDK's sysroot instead:
#     cmake -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake -DORVELLO_USE_DEVICE_SDK=ON
#           -DVRAX_SDK_SYSROOT=/path/to/sysroot
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

if(DEFINED VRAX_SDK_SYSROOT)
  set(CMAKE_SYSROOT ${VRAX_SDK_SYSROOT})
  set(CMAKE_FIND_ROOT_PATH ${VRAX_SDK_SYSROOT})
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
else()
  # Only the arm64 pkg-config files: the PC's would hand x86-64 libraries to the arm64 linker.
  set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig")
  set(ENV{PKG_CONFIG_PATH} "")
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# Tests run under Debian's qemu-user; CTest prefixes every test command with this.
find_program(ORVELLO_QEMU_AARCH64 qemu-aarch64)
if(ORVELLO_QEMU_AARCH64 AND NOT DEFINED VRAX_SDK_SYSROOT)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${ORVELLO_QEMU_AARCH64})
endif()
