# calvane_add_plugin_module(<name> <source>...): a module of plugins for calvane, the file <name>.so. `cmake --install`
# puts it into lib/calvane/plugins of the prefix: with the prefix of calvane itself, that is calvane_PLUGINS_DIR,
# where modules are looked for.
function(calvane_add_plugin_module name)
  add_library(${name} MODULE ${ARGN})
  target_link_libraries(${name} PRIVATE calvane::calvane)
  # Offsets in files and times have 64 bits, as in calvane, on 32-bit processors too.
  target_compile_definitions(${name} PRIVATE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
  set_target_properties(${name} PROPERTIES
    PREFIX "" SUFFIX .so CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  install(TARGETS ${name} LIBRARY DESTINATION ${calvane_PLUGINS_DESTINATION})
endfunction()
