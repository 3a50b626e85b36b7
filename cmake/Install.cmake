# What the reference host adds to the library's installation, by components: host, testing, program.
# The library itself is the component library. "runtime" has the shared libraries alone.

# Installs the declarations of a room, with what find_package(analytics COMPONENTS <name>) reads.
function(analytics_install_room name component)
    cmake_parse_arguments(PARSE_ARGV 2 arg "" "FOLDER" "TARGETS;INTERNAL_HEADERS")
    foreach(target IN LISTS arg_TARGETS)
        analytics_install(${target} ${component})
    endforeach()
    set(without "")
    foreach(header IN LISTS arg_INTERNAL_HEADERS)
        list(APPEND without PATTERN ${header} EXCLUDE)
    endforeach()
    if(arg_FOLDER)
        install(DIRECTORY host/${arg_FOLDER} DESTINATION ${analytics_header_dir}/host COMPONENT ${component}
                FILES_MATCHING PATTERN "*.h" ${without})
    endif()
    configure_file(packaging/cmake/analytics-${name}.cmake.in analytics-${name}.cmake @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/analytics-${name}.cmake
            DESTINATION ${analytics_package_dir} COMPONENT ${component})
endfunction()

include(GNUInstallDirs)
set(analytics_header_dir ${CMAKE_INSTALL_INCLUDEDIR}/analytics)
set(analytics_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/analytics)
get_target_property(host_library_type analytics_host TYPE)
if(host_library_type STREQUAL SHARED_LIBRARY)
    set(host_libraries "-Wl,--push-state,--no-as-needed -lanalytics_host -Wl,--pop-state")
    set(host_requirements "")
    set(host_is_static OFF)
else()
    # The archives refer to each other. One word, since pkgconf sorts words.
    set(host_libraries "-Wl,--start-group,-lanalytics_host,-lanalytics,--end-group")
    set(host_requirements "spdlog fmt tomlplusplus")
    set(host_is_static ON)
endif()

analytics_install_room(host host FOLDER services TARGETS analytics_host
    INTERNAL_HEADERS FileTunables.h Text.h TimerQueue.h TweaksFileWatch.h TweaksReading.h)
analytics_install_pkg_config(${CMAKE_CURRENT_SOURCE_DIR}/packaging/pkgconfig/analytics-host.pc.in host)
if(TARGET analytics_io)
    analytics_install_room(io host FOLDER io TARGETS analytics_io INTERNAL_HEADERS IoBackend.h IoQueue.h)
    analytics_install_pkg_config(${CMAKE_CURRENT_SOURCE_DIR}/packaging/pkgconfig/analytics-io.pc.in host)
endif()
if(TARGET analytics_forwarding)
    # The archive leaves to its users what it links.
    get_target_property(links analytics_forwarding LINK_LIBRARIES)
    string(REGEX MATCHALL "PkgConfig::[a-zA-Z0-9_]+" forwarding_modules "${links}")
    list(TRANSFORM forwarding_modules REPLACE "^PkgConfig::" "")
    set(forwarding_packages Threads fmt)
    set(forwarding_requirements fmt ${forwarding_modules})
    if(links MATCHES "prometheus-cpp::")
        list(APPEND forwarding_packages prometheus-cpp)
        list(APPEND forwarding_requirements prometheus-cpp-pull)
    endif()
    list(JOIN forwarding_modules " " forwarding_modules)
    list(JOIN forwarding_packages " " forwarding_packages)
    list(JOIN forwarding_requirements " " forwarding_requirements)
    analytics_install_room(forwarding host FOLDER forwarding TARGETS analytics_forwarding)
    analytics_install_pkg_config(
        ${CMAKE_CURRENT_SOURCE_DIR}/packaging/pkgconfig/analytics-forwarding.pc.in host)
endif()
if(TARGET analytics_fakes)
    analytics_install_room(fakes testing FOLDER testing TARGETS analytics_fakes analytics_host_fakes)
    # For a host with service headers of its own, which compiles them anew.
    install(DIRECTORY host/testing DESTINATION ${CMAKE_INSTALL_DATADIR}/analytics/src/host
            COMPONENT testing)
    analytics_install_room(contract testing TARGETS analytics_contract)
endif()
if(TARGET analytics-host)
    file(RELATIVE_PATH libraries_from_programs ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
    set_target_properties(analytics-host PROPERTIES INSTALL_RPATH $ORIGIN/${libraries_from_programs})
    set_target_properties(analytics-report PROPERTIES INSTALL_RPATH $ORIGIN/${libraries_from_programs})
    install(TARGETS analytics-host analytics-report RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT program)
endif()

if(PROJECT_IS_TOP_LEVEL)
    include(cmake/Packages.cmake)
endif()
