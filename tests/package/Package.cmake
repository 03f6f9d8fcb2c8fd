# What the scripts of this folder share. BUILD_DIR is this build, PREFIX where package.install put it, WORK_DIR the
# script's own folder.

function(run)
  execute_process(COMMAND ${ARGV} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

function(expect what got wanted)
  if(NOT got STREQUAL wanted)
    message(FATAL_ERROR "${what} is\n  ${got}\nand not\n  ${wanted}")
  endif()
endfunction()

separate_arguments(EMULATOR)

# A program or module that loads a library with sanitizers must have them itself. Those make g++ warn falsely.
set(flags -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(SANITIZE)
  list(APPEND flags -fsanitize=${SANITIZE})
else()
  list(APPEND flags -Werror)
endif()

# build_project(<source folder> <build folder>): configures and builds a project that finds this package.
function(build_project source build)
  if(TOOLCHAIN)
    set(compiler -D CMAKE_TOOLCHAIN_FILE=${TOOLCHAIN})
  else()
    set(compiler -D CMAKE_CXX_COMPILER=${COMPILER})
  endif()
  list(JOIN flags " " joined)
  run(${CMAKE_COMMAND} -G ${GENERATOR} -S ${source} -B ${build} ${compiler}
      -D CMAKE_BUILD_TYPE=${BUILD_TYPE} -D CMAKE_PREFIX_PATH=${PREFIX} "-D CMAKE_CXX_FLAGS=${joined}")
  run(${CMAKE_COMMAND} --build ${build})
endfunction()

# run_patterns(<assignment>...): runs the description of the example with the installed program in a fresh folder, with
# these environment variables, and checks what the sinks wrote.
function(run_patterns)
  file(REMOVE_RECURSE ${WORK_DIR}/run)
  file(MAKE_DIRECTORY ${WORK_DIR}/run)
  execute_process(
    COMMAND ${CMAKE_COMMAND} -E env ${ARGN} ${EMULATOR} ${PREFIX}/bin/calvane run ${MODULE_DIR}/patterns.ini
    WORKING_DIRECTORY ${WORK_DIR}/run COMMAND_ERROR_IS_FATAL ANY)
  run(${PYTHON} ${CMAKE_CURRENT_LIST_DIR}/check_patterns.py ${WORK_DIR}/run)
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
