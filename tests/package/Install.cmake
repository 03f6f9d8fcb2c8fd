# Installs the build for the other scripts, and its components by themselves: each file belongs to one of them, and
# what is needed to run needs nothing of the other.
include(${CMAKE_CURRENT_LIST_DIR}/Package.cmake)

file(REMOVE_RECURSE ${PREFIX})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX})
foreach(component runtime dev media web)
  run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/${component} --component ${component})
  file(GLOB_RECURSE ${component} RELATIVE ${WORK_DIR}/${component} ${WORK_DIR}/${component}/*)
endforeach()

file(GLOB_RECURSE all RELATIVE ${PREFIX} ${PREFIX}/*)
set(together ${runtime} ${dev} ${media} ${web})
list(SORT together)
list(SORT all)
expect("What the components install" "${together}" "${all}")

foreach(path bin/calvane share/man/man1/calvane.1 share/man/man5/calvane.ini.5
        share/bash-completion/completions/calvane share/bash-completion/completions/calvane-store ${LIBDIR}/calvane/plugins)
  if(NOT EXISTS ${WORK_DIR}/runtime/${path})
    message(FATAL_ERROR "The component runtime has no ${path}")
  endif()
endforeach()
list(FILTER runtime INCLUDE REGEX "\\.(h|cmake|pc)$|/lib[a-z]+\\.so$")
expect("What the component runtime has for building" "${runtime}" "")
run(${EMULATOR} ${WORK_DIR}/runtime/bin/calvane plugins)
# The programs for media are found from those of the component runtime.
if(media AND NOT EMULATOR)
  execute_process(COMMAND ${PREFIX}/bin/calvane-recording export --card ${WORK_DIR} out.mkv
    ERROR_VARIABLE answer RESULT_VARIABLE status)
  if(NOT status EQUAL 1 OR answer MATCHES "component")
    message(FATAL_ERROR "calvane-recording export ends with ${status}: ${answer}")
  endif()
endif()
