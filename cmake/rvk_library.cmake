# How everything here is compiled, and who may include whom.
#
# rvk_library(NAME HEADERS … SOURCES … USES …) declares a library. Its headers are put into an include folder
# of their own, and that folder is given to exactly those that name the library in USES: an include of anything else does
# not compile, and a library that stands further down cannot be named. Linking is transitive, headers are not.

add_library(rvk_flags INTERFACE)
target_compile_options(rvk_flags INTERFACE
    -Wall -Wextra -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wundef -Wcast-align -Wnon-virtual-dtor
    -fno-strict-aliasing -funwind-tables
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety -Wthread-safety-beta>
    $<$<BOOL:${RVK_WERROR}>:-Werror>)
target_compile_definitions(rvk_flags INTERFACE _GNU_SOURCE _FILE_OFFSET_BITS=64)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    target_compile_definitions(rvk_flags INTERFACE _TIME_BITS=64)
    target_compile_options(rvk_flags INTERFACE -Wno-psabi)
endif()
include(hardening)
if(RVK_SANITIZE)
    # Instrumented code hides from g++ 12 what is set where; it then warns of its own library (std::regex).
    target_compile_options(rvk_flags INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
    target_compile_options(rvk_flags INTERFACE -fsanitize=${RVK_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(rvk_flags INTERFACE -fsanitize=${RVK_SANITIZE})
endif()
target_link_libraries(rvk_flags INTERFACE Threads::Threads)
set(RVK_FLAGS rvk_flags rvk_fortify) # tests have less

set(RVK_INCLUDE_ROOT ${CMAKE_BINARY_DIR}/include)

# The headers of NAME become reachable through the target NAME_headers, under the path they have below src/ or tools/.
function(rvk_headers NAME)
    add_library(${NAME}_headers INTERFACE)
    foreach(header IN LISTS ARGN)
        string(REGEX REPLACE "^.*/(src|tools|tests)/" "" below ${CMAKE_CURRENT_SOURCE_DIR}/${header})
        get_filename_component(folder ${RVK_INCLUDE_ROOT}/${NAME}/${below} DIRECTORY)
        file(MAKE_DIRECTORY ${folder})
        file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR}/${header} ${RVK_INCLUDE_ROOT}/${NAME}/${below} SYMBOLIC)
    endforeach()
    target_include_directories(${NAME}_headers INTERFACE ${RVK_INCLUDE_ROOT}/${NAME})
endfunction()

# Gives TARGET the headers of the libraries named and links them.
function(rvk_use TARGET)
    foreach(used IN LISTS ARGN)
        if(NOT TARGET ${used}_headers)
            message(FATAL_ERROR "${TARGET} uses ${used}, which does not stand above it")
        endif()
        target_link_libraries(${TARGET} PRIVATE ${used}_headers)
        if(TARGET ${used})
            target_link_libraries(${TARGET} PUBLIC ${used})
        endif()
    endforeach()
endfunction()

function(rvk_library NAME)
    cmake_parse_arguments(PARSE_ARGV 1 L "" "" "HEADERS;SOURCES;USES")
    rvk_headers(${NAME} ${L_HEADERS})
    if(NOT L_SOURCES)
        return()
    endif()
    add_library(${NAME} STATIC ${L_SOURCES})
    list(GET L_SOURCES 0 first)
    get_filename_component(folder ${CMAKE_CURRENT_SOURCE_DIR}/${first} DIRECTORY)
    get_filename_component(module ${folder} NAME)
    target_compile_definitions(${NAME} PRIVATE RVK_MODULE="${module}")
    target_link_libraries(${NAME} PRIVATE ${RVK_FLAGS} ${NAME}_headers)
    if(CMAKE_CURRENT_SOURCE_DIR STREQUAL "${CMAKE_SOURCE_DIR}/src")
        # An exception that crossed the daemon would unwind through its locks; nothing there throws or asks for a type.
        target_compile_options(${NAME} PRIVATE -fno-exceptions -fno-rtti)
    endif()
    rvk_use(${NAME} ${L_USES})
endfunction()

# Headers that are long and in most files of TARGET are compiled once. Each file still includes what it uses: the preset
# debug does without. -fpch-preprocess is for ccache.
function(rvk_precompile TARGET)
    target_precompile_headers(${TARGET} PRIVATE ${ARGN})
    target_compile_options(${TARGET} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-fpch-preprocess>)
endfunction()

# Files that include the library of command lines: nothing there is time-critical, and its templates take a third more time
# with -O2, twice as much with a sanitizer of arithmetic.
function(rvk_command_line)
    if(RVK_SANITIZE)
        set(faster -fno-sanitize=undefined)
    else()
        set(faster -O1)
    endif()
    set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS ${faster})
endfunction()

# A program of ours; SINK is where its log goes: log_file (the daemon), log_stderr, or a test's own.
function(rvk_program NAME)
    cmake_parse_arguments(PARSE_ARGV 1 P "" "SINK" "SOURCES;USES")
    add_executable(${NAME} ${P_SOURCES})
    target_compile_definitions(${NAME} PRIVATE RVK_MODULE="${NAME}")
    target_link_libraries(${NAME} PRIVATE ${RVK_FLAGS})
    rvk_use(${NAME} ${P_USES})
    if(P_SINK)
        # As objects, which are there whatever order the libraries that log end up in.
        target_sources(${NAME} PRIVATE $<TARGET_OBJECTS:${P_SINK}>)
        target_link_libraries(${NAME} PRIVATE ${P_SINK})
    endif()
endfunction()
