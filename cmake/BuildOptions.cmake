# Flags that every target of this project is built with.

find_package(Threads REQUIRED)

add_library(nox_build_options INTERFACE)
target_compile_options(nox_build_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2
    $<$<BOOL:${NOX_WERROR}>:-Werror>
    # A unique symbol keeps a library from ever being unloaded.
    $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-fno-gnu-unique>)
target_include_directories(nox_build_options INTERFACE ${PROJECT_SOURCE_DIR})

if(NOX_SANITIZE)
    add_compile_options(-fsanitize=${NOX_SANITIZE} -fno-omit-frame-pointer
        -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${NOX_SANITIZE})
endif()
if(NOX_COVERAGE)
    # Counted atomically: threads that count the same line would lose or spoil counts.
    add_compile_options(--coverage -O0 -fprofile-update=atomic)
    add_link_options(--coverage)
endif()

# nox_add_tree_plugin(NAME SOURCE...): a plugin of this tree.
include(${CMAKE_CURRENT_LIST_DIR}/NoxPlugin.cmake)
function(nox_add_tree_plugin name)
    nox_add_plugin(${name} ${ARGN})
    target_link_libraries(${name} PRIVATE nox_build_options)
    set_target_properties(${name} PROPERTIES
        LIBRARY_OUTPUT_DIRECTORY ${NOX_PLUGIN_OUTPUT_DIRECTORY} INSTALL_RPATH "$ORIGIN/..")
endfunction()
