# 32-bit ARM, hard float, with Debian's cross compiler; the libraries are those of the folder
# SR_SYSROOT, which scripts/arm-sysroot fills.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES SR_SYSROOT)
if(NOT IS_DIRECTORY "${SR_SYSROOT}/usr/include")
    message(FATAL_ERROR "SR_SYSROOT is not the root of an ARM system: scripts/arm-sysroot makes one")
endif()
set(CMAKE_SYSROOT ${SR_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# gcc 7 changed how some arguments are passed, and tells it at each of them.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

# To run the tests, and screenctl, which makes its completion scripts.
find_program(SR_QEMU_ARM NAMES qemu-arm qemu-arm-static)
if(NOT SR_QEMU_ARM)
    message(FATAL_ERROR "qemu-arm is missing: Debian's package qemu-user has it")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR ${SR_QEMU_ARM} -L ${SR_SYSROOT})
