# Installs BUILD_DIR below WORK_DIR, then configures, builds and runs the program of CONSUMER_DIR there.

function(run)
  execute_process(COMMAND ${ARGV} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix)

# A program that loads a library with sanitizers must have them itself.
set(flags "")
if(SANITIZE)
  set(flags "-fsanitize=${SANITIZE}")
endif()
if(TOOLCHAIN)
  set(compiler -D CMAKE_TOOLCHAIN_FILE=${TOOLCHAIN})
else()
  set(compiler -D CMAKE_CXX_COMPILER=${COMPILER})
endif()
run(${CMAKE_COMMAND} -G ${GENERATOR} -S ${CONSUMER_DIR} -B ${WORK_DIR}/build ${compiler}
    -D CMAKE_BUILD_TYPE=${BUILD_TYPE} -D CMAKE_PREFIX_PATH=${WORK_DIR}/prefix "-D CMAKE_CXX_FLAGS=${flags}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build --target run)
