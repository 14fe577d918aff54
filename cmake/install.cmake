# What `cmake --install` lays out under the prefix (lib is the platform's library folder,
# lib/x86_64-linux-gnu for the prefix /usr on Debian):
#   bin/tuqvu, bin/tuqvu-call                      (installed by platform/broker)
#   lib/libtuqvucore.so, libtuqvuproject.so, libtuqvumodules.so, libzrbehaviormanager.so
#   include/tuqvu/zr, include/tuqvu/vu             headers for people writing their own modules
#   include/tuqvu/behaviormanager/binding          the typed call layer of a method table
#   lib/pkgconfig/tuqvu.pc                         Cflags -I<prefix>/include/tuqvu
#   share/tuqvu/behaviors                          the sample behaviors (the system library)
#   share/tuqvu/ui                                 the dashboard the broker serves at /ui/
#   share/bash-completion/completions/tuqvu-call, share/man/man1/*.1
#   lib/systemd/system/tuqvu.service               (<prefix>/lib, as systemd looks in /usr/lib)
# The pkg-config file and the unit name paths under the prefix; they are written when
# installing, so that `cmake --install build --prefix DIR` gets DIR in them, not the
# prefix the build was configured with.

set(_tuqvu_libraries tuqvu_core tuqvu_project tuqvu_modules zrbehaviormanager)
foreach(target ${_tuqvu_libraries})
  if(TARGET ${target})
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN")
    install(TARGETS ${target} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  endif()
endforeach()

set(_tuqvu_includedir ${CMAKE_INSTALL_INCLUDEDIR}/tuqvu)
install(DIRECTORY platform/core/include/zr platform/core/include/vu DESTINATION ${_tuqvu_includedir})
install(DIRECTORY platform/project/include/vu DESTINATION ${_tuqvu_includedir})
install(DIRECTORY platform/modules/include/zr DESTINATION ${_tuqvu_includedir})
install(DIRECTORY behavior/behaviormanager/binding/include/behaviormanager
        DESTINATION ${_tuqvu_includedir})

install(DIRECTORY share/tuqvu DESTINATION ${CMAKE_INSTALL_DATADIR})

# configure_file at install time, with the prefix being installed to; file(INSTALL)
# then honours DESTDIR and lists the file in install_manifest.txt.
function(tuqvu_install_configured input output destination)
  install(CODE "
    set(PROJECT_VERSION \"${PROJECT_VERSION}\")
    set(CMAKE_INSTALL_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
    set(CMAKE_INSTALL_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
    set(CMAKE_INSTALL_BINDIR \"${CMAKE_INSTALL_BINDIR}\")
    configure_file(\"${CMAKE_SOURCE_DIR}/${input}\"
                   \"${CMAKE_BINARY_DIR}/install-configured/${output}\" @ONLY)
    file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${destination}\" TYPE FILE
         FILES \"${CMAKE_BINARY_DIR}/install-configured/${output}\")
  ")
endfunction()

tuqvu_install_configured(packaging/tuqvu.pc.in tuqvu.pc ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES packaging/tuqvu-call.bash-completion
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME tuqvu-call)
install(FILES packaging/tuqvu.1 packaging/tuqvu-call.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

tuqvu_install_configured(packaging/tuqvu.service.in tuqvu.service lib/systemd/system)

# Debian package (scripts/package.sh).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tuqvu)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "TUQvu developers <tuqvu@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "TUQvu robot middleware broker with its behavior manager")
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# What dpkg-shlibdeps finds for the binaries and libraries of a Debian 12 build, and
# adduser for the service account.
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "adduser, libarchive13 (>= 3.0.4), libboost-filesystem1.74.0 (>= 1.74.0+ds1), libboost-thread1.74.0 (>= 1.74.0+ds1), libc6 (>= 2.34), libgcc-s1 (>= 3.0), libgsoap-2.8.124 (>= 2.8.124), libprometheus-cpp-core1.0 (>= 1.0.1), libpugixml1v5 (>= 1.6), libstdc++6 (>= 12)")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_SOURCE_DIR}/packaging/debian/postinst
    ${CMAKE_SOURCE_DIR}/packaging/debian/prerm
    ${CMAKE_SOURCE_DIR}/packaging/debian/postrm)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# Install into a staging DESTDIR with CMAKE_INSTALL_PREFIX=/usr, so that the files
# written at install time name /usr and not the staging folder.
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_PREFIX /usr)
include(CPack)
