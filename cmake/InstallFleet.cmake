# The components uplink, which a device has, with the uplink as a service of the system, and fleet, which asks a fleet's streams.
file(RELATIVE_PATH lib_from_bin ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
foreach(component uplink fleet)
  set(program calvane-${component})
  set_target_properties(${program} PROPERTIES INSTALL_RPATH "$ORIGIN/${lib_from_bin}")
  install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${component})
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/man/${program}.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${component})
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/completions/calvane-recording
    DESTINATION ${completions} RENAME ${program} COMPONENT ${component})
endforeach()
if(TARGET calvane-web-fleet) # What calvane-web runs with --fleet.
  file(RELATIVE_PATH lib_from_libexec ${CMAKE_INSTALL_FULL_LIBEXECDIR}/calvane ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(calvane-web-fleet PROPERTIES INSTALL_RPATH "$ORIGIN/${lib_from_libexec}")
  install(TARGETS calvane-web-fleet RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/calvane COMPONENT fleet)
endif()
calvane_install_unit(uplink calvane-uplink.service)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/systemd/calvane-uplink.sysusers
  DESTINATION lib/sysusers.d RENAME calvane-uplink.conf COMPONENT uplink)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/dbus/com.drenn.uplink.conf
  DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/system.d COMPONENT uplink)
