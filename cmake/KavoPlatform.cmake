# The platform libraries, as Debian ships them: libbpf, bcc's libbcc_bpf and
# the Android base, log and cutils libraries built for Linux.
#
#   kavo::android   log, base, cutils and threads: all the IPC framework and
#                   the client library need
#   kavo::platform  kavo::android plus libbpf and libbcc_bpf: the service
find_package(PkgConfig REQUIRED)
pkg_check_modules(LIBBPF REQUIRED IMPORTED_TARGET libbpf)

set(KAVO_ANDROID_LIBDIR /usr/lib/x86_64-linux-gnu/android CACHE PATH "Android platform libraries")
find_path(KAVO_ANDROID_INCLUDE android-base/properties.h PATHS /usr/include/android REQUIRED)
find_library(KAVO_ANDROID_BASE base PATHS ${KAVO_ANDROID_LIBDIR} NO_DEFAULT_PATH REQUIRED)
find_library(KAVO_ANDROID_LOG log PATHS ${KAVO_ANDROID_LIBDIR} NO_DEFAULT_PATH REQUIRED)
find_library(KAVO_ANDROID_CUTILS cutils PATHS ${KAVO_ANDROID_LIBDIR} NO_DEFAULT_PATH REQUIRED)
find_library(KAVO_BCC_BPF bcc_bpf REQUIRED)
find_package(Threads REQUIRED)

add_library(kavo_android INTERFACE)
add_library(kavo::android ALIAS kavo_android)
target_include_directories(kavo_android SYSTEM INTERFACE ${KAVO_ANDROID_INCLUDE})
target_link_libraries(kavo_android INTERFACE
  ${KAVO_ANDROID_BASE} ${KAVO_ANDROID_LOG} ${KAVO_ANDROID_CUTILS} Threads::Threads)

add_library(kavo_platform INTERFACE)
add_library(kavo::platform ALIAS kavo_platform)
target_link_libraries(kavo_platform INTERFACE kavo::android ${KAVO_BCC_BPF} PkgConfig::LIBBPF)

# The Android libraries live outside the loader's search path: every binary
# finds them through its run path, in the build tree and once installed; an
# installed binary finds the project's own libraries beside it.
include(GNUInstallDirs)
set(CMAKE_BUILD_RPATH ${KAVO_ANDROID_LIBDIR})
file(RELATIVE_PATH KAVO_BIN_TO_LIB ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set(CMAKE_INSTALL_RPATH "$ORIGIN/${KAVO_BIN_TO_LIB};${KAVO_ANDROID_LIBDIR}")
