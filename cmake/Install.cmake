# Installation: the library and the records library with their sonames,
# headers, pkg-config files and CMake package; the virtual scanner where the command finds it; the command's
# data (man pages, completion, udev rule, settings file).
include(CMakePackageConfigHelpers)

set(TAVK05_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tavk05)

# The runtime keeps the unversioned name too: hosts dlopen "libtavk05.so".
install(TARGETS tavk05 EXPORT tavk05Targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT runtime)
install(DIRECTORY include/tavk05 DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev
        FILES_MATCHING PATTERN "*.h" PATTERN "virtual.h" EXCLUDE)
install(FILES ${PROJECT_BINARY_DIR}/include/tavk05/version.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tavk05 COMPONENT dev)

configure_file(cmake/tavk05.pc.in ${PROJECT_BINARY_DIR}/tavk05.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tavk05.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

install(EXPORT tavk05Targets NAMESPACE tavk05:: DESTINATION ${TAVK05_CMAKE_DIR} COMPONENT dev)

# The records library: its runtime with the soname, the development link,
# its pkg-config file, and its imported target tavk05::records as the
# "records" component of the same CMake package (its header, records.h,
# installs with the others above).
install(TARGETS tavk05-records EXPORT tavk05RecordsTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT records NAMELINK_COMPONENT dev)
configure_file(cmake/tavk05-records.pc.in ${PROJECT_BINARY_DIR}/tavk05-records.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tavk05-records.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
install(EXPORT tavk05RecordsTargets NAMESPACE tavk05:: DESTINATION ${TAVK05_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(cmake/tavk05Config.cmake.in ${PROJECT_BINARY_DIR}/tavk05Config.cmake
                              INSTALL_DESTINATION ${TAVK05_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tavk05ConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tavk05Config.cmake ${PROJECT_BINARY_DIR}/tavk05ConfigVersion.cmake
        DESTINATION ${TAVK05_CMAKE_DIR} COMPONENT dev)

install(TARGETS tavk05-virtual LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/tavk05 COMPONENT virtual)
install(FILES include/tavk05/virtual.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tavk05 COMPONENT virtual)

install(FILES man/tavk05.1 man/tavk05-serve.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT command)
install(FILES man/tavk05-virtual.7 DESTINATION ${CMAKE_INSTALL_MANDIR}/man7 COMPONENT virtual)
install(FILES data/bash-completion/tavk05
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions COMPONENT command)
# Debian keeps udev rules under /lib (not /usr/lib) for a /usr prefix.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(TAVK05_UDEV_DIR /lib/udev/rules.d)
else()
  set(TAVK05_UDEV_DIR lib/udev/rules.d)
endif()
install(FILES data/udev/60-tavk05.rules DESTINATION ${TAVK05_UDEV_DIR} COMPONENT command)
# The settings file holds the workstation's own settings once a sensor has
# been used: an install puts the defaults there only where there is none yet.
# The defaults also go to the data directory, from which the Debian package's
# maintainer scripts make the file (it is not a conffile: the library rewrites it).
install(FILES data/tavk05rf.conf DESTINATION ${CMAKE_INSTALL_DATADIR}/tavk05 COMPONENT command)
install(CODE "
  set(_conf \"\$ENV{DESTDIR}${CMAKE_INSTALL_FULL_SYSCONFDIR}/tavk05rf.conf\")
  if(EXISTS \"\${_conf}\" OR IS_SYMLINK \"\${_conf}\")
    message(STATUS \"Kept as it is: \${_conf}\")
  else()
    file(INSTALL \"${PROJECT_SOURCE_DIR}/data/tavk05rf.conf\"
         DESTINATION \"${CMAKE_INSTALL_FULL_SYSCONFDIR}\")
  endif()" COMPONENT command)
