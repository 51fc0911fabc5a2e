# What `cmake --install` puts under the prefix:
#
#   bin/      kavobpfd, kavobpf_loader, kavobpf_client
#   lib/      libkavobpfservice.so, libkavobpfclient.so.1 (and .a)
#   include/  kavobpf/kavobpf_client.h and the record layouts it includes
#   lib/pkgconfig/kavobpfclient.pc          pkg-config --cflags --libs kavobpfclient
#   lib/cmake/KavoBpfClient/                find_package(KavoBpfClient) -> KavoBpfClient::kavobpfclient
#   lib/systemd/system/kavobpfd.service     loads the programs, then runs kavobpfd
include(CMakePackageConfigHelpers)

install(TARGETS kavobpfservice LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS kavobpfd kavobpf_loader kavobpf_client RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS kavobpfclient kavobpfclient_static EXPORT KavoBpfClientTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${CMAKE_SOURCE_DIR}/kavo_bpf_framework/client/kavobpf/kavobpf_client.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kavobpf)
install(FILES ${CMAKE_SOURCE_DIR}/kavo_bpf_framework/bpf/kavo_bpf_records.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kavobpf/bpf)

set(KAVO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/KavoBpfClient)
install(EXPORT KavoBpfClientTargets NAMESPACE KavoBpfClient:: DESTINATION ${KAVO_CMAKE_DIR})
configure_package_config_file(${CMAKE_SOURCE_DIR}/packaging/KavoBpfClientConfig.cmake.in
  ${CMAKE_BINARY_DIR}/packaging/KavoBpfClientConfig.cmake INSTALL_DESTINATION ${KAVO_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/packaging/KavoBpfClientConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/packaging/KavoBpfClientConfig.cmake
  ${CMAKE_BINARY_DIR}/packaging/KavoBpfClientConfigVersion.cmake DESTINATION ${KAVO_CMAKE_DIR})

# The .pc file and the unit name their paths under the prefix given at
# install time, not at configure time.
install(CODE "
  set(KAVO_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  set(KAVO_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
  set(KAVO_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
  set(KAVO_BINDIR \"${CMAKE_INSTALL_BINDIR}\")
  set(KAVO_VERSION \"${PROJECT_VERSION}\")
  set(KAVO_ANDROID_LIBDIR \"${KAVO_ANDROID_LIBDIR}\")
  configure_file(\"${CMAKE_SOURCE_DIR}/packaging/kavobpfclient.pc.in\"
    \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig/kavobpfclient.pc\" @ONLY)
  configure_file(\"${CMAKE_SOURCE_DIR}/packaging/kavobpfd.service.in\"
    \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/lib/systemd/system/kavobpfd.service\" @ONLY)
  message(STATUS \"Installing: \$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig/kavobpfclient.pc\")
  message(STATUS \"Installing: \$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/lib/systemd/system/kavobpfd.service\")
")
