# The service's programs: the kqworldrepresentation process and the kq client.
# They need the network front; without it (a tree checked out before it
# landed) they are not built.
if(NOT TARGET kq_net OR NOT TARGET kq_builtin_modules)
  message(STATUS "kq_net or kq_builtin_modules missing: kqworldrepresentation and kq are not built")
  return()
endif()

# The process entry: options, broker, built-in modules, network front, signals.
add_library(kq_runtime STATIC ${PROJECT_SOURCE_DIR}/src/middleware/process_entry.cpp)
target_include_directories(kq_runtime PUBLIC ${PROJECT_SOURCE_DIR}/src)
target_link_libraries(kq_runtime PUBLIC kq_middleware kq_builtin_modules kq_net)

add_executable(kqworldrepresentation ${PROJECT_SOURCE_DIR}/src/module/main.cpp)
target_link_libraries(kqworldrepresentation PRIVATE kq_runtime kq_module)

add_executable(kq ${CMAKE_CURRENT_SOURCE_DIR}/kq.cpp)
target_link_libraries(kq PRIVATE kq_net kq_middleware)
