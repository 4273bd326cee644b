# What `cmake --install` puts where, in three components: the library for programs that are there
# (runtime), what it takes to make some (dev), and the programs (tools).
include(CMakePackageConfigHelpers)

set(SR_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/screen-receiver)
set(SR_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/ScreenReceiver)

install(TARGETS ScreenReceiver EXPORT ScreenReceiver
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
    INCLUDES DESTINATION ${SR_INCLUDEDIR})
install(TARGETS ReceiverSimulator EXPORT ReceiverSimulator
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
    INCLUDES DESTINATION ${SR_INCLUDEDIR})

# The folders stay, as the headers include one another by them.
foreach(header
        ScreenReceiver/ScreenReceiver.h
        ScreenReceiver/ScreenReceiverStub.h
        ScreenReceiver/ScreenSenderInfo.h
        TeskClient/ErrorHandler.h
        TeskClient/ProtocolBase.h
        TeskClient/ThdSafeSocket.h
        common/Export.h
        common/LockOrder.h
        common/Logger.h
        simulator/ReceiverSimulator.h)
    get_filename_component(folder ${header} DIRECTORY)
    install(FILES ${PROJECT_SOURCE_DIR}/${header}
        DESTINATION ${SR_INCLUDEDIR}/${folder} COMPONENT dev)
endforeach()

foreach(export ScreenReceiver ReceiverSimulator)
    install(EXPORT ${export} FILE ${export}Targets.cmake NAMESPACE ScreenReceiver::
        DESTINATION ${SR_CMAKEDIR} COMPONENT dev)
endforeach()
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/ScreenReceiverConfig.cmake.in
    ${PROJECT_BINARY_DIR}/ScreenReceiverConfig.cmake INSTALL_DESTINATION ${SR_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ScreenReceiverConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/ScreenReceiverConfig.cmake
    ${PROJECT_BINARY_DIR}/ScreenReceiverConfigVersion.cmake
    DESTINATION ${SR_CMAKEDIR} COMPONENT dev)

file(RELATIVE_PATH SR_PKGCONFIG_TO_PREFIX
    ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" SR_PKGCONFIG_TO_PREFIX ${SR_PKGCONFIG_TO_PREFIX})
foreach(module screen-receiver receiver-simulator)
    configure_file(${CMAKE_CURRENT_LIST_DIR}/${module}.pc.in ${PROJECT_BINARY_DIR}/${module}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${module}.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endforeach()

install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/screen-receiver COMPONENT dev)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/screen-receiver
    COMPONENT dev)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/screen-receiver
    COMPONENT dev PATTERN man EXCLUDE)

install(TARGETS screenctl receiver-sim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
find_program(GZIP_PROGRAM gzip REQUIRED)
foreach(program screenctl receiver-sim)
    set(page ${PROJECT_SOURCE_DIR}/docs/man/${program}.1)
    set(compressed ${PROJECT_BINARY_DIR}/man/${program}.1.gz)
    add_custom_command(OUTPUT ${compressed}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
        COMMAND ${GZIP_PROGRAM} -9nc ${page} > ${compressed}
        DEPENDS ${page}
        VERBATIM)
    add_custom_target(${program}-man ALL DEPENDS ${compressed})
    install(FILES ${compressed} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endforeach()
set(completions ${PROJECT_BINARY_DIR}/controller/completion)
install(DIRECTORY ${completions}/bash/
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
set(zsh_folder site-functions)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")  # where packages have theirs
    set(zsh_folder vendor-completions)
endif()
install(DIRECTORY ${completions}/zsh/
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/${zsh_folder} COMPONENT tools)
install(DIRECTORY ${completions}/fish/
    DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT tools)
