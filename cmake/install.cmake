# What `cmake --install` lays out under the prefix:
#   bin/tuqvu, bin/tuqvu-call                      (installed by platform/broker)
#   lib/libtuqvucore.so, libtuqvuproject.so, libtuqvumodules.so, libzrbehaviormanager.so
#   include/zr, include/vu                         headers for people writing their own modules
#   lib/pkgconfig/tuqvu.pc
#   share/tuqvu/behaviors                          the sample behaviors (the system library)
#   share/bash-completion/completions/tuqvu-call, share/man/man1/*.1
#   lib/systemd/system/tuqvu.service

set(_tuqvu_libraries tuqvu_core tuqvu_project tuqvu_modules zrbehaviormanager)
foreach(target ${_tuqvu_libraries})
  if(TARGET ${target})
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN")
    install(TARGETS ${target} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  endif()
endforeach()

install(DIRECTORY platform/include/zr platform/include/vu
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY platform/project/include/vu DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY platform/modules/include/zr DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY behavior/behaviormanager/binding/zr DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(DIRECTORY share/tuqvu DESTINATION ${CMAKE_INSTALL_DATADIR})

configure_file(packaging/tuqvu.pc.in ${CMAKE_BINARY_DIR}/tuqvu.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/tuqvu.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES packaging/tuqvu-call.bash-completion
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME tuqvu-call)
install(FILES packaging/tuqvu.1 packaging/tuqvu-call.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

configure_file(packaging/tuqvu.service.in ${CMAKE_BINARY_DIR}/tuqvu.service @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/tuqvu.service DESTINATION lib/systemd/system)

# Debian package (scripts/package.sh).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tuqvu)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "TUQvu developers <tuqvu@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "TUQvu robot middleware broker with its behavior manager")
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "libboost-filesystem1.74.0, libboost-thread1.74.0, libboost-program-options1.74.0, libgsoap-2.8.124, libpugixml1v5, libarchive13")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_SOURCE_DIR}/packaging/debian/postinst
    ${CMAKE_SOURCE_DIR}/packaging/debian/prerm
    ${CMAKE_SOURCE_DIR}/packaging/debian/postrm)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
include(CPack)
