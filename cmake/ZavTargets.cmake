# SPDX-License-Identifier: Apache-2.0
#
# zav_library(<folder> SOURCES ... HEADERS ... [LINK ...])   one layer: target zav_<folder>,
#                                                            alias zav_shm::<folder>
# zav_program(<name> SOURCES ... [LINK ...])                 a program that is not installed
# zav_c_program(<name> SOURCES ... [LINK ...])               the same in C99
# zav_compile_options(<target>)                              language level, warnings, sanitizers

function(zav_compile_options target)
    target_compile_features(${target} PUBLIC cxx_std_20)
    set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF POSITION_INDEPENDENT_CODE ON)
    target_compile_options(${target} PRIVATE
        -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
        -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align -Wformat=2)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
        # g++ 12 takes "literal" + std::string for an overlapping copy when it optimises.
        target_compile_options(${target} PRIVATE -Wno-restrict)
    endif()
    if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        target_compile_options(${target} PRIVATE -Wthread-safety)  # ipc/annotated_mutex.h
    endif()
    if(ZAV_SHM_WARNINGS_AS_ERRORS)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
    if(ZAV_SHM_TEST_POINTS)
        target_compile_definitions(${target} PRIVATE ZAV_SHM_TEST_POINTS)
    endif()
    if(ZAV_SHM_SANITIZE)
        target_compile_options(${target} PRIVATE
            -fsanitize=${ZAV_SHM_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
        target_link_options(${target} PUBLIC -fsanitize=${ZAV_SHM_SANITIZE})
        # AddressSanitizer reports false stack errors in a thread that was cancelled in a wait. The
        # fuzz programs cancel none and keep its stack checks.
        if(ZAV_SHM_SANITIZE MATCHES "address" AND NOT ZAV_SHM_FUZZ)
            if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
                target_compile_options(${target} PRIVATE "SHELL:-mllvm -asan-stack=0")
            else()
                target_compile_options(${target} PRIVATE "SHELL:--param asan-stack=0")
            endif()
        endif()
    endif()
endfunction()

function(zav_install_target target)
    install(TARGETS ${target} EXPORT zav_shm_targets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endfunction()

function(zav_library folder)
    cmake_parse_arguments(ARG "" "" "SOURCES;HEADERS;LINK" ${ARGN})
    set(target zav_${folder})
    add_library(${target} ${ARG_SOURCES} ${ARG_HEADERS})
    add_library(zav_shm::${folder} ALIAS ${target})
    set_target_properties(${target} PROPERTIES EXPORT_NAME ${folder} OUTPUT_NAME zav_shm_${folder})
    zav_compile_options(${target})
    # The include root is the top of the tree, here and where it is installed.
    target_include_directories(${target} PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/zav_shm>)
    target_link_libraries(${target} PUBLIC ${ARG_LINK})
    zav_install_target(${target})
    foreach(header IN LISTS ARG_HEADERS)
        cmake_path(GET header PARENT_PATH below)
        install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zav_shm/${folder}/${below})
    endforeach()
endfunction()

function(zav_program name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    zav_compile_options(${name})
    target_link_libraries(${name} PRIVATE ${ARG_LINK})
endfunction()

# Not instrumented itself: with a sanitizer it is linked as C++ is, for the libraries' sake.
function(zav_c_program name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    set_target_properties(${name} PROPERTIES
        C_STANDARD 99 C_STANDARD_REQUIRED ON C_EXTENSIONS OFF LINKER_LANGUAGE CXX)
    target_compile_options(${name} PRIVATE -pedantic -Wall -Wextra -Wconversion -Wshadow)
    if(ZAV_SHM_WARNINGS_AS_ERRORS)
        target_compile_options(${name} PRIVATE -Werror)
    endif()
    if(ZAV_SHM_SANITIZE)
        target_link_options(${name} PRIVATE -fsanitize=${ZAV_SHM_SANITIZE})
    endif()
    target_link_libraries(${name} PRIVATE ${ARG_LINK})
endfunction()
