# The same without CMake: builds a program and a module with what pkg-config says.
include(${CMAKE_CURRENT_LIST_DIR}/Package.cmake)

set(ENV{PKG_CONFIG_LIBDIR} ${PREFIX}/${LIBDIR}/pkgconfig)

# ask(<variable> <package> <option>...): what pkg-config answers.
function(ask variable package)
  execute_process(COMMAND ${PKG_CONFIG} ${ARGN} ${package}
    OUTPUT_VARIABLE answer OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  set(${variable} ${answer} PARENT_SCOPE)
endfunction()

ask(version calvane --modversion)
expect("The version" "${version}" "${VERSION}")
ask(plugins_dir calvane --variable=pluginsdir)
file(REAL_PATH ${plugins_dir} plugins_dir)
file(REAL_PATH ${PREFIX}/${LIBDIR}/calvane/plugins wanted)
expect("pluginsdir" "${plugins_dir}" "${wanted}")

ask(options calvane --cflags --libs)
separate_arguments(options)
set(compile ${COMPILER} -std=c++17 ${flags})
if(SYSROOT)
  list(APPEND compile --sysroot=${SYSROOT})
endif()

run(${compile} ${CMAKE_CURRENT_LIST_DIR}/consumer/main.cpp -o ${WORK_DIR}/consumer ${options})
run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${PREFIX}/${LIBDIR} ${EMULATOR} ${WORK_DIR}/consumer)

# The interfaces for C, by themselves and with all else.
foreach(package drenn calvane)
  ask(c_options ${package} --cflags --libs)
  separate_arguments(c_options)
  run(${compile} -x c++ ${CMAKE_CURRENT_LIST_DIR}/consumer/settings.c -x none -o ${WORK_DIR}/settings-${package} ${c_options})
  run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${PREFIX}/${LIBDIR} DRENN_SETTINGS=${WORK_DIR}/settings-${package}.db
      ${EMULATOR} ${WORK_DIR}/settings-${package})
endforeach()

file(GLOB sources ${MODULE_DIR}/*.cpp)
list(FILTER sources EXCLUDE REGEX Test)
file(MAKE_DIRECTORY ${WORK_DIR}/plugins)
run(${compile} -shared -fPIC -fvisibility=hidden ${sources} -o ${WORK_DIR}/plugins/patterns.so ${options})
run_patterns(CALVANE_PLUGIN_PATH=${WORK_DIR}/nowhere:${WORK_DIR}/plugins)
