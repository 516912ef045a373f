# The header-only packages that tools and tests may name in USES: cli11, nlohmann_json.
#
# Each gets an include folder of its own with a link to the package's folder, since /usr/include as a whole must not be
# on a cross compiler's path: it holds the build machine's C library.
foreach(package "cli11:CLI:libcli11-dev" "nlohmann_json:nlohmann:nlohmann-json3-dev")
    string(REPLACE ":" ";" package ${package})
    list(GET package 0 name)
    list(GET package 1 folder)
    list(GET package 2 debian)
    if(NOT IS_DIRECTORY /usr/include/${folder})
        message(FATAL_ERROR "/usr/include/${folder} is missing: run scripts/install-deps, or apt-get install ${debian}")
    endif()
    file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/include/packages/${name})
    file(CREATE_LINK /usr/include/${folder} ${CMAKE_BINARY_DIR}/include/packages/${name}/${folder} SYMBOLIC)
    add_library(${name}_headers INTERFACE)
    target_include_directories(${name}_headers SYSTEM INTERFACE ${CMAKE_BINARY_DIR}/include/packages/${name})
endforeach()
