# nox_add_plugin(NAME SOURCE...): a plugin library nox<NAME>.so that exports
# plugin_desc and nothing else, so that it can be unloaded and cannot clash with
# another. It is linked with the core alone, which records the version that it needs;
# the OS layer is the program's choice, and its operations are found there.
function(nox_add_plugin name)
    set(map ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/plugin.map)
    add_library(${name} MODULE ${ARGN})
    target_link_libraries(${name} PRIVATE nox::core)
    set_target_properties(${name} PROPERTIES PREFIX "" OUTPUT_NAME nox${name}
        C_VISIBILITY_PRESET hidden CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
        LINK_DEPENDS ${map})
    target_compile_options(${name} PRIVATE
        # A unique symbol keeps a library from ever being unloaded.
        $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-fno-gnu-unique>)
    target_link_options(${name} PRIVATE LINKER:--version-script=${map})
endfunction()
