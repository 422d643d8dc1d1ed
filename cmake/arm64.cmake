# Toolchain for arm64 with Debian's cross compiler; programs that the build runs go through qemu.
# scripts/arm64.sh fills VAKRO_SYSROOT with the libraries.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VAKRO_SYSROOT)
set(libraries ${VAKRO_SYSROOT}/usr/lib/aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR
    qemu-aarch64 -L /usr/aarch64-linux-gnu -E LD_LIBRARY_PATH=${libraries})
set(CMAKE_FIND_ROOT_PATH ${VAKRO_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
foreach(language C CXX)
  set(CMAKE_${language}_FLAGS_INIT "-isystem ${VAKRO_SYSROOT}/usr/include/aarch64-linux-gnu")
endforeach()
add_link_options(-Wl,-rpath-link,${libraries})
