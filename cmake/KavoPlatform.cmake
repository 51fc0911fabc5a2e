# The platform libraries, as Debian ships them: libbpf, bcc's libbcc_bpf and
# the Android base, log and cutils libraries built for Linux.
find_package(PkgConfig REQUIRED)
pkg_check_modules(LIBBPF REQUIRED IMPORTED_TARGET libbpf)

set(KAVO_ANDROID_LIBDIR /usr/lib/x86_64-linux-gnu/android CACHE PATH "Android platform libraries")
find_path(KAVO_ANDROID_INCLUDE android-base/properties.h PATHS /usr/include/android REQUIRED)
find_library(KAVO_ANDROID_BASE base PATHS ${KAVO_ANDROID_LIBDIR} NO_DEFAULT_PATH REQUIRED)
find_library(KAVO_ANDROID_LOG log PATHS ${KAVO_ANDROID_LIBDIR} NO_DEFAULT_PATH REQUIRED)
find_library(KAVO_ANDROID_CUTILS cutils PATHS ${KAVO_ANDROID_LIBDIR} NO_DEFAULT_PATH REQUIRED)
find_library(KAVO_BCC_BPF bcc_bpf REQUIRED)
find_package(Threads REQUIRED)

add_library(kavo_platform INTERFACE)
add_library(kavo::platform ALIAS kavo_platform)
target_include_directories(kavo_platform SYSTEM INTERFACE ${KAVO_ANDROID_INCLUDE})
target_link_libraries(kavo_platform INTERFACE
  ${KAVO_ANDROID_BASE} ${KAVO_ANDROID_LOG} ${KAVO_ANDROID_CUTILS}
  ${KAVO_BCC_BPF} PkgConfig::LIBBPF Threads::Threads)
# The Android libraries live outside the loader's search path.
target_link_options(kavo_platform INTERFACE "LINKER:-rpath,${KAVO_ANDROID_LIBDIR}")
