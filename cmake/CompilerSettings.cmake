# Settings of every target of this build. A consumer of the installed libraries gets none of them.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

# 64-bit file offsets and times on 32-bit targets too: without this a write at 5 GiB lands at 1 GiB.
add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wundef
                    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor> $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>)
if(CALVANE_WERROR)
  add_compile_options(-Werror)
endif()

# Calls within a library go straight to the function, not through the procedure linkage table: nobody replaces
# functions of these libraries at load time. ExportedSymbols.cmake tells the linker the same.
add_compile_options(-fno-semantic-interposition)

if(CALVANE_BUILD_FUZZERS)
  # So that the fuzzer sees which ways through the libraries an input takes.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
if(CALVANE_SANITIZE)
  add_compile_options(-fsanitize=${CALVANE_SANITIZE} -fno-omit-frame-pointer -O1)
  add_link_options(-fsanitize=${CALVANE_SANITIZE})
  # What the sanitizers put in makes g++ 12 see uninitialised members in the standard library's own headers.
  add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-error=maybe-uninitialized>)
  if(CALVANE_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
else()
  # A library with an undefined symbol fails here and not when a device loads it.
  add_link_options(LINKER:--no-undefined LINKER:--as-needed)
endif()
