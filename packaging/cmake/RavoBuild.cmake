# How everything in this tree is compiled and where it is put.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS ON) # GNU names such as __FILE_NAME__ and init_priority
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
include(CheckPIESupported)
check_pie_supported()

# The build folder has the layout of an installation, so the same relative RUNPATH serves both.
# RUNPATH and not RPATH: LD_LIBRARY_PATH, set by the operator, comes first.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib")
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib")
set(CMAKE_BUILD_WITH_INSTALL_RPATH ON)
set(CMAKE_INSTALL_RPATH "$ORIGIN/../lib")
add_link_options(-Wl,--enable-new-dtags)

add_compile_options(
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wundef -Wcast-align
    -Wformat=2 -Wno-format-nonliteral -Wvla
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor> $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>)
if(RAVO_WERROR)
    add_compile_options(-Werror)
endif()

if(RAVO_SANITIZE)
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                        -fno-omit-frame-pointer -g1)
    add_link_options(-fsanitize=address,undefined)
    if(RAVO_BUILD_FUZZERS)
        add_compile_options(-fsanitize=fuzzer-no-link)
    endif()
elseif(RAVO_COVERAGE)
    # Counters are shared with the threads and the processes that a program starts.
    add_compile_options(--coverage -fprofile-update=atomic -fprofile-abs-path)
    add_link_options(--coverage -Wl,-z,relro,-z,now)
else()
    set(RAVO_TELLS_TYPES -g)
    add_compile_options(-fstack-protector-strong)
    include(CheckCXXCompilerFlag)
    foreach(flag -fstack-clash-protection -fcf-protection)
        string(MAKE_C_IDENTIFIER "HAVE${flag}" have)
        check_cxx_compiler_flag(${flag} ${have})
        if(${have})
            add_compile_options(${flag})
        endif()
    endforeach()
    add_compile_options($<$<CONFIG:Release,RelWithDebInfo>:-D_FORTIFY_SOURCE=2>)
    add_link_options(-Wl,-z,relro,-z,now -Wl,-z,defs)
endif()
add_compile_definitions($<$<COMPILE_LANGUAGE:CXX>:_GLIBCXX_ASSERTIONS>)

# ravo_shared_library(target map INTERFACE sources... [SOURCES sources...]): a shared object that exports what the
# version script names, and nothing else. The script has no version names, so that any other library
# with the same interface can stand in its place. The sources that have the exported functions tell
# their types, for packaging/check-abi.
function(ravo_shared_library target map)
    cmake_parse_arguments(ARG "" "" "INTERFACE;SOURCES" ${ARGN})
    add_library(${target} SHARED ${ARG_INTERFACE} ${ARG_SOURCES})
    set_source_files_properties(${ARG_INTERFACE} PROPERTIES COMPILE_OPTIONS "${RAVO_TELLS_TYPES}")
    set_target_properties(${target} PROPERTIES
        VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
        INSTALL_RPATH "$ORIGIN" LINK_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/${map}")
    target_include_directories(${target} PUBLIC
        $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}> $<INSTALL_INTERFACE:include>)
    target_link_options(${target} PRIVATE
        "-Wl,--version-script=${CMAKE_CURRENT_SOURCE_DIR}/${map}")
endfunction()
