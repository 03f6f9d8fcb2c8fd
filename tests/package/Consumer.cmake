# Builds and runs a program against the installed CMake package.
include(${CMAKE_CURRENT_LIST_DIR}/Package.cmake)

build_project(${CMAKE_CURRENT_LIST_DIR}/consumer ${WORK_DIR}/build)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build --target run)
