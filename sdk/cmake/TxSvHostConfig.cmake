# The kit of the Tarvex Shared Service Host. find_package(TxSvHost) brings
#
#   txsvhost_add_service(NAME SOURCES FILE... [DESCRIPTION TEXT] [COMPANY TEXT] [VERSION N.N.N.N] [LIBRARIES NAME...])
#     A hosted service: a DLL with the export that the host looks for. Without one (TX_SUBSYSTEM_MODULE forgotten) the
#     build fails.
#   txsvhost_add_module(...)  another DLL, such as a log controller
#   txsvhost_add_program(...) a program with wmain, such as an updater
#
# All of them carry the C++ runtime in themselves and import only DLLs of the system, of which LIBRARIES names those
# beyond the usual ones. The version resource has DESCRIPTION, COMPANY and VERSION, the project's unless given.
# TxSvHost::sdk is the target of the headers alone.
include_guard(GLOBAL)

if(NOT WIN32)
  message(FATAL_ERROR "TxSvHost: services are built for Windows. Configure with a toolchain file for it; "
    "${CMAKE_CURRENT_LIST_DIR}/../../../toolchains has two for cross compilers.")
endif()
if(NOT CMAKE_SIZEOF_VOID_P EQUAL 8 OR
    "${CMAKE_SYSTEM_PROCESSOR} ${CMAKE_CXX_COMPILER_ARCHITECTURE_ID}" MATCHES "[Aa][Rr][Mm]|aarch64")
  message(FATAL_ERROR "TxSvHost: the host is a 64-bit (x64) program and loads only DLLs of its own kind. "
    "Configure for x64: with Visual C++ by -A x64, with other compilers by those for x86_64.")
endif()
if(NOT CMAKE_CXX_COMPILER_LOADED)
  message(FATAL_ERROR "TxSvHost: services are written in C++: add CXX to the languages of project().")
endif()
if(NOT CMAKE_RC_COMPILER_LOADED)
  enable_language(RC) # For the version resource.
endif()

add_library(TxSvHost::sdk INTERFACE IMPORTED GLOBAL)
target_include_directories(TxSvHost::sdk INTERFACE ${CMAKE_CURRENT_LIST_DIR}/../../../include)
target_compile_features(TxSvHost::sdk INTERFACE cxx_std_20)
target_compile_definitions(TxSvHost::sdk INTERFACE UNICODE _UNICODE)
target_link_libraries(TxSvHost::sdk INTERFACE advapi32)

