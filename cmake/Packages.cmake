# `cpack` makes Debian packages of what Install.cmake installs, one of each component; scripts/package
# has the build for it.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME screen-receiver)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own as its description's first line
set(CPACK_PACKAGE_VENDOR "${PROJECT_NAME} maintainers")
set(CPACK_PACKAGE_CONTACT "${PROJECT_NAME} maintainers <maintainers@screen-receiver.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)

set(library libscreenreceiver${PROJECT_VERSION_MAJOR})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
if(CMAKE_CROSSCOMPILING)
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
    list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
        ${CMAKE_SYSROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE}
        ${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
endif()
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(exact "(= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${library})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "client library for screen receivers
Lists the senders of a screen receiver, starts and stops showing one, reads
and sets the moderator, keeps conference control and tells of changes.
.
This is what programs that use the library need to run.")
set(control ${PROJECT_BINARY_DIR}/debian)
file(WRITE ${control}/shlibs
    "libScreenReceiver ${PROJECT_VERSION_MAJOR} ${library} (>= ${PROJECT_VERSION})\n")
file(WRITE ${control}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${control}/shlibs ${control}/triggers)

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libscreenreceiver-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${library} ${exact}, libboost-dev")
set(CPACK_DEBIAN_DEV_DESCRIPTION "client library for screen receivers, development files
Headers for C and C++, files for pkg-config and CMake, examples; and a
simulated receiver as a static library, for tests without a receiver.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME screen-receiver-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${library} ${exact}")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "controller and simulator for screen receivers
screenctl lists, steers, watches and diagnoses a screen receiver from a
shell. receiver-sim is a simulated receiver for tests.")

# Each package has its own copy of these.
set(debian ${CMAKE_CURRENT_LIST_DIR}/debian)
set(changelog ${PROJECT_BINARY_DIR}/changelog.Debian.gz)
file(STRINGS ${debian}/changelog newest LIMIT_COUNT 1)
if(NOT newest MATCHES "\\(${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}\\)")
    message(FATAL_ERROR "cmake/debian/changelog has no entry for ${PROJECT_VERSION}: ${newest}")
endif()
execute_process(COMMAND ${GZIP_PROGRAM} -9nc ${debian}/changelog OUTPUT_FILE ${changelog}
    COMMAND_ERROR_IS_FATAL ANY)
foreach(package runtime:${library} dev:libscreenreceiver-dev tools:screen-receiver-tools)
    string(REGEX MATCH "(.*):(.*)" package ${package})
    set(component ${CMAKE_MATCH_1})
    install(FILES ${changelog} ${debian}/copyright
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CMAKE_MATCH_2} COMPONENT ${component})
endforeach()

# All that goes into them.
add_custom_target(packaged)
add_dependencies(packaged ScreenReceiver ReceiverSimulator screenctl receiver-sim completions
    screenctl-man receiver-sim-man)

include(CPack)
