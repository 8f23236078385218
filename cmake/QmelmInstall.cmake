# What `cmake --install` puts under a prefix:
#   lib/      libqmhost.so, libqmelm.so, libqmioe.so, libqmhostcm.so (each
#             libX.so.MAJOR.MINOR.PATCH, with its SONAME link libX.so.MAJOR
#             and the libX.so link, in one directory: the host finds the
#             extensions beside itself, by the name lib<name>.so)
#   include/qmelm/        the public C headers, qmhost/qmhost.h (and the test
#                         instruments, qmhost/qmhost_testing.h), and the C++
#                         API qmelm.hpp (-I<prefix>/include/qmelm)
#   bin/qmlock, libexec/qmelm/flock (qmlock under the name flock(1); put that
#             directory first on PATH to have scripts use it),
#             libexec/qmelm/qmlock-manager (the shell and the demo, which qmlock
#             execs; installed by tools/qmlock/CMakeLists.txt),
#   share/man/man1/qmlock.1, share/man/man3/qmelm.3
#   lib/cmake/qmelm/      the CMake package: find_package(qmelm) gives the
#                         imported targets of qmelmTargets.cmake
#   lib/pkgconfig/qmelm.pc
# Every file refers to the others by relative paths, so the tree can be moved.
# Nothing of the project's own warning flags (-Werror) reaches a consumer:
# they are private to each target (cmake/QmelmWarnings.cmake).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(QMELM_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/qmelm)

# The libraries a consumer links, and the headers they carry, as imported
# targets qmelm::<EXPORT_NAME>: cxx, qmhost, qmelm, qmhostcm, headers, public.
install(TARGETS qmhost qmhostcm qmelm qmelm_cxx qmelm_headers qmpublic
        EXPORT qmelmTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS qmioe LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(EXPORT qmelmTargets NAMESPACE qmelm:: DESTINATION ${QMELM_INSTALL_CMAKEDIR})

install(TARGETS qmlock RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/tools/qmlock/qmlock.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${PROJECT_SOURCE_DIR}/man/qmelm.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)
# qmlock needs no run path: it links no library of ours (libqmhostcm.so, for
# --version, is opened by its path relative to the executable), and a run
# path would only send the loader to look for the C library there first.

file(RELATIVE_PATH _qmelm_libexec_to_qmlock /prefix/${CMAKE_INSTALL_LIBEXECDIR}/qmelm
     /prefix/${CMAKE_INSTALL_BINDIR}/qmlock)
install(CODE "
  set(_dir \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBEXECDIR}/qmelm\")
  file(MAKE_DIRECTORY \"\${_dir}\")
  message(STATUS \"Installing: \${_dir}/flock -> ${_qmelm_libexec_to_qmlock}\")
  file(CREATE_LINK \"${_qmelm_libexec_to_qmlock}\" \"\${_dir}/flock\" SYMBOLIC)")

install(FILES
  ${PROJECT_SOURCE_DIR}/qmpublic/public/h/qmioe.h
  ${PROJECT_SOURCE_DIR}/qmpublic/public/h/qmkernel.h
  ${PROJECT_SOURCE_DIR}/qmpublic/public/h/qmtypes.h
  ${PROJECT_SOURCE_DIR}/qmext/h/qmelm.h
  ${PROJECT_SOURCE_DIR}/qmext/h/qmelmmsg.h
  ${PROJECT_SOURCE_DIR}/qmhostcm/include/qmhostcm.h
  ${PROJECT_SOURCE_DIR}/qmhostcm/include/qmversion.h
  ${PROJECT_SOURCE_DIR}/cxx/include/qmelm.hpp
  DESTINATION ${QMELM_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/qmhost/include/qmhost/qmhost.h
              ${PROJECT_SOURCE_DIR}/qmhost/include/qmhost/qmhost_testing.h
        DESTINATION ${QMELM_INSTALL_INCLUDEDIR}/qmhost)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/qmelmConfig.cmake.in
  ${PROJECT_BINARY_DIR}/cmake/qmelmConfig.cmake
  INSTALL_DESTINATION ${QMELM_INSTALL_CMAKEDIR}
  PATH_VARS QMELM_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/cmake/qmelmConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/cmake/qmelmConfig.cmake
              ${PROJECT_BINARY_DIR}/cmake/qmelmConfigVersion.cmake
        DESTINATION ${QMELM_INSTALL_CMAKEDIR})

file(RELATIVE_PATH QMELM_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" QMELM_PC_TO_PREFIX "${QMELM_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/qmelm.pc.in ${PROJECT_BINARY_DIR}/cmake/qmelm.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/cmake/qmelm.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
