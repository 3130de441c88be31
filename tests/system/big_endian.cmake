# Initial cache of a build for a big-endian processor. The compiler is asked for objects alone, as
# there is nothing to link them with; one that can't make such objects is overruled after project().
if(CMAKE_CXX_COMPILER MATCHES "arm")
  set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY CACHE STRING "")
  set(CMAKE_C_FLAGS -mbig-endian CACHE STRING "")
  set(CMAKE_CXX_FLAGS -mbig-endian CACHE STRING "")
else()
  set(CMAKE_PROJECT_ipacl_INCLUDE ${CMAKE_CURRENT_LIST_DIR}/declare_big_endian.cmake CACHE FILEPATH "")
endif()
