# What `cmake --install` lays down, and the CMake and pkg-config packages that another daemon builds against.
include(CMakePackageConfigHelpers)

install(TARGETS scsipool_platform scsipool EXPORT scsipool
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/scsipool)
if(TARGET scsipoold)
  install(TARGETS scsipoold RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
endif()
if(TARGET scsipoolctl)
  install(TARGETS scsipoolctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# Headers keep their folders, because they include each other from the top.
foreach(folder platform backup)
  install(DIRECTORY ${CMAKE_SOURCE_DIR}/${folder} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/scsipool
          FILES_MATCHING PATTERN "*.h")
endforeach()

install(EXPORT scsipool NAMESPACE scsipool:: FILE scsipool-targets.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/scsipool)
configure_package_config_file(cmake/scsipool-config.cmake.in ${CMAKE_BINARY_DIR}/scsipool-config.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/scsipool)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/scsipool-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/scsipool-config.cmake ${CMAKE_BINARY_DIR}/scsipool-config-version.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/scsipool)
configure_file(cmake/scsipool.pc.in ${CMAKE_BINARY_DIR}/scsipool.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/scsipool.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

file(GLOB manuals ${CMAKE_SOURCE_DIR}/docs/*.8)
install(FILES ${manuals} DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
# The service runs the daemon from where it is installed.
file(READ packaging/scsipoold.service service)
string(REPLACE "ExecStart=/usr/sbin/" "ExecStart=${CMAKE_INSTALL_FULL_SBINDIR}/" service "${service}")
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/scsipoold.service CONTENT "${service}" @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/scsipoold.service DESTINATION lib/systemd/system)
# The configuration that the daemon reads by itself, whatever the prefix is. One that is there is the administrator's.
install(CODE "
  set(folder \"\$ENV{DESTDIR}/etc/scsipool\")
  file(MAKE_DIRECTORY \${folder})
  if(EXISTS \${folder}/scsipool.json)
    message(STATUS \"Kept: \${folder}/scsipool.json\")
  else()
    message(STATUS \"Installing: \${folder}/scsipool.json\")
    file(COPY ${CMAKE_SOURCE_DIR}/packaging/scsipool.json DESTINATION \${folder}
         FILE_PERMISSIONS OWNER_READ OWNER_WRITE)
  endif()")
install(FILES ${CMAKE_SOURCE_DIR}/packaging/scsipool-tls.json ${CMAKE_SOURCE_DIR}/packaging/scsipool-svc.json
              ${CMAKE_SOURCE_DIR}/packaging/svc.conf
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES ${CMAKE_SOURCE_DIR}/docs/operations.md ${CMAKE_SOURCE_DIR}/docs/replication.md
              ${CMAKE_SOURCE_DIR}/docs/openapi.yaml
        DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES ${CMAKE_SOURCE_DIR}/ctl/scsipoolctl.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME scsipoolctl)
