# The network front's suite: a real server on 127.0.0.1 driven by real clients
# (curl, python3) and by our own RpcClient, with the real memory module for
# events.
file(GLOB KQ_NET_TEST_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/net/*.cpp)
if(KQ_NET_TEST_SOURCES AND TARGET kq_net AND TARGET kq_builtin_modules)
  add_executable(kq_net_tests ${KQ_NET_TEST_SOURCES})
  target_include_directories(kq_net_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(kq_net_tests PRIVATE kq_net kq_builtin_modules kq_test_support GTest::gtest_main)
  target_compile_definitions(kq_net_tests PRIVATE KQ_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  gtest_discover_tests(kq_net_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endif()
