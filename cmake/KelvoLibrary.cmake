# One static library per source folder. Sources are globbed so that adding a
# module or an operation file needs no edit here.
function(kelvo_library name)
  cmake_parse_arguments(KL "" "" "DEPS" ${ARGN})
  file(GLOB _src CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  if(NOT _src)
    # A folder whose subsystem has no code yet still gives a target to link.
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${PROJECT_SOURCE_DIR})
    target_link_libraries(${name} INTERFACE ${KL_DEPS})
    return()
  endif()
  add_library(${name} STATIC ${_src})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${KL_DEPS} kv_sanitize PRIVATE kv_warnings)
endfunction()

# A GTest executable from every .cpp of a test folder.
function(kelvo_test name)
  cmake_parse_arguments(KT "" "" "DEPS" ${ARGN})
  file(GLOB _src CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  if(NOT _src)
    return()
  endif()
  add_executable(${name} ${_src})
  target_link_libraries(${name} PRIVATE ${KT_DEPS} kv_testsupport GTest::gtest GTest::gtest_main kv_warnings kv_sanitize)
  target_compile_definitions(${name} PRIVATE
    KELVO_CORPUS_DIR="${KELVO_CORPUS_DIR}"
    KELVO_BINARY_DIR="${PROJECT_BINARY_DIR}")
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()
