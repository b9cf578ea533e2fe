# Cross-build for the appliance: 32-bit big-endian PowerPC, with Debian's
# g++-powerpc-linux-gnu. Given -DCMAKE_SYSROOT=<dir>, it builds against the
# appliance SDK's sysroot there; otherwise against Debian's cross C library.
# ctest runs the programs under qemu-user with the same sysroot.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR powerpc)
set(CMAKE_C_COMPILER powerpc-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER powerpc-linux-gnu-g++)

if(CMAKE_SYSROOT)
  set(VYRA_TARGET_ROOT ${CMAKE_SYSROOT})
else()
  set(VYRA_TARGET_ROOT /usr/powerpc-linux-gnu)
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-ppc -L ${VYRA_TARGET_ROOT})
set(CMAKE_FIND_ROOT_PATH ${VYRA_TARGET_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
