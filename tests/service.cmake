# The service's suites: unit tests of the built-in modules (kq_modules_tests)
# and end-to-end tests that drive the real kqworldrepresentation binary on
# 127.0.0.1 with clients we did not write (curl, python3, websockets).
if(TARGET kq_builtin_modules)
  file(GLOB KQ_MODULES_TEST_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/modules/*.cpp)
  if(KQ_MODULES_TEST_SOURCES)
    add_executable(kq_modules_tests ${KQ_MODULES_TEST_SOURCES})
    target_link_libraries(kq_modules_tests PRIVATE kq_builtin_modules kq_test_support GTest::gtest_main)
    target_compile_definitions(kq_modules_tests PRIVATE KQ_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
    gtest_discover_tests(kq_modules_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
  endif()
endif()

if(TARGET kqworldrepresentation AND TARGET kq)
  find_program(KQ_PYTHON3 NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH)
  if(NOT KQ_PYTHON3)
    find_program(KQ_PYTHON3 python3)
  endif()
  file(GLOB KQ_E2E_TESTS CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/e2e/test_*.py)
  foreach(script ${KQ_E2E_TESTS})
    get_filename_component(name ${script} NAME_WE)
    string(REGEX REPLACE "^test_" "e2e_" test_name ${name})
    add_test(NAME ${test_name}
             COMMAND ${KQ_PYTHON3} ${script} --binary $<TARGET_FILE:kqworldrepresentation> --kq $<TARGET_FILE:kq>
                     --source-dir ${PROJECT_SOURCE_DIR}
             WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/e2e)
    set_tests_properties(${test_name} PROPERTIES TIMEOUT 300 LABELS e2e)
  endforeach()
endif()
