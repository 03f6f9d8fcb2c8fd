# What the author of a module does: copies the example, builds and tests it against the installed package, runs its
# description from the build folder, installs it, and runs the description again.
include(${CMAKE_CURRENT_LIST_DIR}/Package.cmake)

set(installed ${PREFIX}/${LIBDIR}/calvane/plugins/patterns.so)
file(REMOVE ${installed})
file(COPY ${MODULE_DIR}/ DESTINATION ${WORK_DIR}/source)
build_project(${WORK_DIR}/source ${WORK_DIR}/build)
run(${CTEST} --test-dir ${WORK_DIR}/build --output-on-failure --no-tests=error)
run_patterns(CALVANE_PLUGIN_PATH=${WORK_DIR}/build)
run(${CMAKE_COMMAND} --install ${WORK_DIR}/build --prefix ${PREFIX})
run_patterns()
file(REMOVE ${installed}) # Others shall not find it by chance.
