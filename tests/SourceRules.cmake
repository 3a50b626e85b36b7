# Rules that no compiler checks, as a script: cmake -P SourceRules.cmake
cmake_minimum_required(VERSION 3.25)
get_filename_component(root ${CMAKE_CURRENT_LIST_DIR}/.. ABSOLUTE)
set(broken "")

# Lines that match `pattern`, as "file: line" in `broken`, unless they match `allowed`.
function(forbid folder pattern allowed)
    file(GLOB sources RELATIVE ${root} ${root}/${folder}/*.h ${root}/${folder}/*.cpp)
    if(NOT sources)
        message(FATAL_ERROR "no sources in ${folder}")
    endif()
    foreach(source IN LISTS sources)
        file(STRINGS ${root}/${source} lines REGEX "${pattern}")
        list(FILTER lines EXCLUDE REGEX "${allowed}")
        foreach(line IN LISTS lines)
            list(APPEND broken "${source}: ${line}")
        endforeach()
    endforeach()
    set(broken ${broken} PARENT_SCOPE)
endfunction()

# Dependencies flow one way, and every include is written from the root.
set(library "common/(infra|Analytics)/")
forbid(common/infra "^#include \"" "\"common/infra/")
forbid(common/Analytics "^#include \"" "\"${library}")
forbid(host/include/common/infra "^#include \"" "\"common/infra/")
forbid(host/services "^#include \"" "\"(${library}|host/services/)")
forbid(host/io "^#include \"" "\"(${library}|host/(services|io)/)")
forbid(host/forwarding "^#include \"" "\"(${library}|host/(services|forwarding)/)")
forbid(host/report "^#include \"" "\"(${library}|host/(services|report)/)")
# Of forwarding, what the fakes of a sink and of its forwarder stand for.
forbid(host/testing "^#include \""
       "\"(${library}|host/(services|testing)/|host/forwarding/(Sink|Record).h)")
forbid(host/program "^#include \"" "\"(${library}|host/(services|io|forwarding|report|program)/)")
# The library includes nothing else but the standard library.
forbid(common/infra "^#include <" "<[a-z_]+>")
forbid(common/Analytics "^#include <" "<[a-z_]+>")
# No test waits for time to pass.
forbid(tests "sleep" "^$")

if(broken)
    list(JOIN broken "\n  " broken)
    message(FATAL_ERROR "These lines break the rules of their folder:\n  ${broken}")
endif()
