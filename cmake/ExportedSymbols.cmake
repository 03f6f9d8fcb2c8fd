# calvane_exported_symbols(<library>): the library exports what <library>.map beside its CMakeLists.txt lets through.
function(calvane_exported_symbols library)
  set(map ${CMAKE_CURRENT_SOURCE_DIR}/${library}.map)
  target_link_options(${library} PRIVATE LINKER:--version-script=${map} LINKER:-Bsymbolic-functions)
  set_property(TARGET ${library} APPEND PROPERTY LINK_DEPENDS ${map})
endfunction()
