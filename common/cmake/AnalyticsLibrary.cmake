# What the libraries of this project have in common.

# Stops unless the folder holds a host's service headers.
function(analytics_check_infra_dir dir)
    if(NOT IS_ABSOLUTE "${dir}" OR NOT EXISTS "${dir}/common/infra/Timer.h")
        message(FATAL_ERROR "ANALYTICS_INFRA_DIR is '${dir}'; expected the full path of a folder with the "
                            "host's service headers, common/infra/Timer.h among them")
    endif()
endfunction()

# Gives the symbol that stands for a set of service headers. It changes with any of them.
function(analytics_service_headers_symbol result dir)
    file(GLOB headers CONFIGURE_DEPENDS RELATIVE ${dir} ${dir}/common/infra/*.h)
    set(digests "")
    foreach(header IN LISTS headers)
        file(SHA256 ${dir}/${header} digest)
        string(APPEND digests "${header} ${digest}\n")
        set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${dir}/${header})
    endforeach()
    string(SHA256 digest "${digests}")
    string(SUBSTRING ${digest} 0 16 digest)
    set(${result} analytics_service_headers_${digest} PARENT_SCOPE)
endfunction()

# Adds a library that exports its public interface alone: shared, unless BUILD_SHARED_LIBS is off.
function(analytics_add_library target)
    set(exports ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/exports.map)
    if(DEFINED BUILD_SHARED_LIBS AND NOT BUILD_SHARED_LIBS)
        add_library(${target} STATIC ${ARGN})
        set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON)
    else()
        add_library(${target} SHARED ${ARGN})
        target_link_options(${target} PRIVATE LINKER:--version-script=${exports})
        set_target_properties(${target} PROPERTIES LINK_DEPENDS ${exports})
    endif()
    # While the major version is 0, minor versions differ in their binary interface.
    set(so_version ${PROJECT_VERSION_MAJOR})
    if(so_version EQUAL 0)
        set(so_version 0.${PROJECT_VERSION_MINOR})
    endif()
    set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF
                                               VERSION ${PROJECT_VERSION}
                                               SOVERSION ${so_version}
                                               INSTALL_RPATH $ORIGIN)
endfunction()

# Installs a target with a file of its own that declares it: analytics::<EXPORT_NAME>. The component
# "runtime" holds what a process loads and nothing else.
function(analytics_install target component)
    install(TARGETS ${target} EXPORT ${target}Targets
            ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${component}
            LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${component})
    get_target_property(type ${target} TYPE)
    if(type STREQUAL SHARED_LIBRARY)
        install(TARGETS ${target}
                LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_SKIP COMPONENT runtime
                        EXCLUDE_FROM_ALL)
    endif()
    install(EXPORT ${target}Targets NAMESPACE analytics:: DESTINATION ${analytics_package_dir}
            COMPONENT ${component})
endfunction()

# Installs the .pc file that a template makes. It finds its prefix from where it stands.
function(analytics_install_pkg_config template component)
    get_filename_component(name ${template} NAME_WLE)
    file(RELATIVE_PATH prefix_from_here /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
    configure_file(${template} ${CMAKE_CURRENT_BINARY_DIR}/${name} @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name} DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
            COMPONENT ${component})
endfunction()
