# The device: 32-bit ARM, hard float, little-endian, with Debian's cross compiler. Programs of the
# target run here through qemu's user-mode emulation, which needs no support in the kernel.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(IPACL_TARGET arm-linux-gnueabihf)

set(CMAKE_C_COMPILER ${IPACL_TARGET}-gcc)
set(CMAKE_CXX_COMPILER ${IPACL_TARGET}-g++)

# g++ notes at every vector of records that their passing changed with version 7; all is built here.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

# The target's own packages lie beside the host's, in folders named after the target.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(IPACL_PKG_CONFIG_LIBDIR /usr/lib/${IPACL_TARGET}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_LIBDIR} ${IPACL_PKG_CONFIG_LIBDIR})

# The C library of the cross compiler lies elsewhere and may be of another release than the packages'
# own: programs run with the latter alone, as loader and library must match.
find_program(IPACL_QEMU NAMES qemu-arm qemu-arm-static)
if(IPACL_QEMU)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${IPACL_QEMU} -L /)
endif()

# There is no GoogleTest of the target's; the sources that come with Debian's are built along.
set(IPACL_GTEST_SOURCE /usr/src/googletest CACHE PATH "GoogleTest's sources")
