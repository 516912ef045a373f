# GoogleTest, built from the package's sources in every preset: the packaged library fits neither a cross build nor
# ThreadSanitizer, which must see the locks of everything it watches. Gives GTest::gtest; the main is ours, in
# tests/support.
if(NOT EXISTS /usr/src/googletest/CMakeLists.txt)
    message(FATAL_ERROR "/usr/src/googletest is missing: run scripts/install-deps, or apt-get install libgtest-dev")
endif()
set(BUILD_GMOCK OFF CACHE INTERNAL "")
set(INSTALL_GTEST OFF CACHE INTERNAL "")
add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
if(RVK_SANITIZE STREQUAL thread)
    target_compile_options(gtest PRIVATE -fsanitize=thread)
endif()
