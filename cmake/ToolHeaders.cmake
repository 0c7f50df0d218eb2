# CLI11 and nlohmann-json, for tools only. Debian has them below /usr/include, which as a whole holds headers of
# another system: the cross compiler sees a folder of links to these two instead.
include_guard(GLOBAL)

set(tool_headers_dir ${CMAKE_BINARY_DIR}/tool-headers)
file(MAKE_DIRECTORY ${tool_headers_dir})
foreach(package CLI nlohmann)
  if(NOT EXISTS /usr/include/${package})
    message(FATAL_ERROR "/usr/include/${package} is missing: install the packages libcli11-dev and nlohmann-json3-dev.")
  endif()
  file(CREATE_LINK /usr/include/${package} ${tool_headers_dir}/${package} SYMBOLIC)
endforeach()

add_library(tool_headers INTERFACE)
target_include_directories(tool_headers SYSTEM INTERFACE ${tool_headers_dir})
