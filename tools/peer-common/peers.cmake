# Included by each reference peer's CMakeLists.txt: the common code once as a library, and a
# function that makes a peer program in build/.
include_guard(GLOBAL)

if(NOT TARGET fq_peer_common)
  add_library(fq_peer_common STATIC ${CMAKE_CURRENT_LIST_DIR}/peer_common.cpp)
  target_include_directories(fq_peer_common PUBLIC ${CMAKE_CURRENT_LIST_DIR})
  target_compile_options(fq_peer_common PRIVATE ${FQ_WARNINGS})
  target_link_libraries(fq_peer_common PUBLIC fqshared)
endif()

# fq_peer_program(<name> SOURCES <files...> [LIBRARIES <targets...>])
function(fq_peer_program name)
  cmake_parse_arguments(PEER "" "" "SOURCES;LIBRARIES" ${ARGN})
  add_executable(${name} ${PEER_SOURCES})
  target_compile_options(${name} PRIVATE ${FQ_WARNINGS})
  target_link_libraries(${name} PRIVATE fq_peer_common fqshared ${PEER_LIBRARIES})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
endfunction()
