# What makes a fault in an optimised build hard to exploit. For the targets of this
# tree alone: the options belong to its folders, and a program that links a library of
# it gets none of them. A debug build and one under a sanitizer go without, and so does
# one that counts coverage.
#
# scripts/hardening looks for all of it in what was built.

include(CheckCompilerFlag)
include(CheckPIESupported)
check_pie_supported()

set(NOX_OPTIMISED "$<CONFIG:Release,RelWithDebInfo,MinSizeRel>")

# nox_harden(FLAG...): in both languages. A compiler that does not know the flag makes a build
# without, and one is told so.
function(nox_harden)
    foreach(flag ${ARGN})
        string(MAKE_C_IDENTIFIER "NOX_HAS${flag}" known)
        check_compiler_flag(CXX ${flag} ${known})
        if(${known})
            add_compile_options($<${NOX_OPTIMISED}:${flag}>)
        else()
            message(WARNING "The compiler does not know ${flag}: an optimised build goes without.")
        endif()
    endforeach()
endfunction()

if(NOT NOX_SANITIZE AND NOT NOX_COVERAGE)
    # A distribution's compiler may bring a level of its own.
    add_compile_options(
        $<${NOX_OPTIMISED}:-U_FORTIFY_SOURCE> $<${NOX_OPTIMISED}:-D_FORTIFY_SOURCE=2>)
    nox_harden(-fstack-protector-strong -fstack-clash-protection)
    if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)")
        nox_harden(-mbranch-protection=standard)
    endif()
    add_link_options($<${NOX_OPTIMISED}:LINKER:-z,relro,-z,now>)
endif()