# lld drops the unwind data of much of Debian's C++ library: an exception that passes through it would end the process,
# with all services of the group. A copy with that data repaired is linked instead.
if(MINGW AND CMAKE_CXX_COMPILER_ID STREQUAL Clang)
  set(TxSvHost_target "")
  if(CMAKE_CXX_COMPILER_TARGET)
    set(TxSvHost_target --target=${CMAKE_CXX_COMPILER_TARGET})
  endif()
  execute_process(
    COMMAND ${CMAKE_CXX_COMPILER} ${TxSvHost_target} -print-file-name=libstdc++.a
    OUTPUT_VARIABLE TxSvHost_library OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  if(IS_ABSOLUTE "${TxSvHost_library}") # Else there is none: another C++ library is used.
    set(TxSvHost_lib_dir ${CMAKE_BINARY_DIR}/TxSvHost)
    set(TxSvHost_repaired ${TxSvHost_lib_dir}/libstdc++.a)
    if(${TxSvHost_library} IS_NEWER_THAN ${TxSvHost_repaired})
      find_program(TxSvHost_PYTHON NAMES python3 python NO_CMAKE_FIND_ROOT_PATH)
      if(NOT TxSvHost_PYTHON)
        message(FATAL_ERROR "TxSvHost: Python 3 is needed to make clang's C++ library fit for lld: install it, "
          "set TxSvHost_PYTHON, or build with g++.")
      endif()
      file(MAKE_DIRECTORY ${TxSvHost_lib_dir})
      execute_process(
        COMMAND ${TxSvHost_PYTHON} ${CMAKE_CURRENT_LIST_DIR}/repair-unwind-tables.py
          ${TxSvHost_library} ${TxSvHost_repaired}.new
        COMMAND_ERROR_IS_FATAL ANY)
      execute_process(COMMAND ${CMAKE_RANLIB} ${TxSvHost_repaired}.new COMMAND_ERROR_IS_FATAL ANY)
      file(RENAME ${TxSvHost_repaired}.new ${TxSvHost_repaired})
    endif()
    target_link_directories(TxSvHost::sdk INTERFACE ${TxSvHost_lib_dir})
  endif()
endif()

function(txsvhost_add_service name)
  TxSvHost_parse()
  add_library(${name} MODULE)
  TxSvHost_finish(${name} .dll VFT_DLL)
  add_custom_command(TARGET ${name} POST_BUILD VERBATIM
    COMMAND ${CMAKE_COMMAND} -D module=$<TARGET_FILE:${name}> -P ${TxSvHost_DIR}/CheckExport.cmake)
endfunction()

function(txsvhost_add_module name)
  TxSvHost_parse()
  add_library(${name} MODULE)
  TxSvHost_finish(${name} .dll VFT_DLL)
endfunction()

function(txsvhost_add_program name)
  TxSvHost_parse()
  add_executable(${name})
  TxSvHost_finish(${name} .exe VFT_APP)
  if(MINGW)
    target_link_options(${name} PRIVATE -municode)
  endif()
endfunction()

# What the caller's caller gave, as arg_SOURCES and so on.
macro(TxSvHost_parse)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "DESCRIPTION;COMPANY;VERSION" "SOURCES;LIBRARIES")
  if(arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "TxSvHost: ${name}: no such argument: ${arg_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT arg_SOURCES)
    message(FATAL_ERROR "TxSvHost: ${name} needs SOURCES FILE...")
  endif()
endmacro()

function(TxSvHost_finish name suffix file_type)
  target_sources(${name} PRIVATE ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE TxSvHost::sdk ${arg_LIBRARIES})
  set_target_properties(${name} PROPERTIES
    PREFIX "" CXX_EXTENSIONS OFF MSVC_RUNTIME_LIBRARY "MultiThreaded$<$<CONFIG:Debug>:Debug>")
  if(MINGW)
    target_compile_options(${name} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-ffunction-sections;-fdata-sections>)
    target_link_options(${name} PRIVATE -static -Wl,-Bstatic -Wl,--gc-sections
      -Wl,--dynamicbase -Wl,--nxcompat -Wl,--high-entropy-va $<$<CONFIG:Release,MinSizeRel>:-s>)
    target_link_libraries(${name} PRIVATE -lpthread)
    if(suffix STREQUAL .dll)
      # Half of a small service. Other builds keep what the library says of an exception that nobody catches.
      target_sources(${name} PRIVATE $<$<CONFIG:Release,MinSizeRel>:${TxSvHost_DIR}/QuietTerminate.cpp>)
    endif()
    if(CMAKE_CXX_COMPILER_ID STREQUAL Clang AND CMAKE_MODULE_LINKER_FLAGS MATCHES lld)
      # Symbols for Windows' debuggers, in a PDB beside the file.
      target_compile_options(${name} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-g;-gcodeview>)
      target_link_options(${name} PRIVATE -Wl,--pdb=$<TARGET_FILE_DIR:${name}>/${name}.pdb)
    endif()
  endif()
  TxSvHost_add_resource()
endfunction()

function(TxSvHost_add_resource)
  foreach(other ${PROJECT_VERSION} 0)
    if("${arg_VERSION}" STREQUAL "")
      set(arg_VERSION ${other})
    endif()
  endforeach()
  if("${arg_DESCRIPTION}" STREQUAL "")
    set(arg_DESCRIPTION ${name})
  endif()
  string(REPLACE . , version_numbers ${arg_VERSION})
  foreach(text DESCRIPTION COMPANY)
    string(REPLACE "\\" "\\\\" arg_${text} "${arg_${text}}")
    string(REPLACE "\"" "\"\"" arg_${text} "${arg_${text}}")
  endforeach()
  configure_file(${TxSvHost_DIR}/version.rc.in ${CMAKE_CURRENT_BINARY_DIR}/${name}.rc @ONLY)
  target_sources(${name} PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/${name}.rc)
endfunction()
