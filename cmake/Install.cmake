# What `cmake --install` puts where. Component runtime: libraries, programs with their manual and completion, and the
# folder for modules of plugins. Component media: what needs FFmpeg. Component web: the page and its server. Components uplink and
# fleet: what copies recordings into the streams of a fleet, and what reads them there. Component dev: headers, and the package files for find_package(calvane) and pkg-config. Component testing: the module of test records,
# which belongs on no device.

include(CMakePackageConfigHelpers)

set(CALVANE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/calvane)
set(CALVANE_LIBRARIES quarn drenn calvane)
set(CALVANE_PLUGINS_DIR ${CMAKE_INSTALL_LIBDIR}/calvane/plugins)

# The libraries find each other, and the programs their libraries, wherever the prefix lies.
set_target_properties(${CALVANE_LIBRARIES} PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS ${CALVANE_LIBRARIES} EXPORT calvaneTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/calvane-1 COMPONENT dev)

# calvane_collect_programs(<variable> <folder>): the programs that a folder and those below it build.
function(calvane_collect_programs variable folder)
  get_property(targets DIRECTORY ${folder} PROPERTY BUILDSYSTEM_TARGETS)
  get_property(subfolders DIRECTORY ${folder} PROPERTY SUBDIRECTORIES)
  set(programs "")
  foreach(target IN LISTS targets)
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "EXECUTABLE")
      list(APPEND programs ${target})
    endif()
  endforeach()
  foreach(subfolder IN LISTS subfolders)
    calvane_collect_programs(more ${subfolder})
    list(APPEND programs ${more})
  endforeach()
  set(${variable} ${programs} PARENT_SCOPE)
endfunction()

