# Options for every target of this project, carried by the interface target sr_options.
add_library(sr_options INTERFACE)
target_compile_options(sr_options INTERFACE
    -Wall -Wextra -Wshadow
    $<$<COMPILE_LANGUAGE:CXX>:-Wconversion>
    # Recorded places and log lines name files of the project, not of the machine that built it.
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)

if(SR_SANITIZE STREQUAL "address")
    set(SR_SANITIZE_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=all
                          -fno-omit-frame-pointer -O1 -g1)
elseif(SR_SANITIZE STREQUAL "thread")
    set(SR_SANITIZE_FLAGS -fsanitize=thread -fno-omit-frame-pointer -O1 -g1)
elseif(SR_SANITIZE)
    message(FATAL_ERROR "SR_SANITIZE must be address, thread or empty, not '${SR_SANITIZE}'")
endif()
if(SR_SANITIZE)
    add_compile_options(${SR_SANITIZE_FLAGS})
    add_link_options(${SR_SANITIZE_FLAGS})
endif()
