# The component web: the page, its server, and the server as a service of the system.
file(RELATIVE_PATH lib_from_bin ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set_target_properties(calvane-web PROPERTIES INSTALL_RPATH "$ORIGIN/${lib_from_bin}")
install(TARGETS calvane-web RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT web)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/tools/calvane-web/page/
  DESTINATION ${CMAKE_INSTALL_DATADIR}/calvane/web COMPONENT web
  FILES_MATCHING PATTERN "*.html" PATTERN "*.js" PATTERN "*.css" PATTERN "*.svg")
install(FILES ${PROJECT_SOURCE_DIR}/packaging/man/calvane-web.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT web)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/completions/calvane-recording
  DESTINATION ${completions} RENAME calvane-web COMPONENT web)
calvane_install_unit(web calvane-web.service)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/systemd/calvane-web.socket DESTINATION lib/systemd/system COMPONENT web)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/systemd/calvane-web.sysusers
  DESTINATION lib/sysusers.d RENAME calvane-web.conf COMPONENT web)
