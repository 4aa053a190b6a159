# A library made of every source file in one folder: adding a type is adding its files.
# A folder with no sources yet gives an interface library, so dependants link it all the same.
function(turnelo_folder_library name dir)
  file(GLOB _sources CONFIGURE_DEPENDS "${dir}/*.cpp")
  file(GLOB _headers CONFIGURE_DEPENDS "${dir}/*.h")
  if(_sources)
    add_library(${name} STATIC ${_sources} ${_headers})
    target_include_directories(${name} PUBLIC "${CMAKE_SOURCE_DIR}/src")
    set(${name}_KIND PUBLIC PARENT_SCOPE)
  else()
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE "${CMAKE_SOURCE_DIR}/src")
    set(${name}_KIND INTERFACE PARENT_SCOPE)
  endif()
endfunction()

# One test executable per tests/<area>/<unit>_test.cpp, linked with the given libraries.
function(turnelo_tests dir)
  cmake_parse_arguments(T "" "" "LIBS;LABELS" ${ARGN})
  file(GLOB _tests CONFIGURE_DEPENDS "${dir}/*_test.cpp")
  # Tests that need a display run on a private X server of their own (tests/CMakeLists.txt).
  list(FILTER _tests EXCLUDE REGEX "_onscreen_test\\.cpp$")
  foreach(_src ${_tests})
    get_filename_component(_name ${_src} NAME_WE)
    add_executable(${_name} ${_src})
    target_link_libraries(${_name} PRIVATE ${T_LIBS} turnelo_testsupport GTest::gtest GTest::gtest_main)
    gtest_discover_tests(${_name} DISCOVERY_TIMEOUT 60
      PROPERTIES LABELS "${T_LABELS}" ENVIRONMENT "TURNELO_SOURCE_DIR=${CMAKE_SOURCE_DIR}")
  endforeach()
endfunction()
