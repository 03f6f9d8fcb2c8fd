# What `cmake --install` puts where. Component runtime: libraries and programs. Component dev: headers and the
# package files for find_package(calvane).

include(CMakePackageConfigHelpers)

set(CALVANE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/calvane)
set(CALVANE_LIBRARIES quarn calvane)

# The libraries find each other, and the programs their libraries, wherever the prefix lies.
set_target_properties(${CALVANE_LIBRARIES} PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS ${CALVANE_LIBRARIES} EXPORT calvaneTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)

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
if(programs)
  file(RELATIVE_PATH lib_from_bin ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(${programs} PROPERTIES INSTALL_RPATH "$ORIGIN/${lib_from_bin}")
  install(TARGETS ${programs} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
endif()

# Headers keep the paths by which sources include them, below one include root.
file(STRINGS ${PROJECT_SOURCE_DIR}/cmake/private-headers.txt private_headers REGEX "^[^#]")
set(exclusions PATTERN "*Impl.h" EXCLUDE)
foreach(header IN LISTS private_headers)
  list(APPEND exclusions PATTERN "${header}" EXCLUDE)
endforeach()
foreach(folder platform/quarn calvane)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/${folder}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/calvane-1 COMPONENT dev
    FILES_MATCHING PATTERN "*.h" ${exclusions})
endforeach()

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/calvaneConfig.cmake.in
  ${CMAKE_BINARY_DIR}/calvaneConfig.cmake INSTALL_DESTINATION ${CALVANE_PACKAGE_DIR}
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/calvaneConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/calvaneConfig.cmake ${CMAKE_BINARY_DIR}/calvaneConfigVersion.cmake
  DESTINATION ${CALVANE_PACKAGE_DIR} COMPONENT dev)
install(EXPORT calvaneTargets NAMESPACE calvane:: DESTINATION ${CALVANE_PACKAGE_DIR} COMPONENT dev)