calvane_collect_programs(programs ${PROJECT_SOURCE_DIR}/tools)
# Programs that others run, of a component of their own.
if(TARGET calvane-recording-media)
  list(REMOVE_ITEM programs calvane-recording-media)
  set(calvane_libexec_dir ${CMAKE_INSTALL_LIBEXECDIR}/calvane)
  file(RELATIVE_PATH lib_from_libexec ${CMAKE_INSTALL_FULL_LIBEXECDIR}/calvane ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(calvane-recording-media PROPERTIES INSTALL_RPATH "$ORIGIN/${lib_from_libexec}")
  install(TARGETS calvane-recording-media RUNTIME DESTINATION ${calvane_libexec_dir} COMPONENT media)
endif()
if(TARGET calvane-web-fleet)
  list(REMOVE_ITEM programs calvane-web-fleet) # cmake/InstallFleet.cmake
endif()
file(GLOB manual_pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/packaging/man/*.1)
set(completions ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
foreach(program calvane-web calvane-uplink calvane-fleet) # Of components of their own.
  list(REMOVE_ITEM manual_pages ${PROJECT_SOURCE_DIR}/packaging/man/${program}.1)
  list(REMOVE_ITEM programs ${program})
endforeach()
if(programs)
  file(RELATIVE_PATH lib_from_bin ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(${programs} PROPERTIES INSTALL_RPATH "$ORIGIN/${lib_from_bin}")
  install(TARGETS ${programs} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
endif()

# Whatever the umask: modules are not loaded from a folder that others than its owner may write.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# Where modules are looked for; empty until somebody installs one.
install(DIRECTORY DESTINATION ${CALVANE_PLUGINS_DIR} COMPONENT runtime)
install(FILES ${manual_pages}
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/man/calvane.ini.5
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/completions/calvane DESTINATION ${completions} COMPONENT runtime)
foreach(program calvane-recording calvane-recorder calvane-store) # Bash looks for a file of the program's name.
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/completions/calvane-recording
    DESTINATION ${completions} RENAME ${program} COMPONENT runtime)
endforeach()

# Debian's FFmpeg for 32-bit ARM needs a library that asks for an executable stack, which a unit that may not make memory
# executable refuses to load.
set(DENY_EXECUTABLE_MEMORY yes)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm" AND CALVANE_BUILD_MEDIA)
  set(DENY_EXECUTABLE_MEMORY no)
endif()

# calvane_install_unit(<component> <unit>): packaging/systemd/<unit>.in, with the programs' folder in place of @BINDIR@.
# That is known no earlier than when something is installed: `cmake --install --prefix` may name another one.
function(calvane_install_unit component unit)
  install(CODE "
    set(BINDIR \"${CMAKE_INSTALL_BINDIR}\")
    set(DENY_EXECUTABLE_MEMORY ${DENY_EXECUTABLE_MEMORY})
    cmake_path(ABSOLUTE_PATH BINDIR BASE_DIRECTORY \"\${CMAKE_INSTALL_PREFIX}\" NORMALIZE)
    configure_file(\"${PROJECT_SOURCE_DIR}/packaging/systemd/${unit}.in\" \"${CMAKE_BINARY_DIR}/units/${unit}\" @ONLY)
    file(INSTALL \"${CMAKE_BINARY_DIR}/units/${unit}\" DESTINATION \"\${CMAKE_INSTALL_PREFIX}/lib/systemd/system\")"
    COMPONENT ${component})
endfunction()

if(TARGET calvane-web)
  include(${PROJECT_SOURCE_DIR}/cmake/InstallWeb.cmake)
endif()
if(TARGET calvane-uplink)
  include(${PROJECT_SOURCE_DIR}/cmake/InstallFleet.cmake)
endif()

# The recorder as a service of the system: who may be it and ask it, its unit, its user, its folders, its card.
calvane_install_unit(runtime calvane-recorder.service)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/systemd/media-sd.mount DESTINATION lib/systemd/system COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/systemd/calvane-recorder.sysusers
  DESTINATION lib/sysusers.d RENAME calvane-recorder.conf COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/systemd/calvane-recorder.tmpfiles
  DESTINATION lib/tmpfiles.d RENAME calvane-recorder.conf COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/systemd/61-calvane-card.rules
  DESTINATION lib/udev/rules.d COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/dbus/com.drenn.recorder.conf
  DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/system.d COMPONENT runtime)

# The description of the services, and proxies for clients that use sdbus-c++.
file(GLOB service_descriptions CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/platform/drenn/api/*.xml)
install(FILES ${service_descriptions} DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/interfaces COMPONENT dev)
install(DIRECTORY ${CALVANE_SERVICE_HEADERS}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/calvane-1 COMPONENT dev
  FILES_MATCHING PATTERN "*Proxy.h")

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/calvaneConfig.cmake.in
  ${CMAKE_BINARY_DIR}/calvaneConfig.cmake INSTALL_DESTINATION ${CALVANE_PACKAGE_DIR}
  PATH_VARS CALVANE_PLUGINS_DIR NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/calvaneConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/calvaneConfig.cmake ${CMAKE_BINARY_DIR}/calvaneConfigVersion.cmake
              ${PROJECT_SOURCE_DIR}/cmake/calvanePluginModule.cmake
  DESTINATION ${CALVANE_PACKAGE_DIR} COMPONENT dev)
install(EXPORT calvaneTargets NAMESPACE calvane:: DESTINATION ${CALVANE_PACKAGE_DIR} COMPONENT dev)

# For pkg-config; it finds the prefix from where its own file lies, so that this may be moved, too.
set(CALVANE_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH CALVANE_PREFIX_FROM_PKGCONFIG ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" CALVANE_PREFIX_FROM_PKGCONFIG ${CALVANE_PREFIX_FROM_PKGCONFIG})
foreach(kind LIBDIR INCLUDEDIR)
  set(CALVANE_PC_${kind} ${CMAKE_INSTALL_${kind}})
  if(NOT IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
    string(PREPEND CALVANE_PC_${kind} "\${prefix}/")
  endif()
endforeach()
foreach(package calvane drenn quarn)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/pkgconfig/${package}.pc.in ${CMAKE_BINARY_DIR}/${package}.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/${package}.pc DESTINATION ${CALVANE_PKGCONFIG_DIR} COMPONENT dev)
endforeach()
