# GNU ar and ranlib take a minute for the many sections of the tool's objects; lld's archiver serves both compilers.
find_program(HOST_ARCHIVER lld-link-19 REQUIRED)
set(CMAKE_CXX_ARCHIVE_CREATE "${HOST_ARCHIVER} /lib /out:<TARGET> <OBJECTS>")
set(CMAKE_CXX_ARCHIVE_FINISH "")

# Windows' headers and the standard library's are read once for each of a few libraries instead of once for each source.
# Sources include what they need all the same: scripts/lint reads them without.
set(host_headers <windows.h> <objbase.h> <algorithm> <array> <atomic> <functional> <iterator> <map> <memory> <new> <optional>
  <string> <string_view> <type_traits> <utility> <vector>)
function(host_precompile name) # FURTHER_HEADER...
  target_precompile_headers(${name} PRIVATE ${host_headers} ${ARGN})
endfunction()
# A folder sets host_precompiled to the target whose precompiled headers its others take.
function(host_use_precompiled name)
  if(host_precompiled)
    target_precompile_headers(${name} REUSE_FROM ${host_precompiled})
  endif()
endfunction()

# Each folder's CMakeLists.txt is a call of one of these, so that it shows what the folder may use.

# One static library per folder of src/; DEPENDS names lower layers only, SYSTEM the import libraries.
function(host_add_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;DEPENDS;SYSTEM")
  add_library(${name} STATIC ${arg_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/sdk)
  target_link_libraries(${name} PUBLIC host_options ${arg_DEPENDS} ${arg_SYSTEM})
  host_use_precompiled(${name})
endfunction()

# Version resource, manifest (programs) and separate symbols of a program or DLL.
function(host_finish_image name description)
  get_target_property(type ${name} TYPE)
  if(type STREQUAL EXECUTABLE)
    set(suffix .exe)
    set(file_type VFT_APP)
    set(manifest "1 24 \"${PROJECT_SOURCE_DIR}/cmake/program.manifest\"")
  else()
    set(suffix .dll)
    set(file_type VFT_DLL)
    set(manifest "")
  endif()
  set(file_name ${name}${suffix})
  string(REPLACE "." "," version_numbers ${PROJECT_VERSION})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/image.rc.in ${CMAKE_CURRENT_BINARY_DIR}/${name}.rc @ONLY)
  target_sources(${name} PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/${name}.rc)
  set_target_properties(${name} PROPERTIES PREFIX "")
  if(CMAKE_CXX_COMPILER_ID STREQUAL Clang)
    # -s drops the symbol table: what ships carries no symbols, the PDB beside it has them all. Neither holds the
    # folder or the time of the build.
    target_link_options(${name} PRIVATE -s -Wl,--no-insert-timestamp
      -Wl,--pdb=bin/${name}.pdb -Wl,-Xlink=-pdbaltpath:${name}.pdb -Wl,-Xlink=-pdbsourcepath:.)
  endif()
endfunction()

function(host_add_program name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "DESCRIPTION" "SOURCES;DEPENDS;SYSTEM")
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE host_options ${arg_DEPENDS} ${arg_SYSTEM})
  host_use_precompiled(${name})
  host_finish_image(${name} "${arg_DESCRIPTION}")
endfunction()

function(host_add_module name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "DESCRIPTION" "SOURCES;DEPENDS;SYSTEM")
  add_library(${name} MODULE ${arg_SOURCES}
    $<$<CONFIG:Release>:${PROJECT_SOURCE_DIR}/sdk/cmake/QuietTerminate.cpp>) # As authors' services have it.
  target_link_libraries(${name} PRIVATE host_options ${arg_DEPENDS} ${arg_SYSTEM})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/sdk)
  host_finish_image(${name} "${arg_DESCRIPTION}")
endfunction()

# What the kit's functions of these names do, with this tree's options: samples build here and outside of it.
function(txsvhost_add_service)
  host_add_sample(module ${ARGV})
endfunction()
function(txsvhost_add_module)
  host_add_sample(module ${ARGV})
endfunction()
function(txsvhost_add_program)
  host_add_sample(program ${ARGV})
endfunction()
function(host_add_sample kind name)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "DESCRIPTION" "SOURCES;LIBRARIES")
  cmake_language(CALL host_add_${kind} ${name}
    DESCRIPTION "${arg_DESCRIPTION}" SOURCES ${arg_SOURCES} SYSTEM advapi32 ${arg_LIBRARIES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/sdk)
endfunction()
