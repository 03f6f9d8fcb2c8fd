# calvane_public_headers(<library> <include root>): every header below the current folder is public and installed under
# the path by which sources include it, unless it stands in a folder named "internal".
function(calvane_public_headers library root)
  file(GLOB_RECURSE headers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
  list(FILTER headers EXCLUDE REGEX "/internal/")
  target_sources(${library} PUBLIC FILE_SET HEADERS BASE_DIRS ${root} FILES ${headers})
  set_target_properties(${library} PROPERTIES VERIFY_INTERFACE_HEADER_SETS ON)
endfunction()
