# How our own code is compiled and linked. GoogleTest and other foreign code never see these options.
option(HOST_TRAP_UNDEFINED "End the process on undefined behaviour (clang)" OFF)
option(HOST_COVERAGE "Instrument for line coverage (g++)" OFF)

# Symbols in which nothing tells of the folder or the time of the build: the same sources give the same files.
set(HOST_SYMBOLS -g -gcodeview -gno-codeview-command-line
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -fdebug-compilation-dir=.)

set(is_clang $<CXX_COMPILER_ID:Clang>)
set(is_release $<CONFIG:Release>)

# What ships is built for size: a service host is loaded at every boot, its code runs rarely.
set(CMAKE_CXX_FLAGS_RELEASE "-Oz -DNDEBUG")

add_library(host_options INTERFACE)
target_compile_definitions(host_options INTERFACE
  UNICODE _UNICODE NOMINMAX WIN32_LEAN_AND_MEAN
  _WIN32_WINNT=0x0A00
  PSAPI_VERSION=2) # The psapi calls come from kernel32: no further DLL to load.
target_compile_options(host_options INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-Wall;-Wextra;-Wpedantic;-Wshadow;-Wconversion;-Wsuggest-override;-Werror>
  $<$<COMPILE_LANGUAGE:CXX>:-ffunction-sections;-fdata-sections>
  # -fms-extensions brings __try; the token warning would reject it again.
  $<$<AND:$<COMPILE_LANGUAGE:CXX>,${is_clang}>:-fms-extensions;-Wno-language-extension-token;-Wthread-safety>
  $<$<AND:$<COMPILE_LANGUAGE:CXX>,${is_clang}>:${HOST_SYMBOLS}>)
target_link_options(host_options INTERFACE
  -municode -static -Wl,-Bstatic
  -Wl,--gc-sections -Wl,--dynamicbase -Wl,--nxcompat -Wl,--high-entropy-va
  $<$<AND:${is_clang},${is_release}>:-Wl,--icf=all>)
target_link_libraries(host_options INTERFACE -lpthread)

# lld would drop the unwind data of much of Debian's C++ library: exceptions could not pass through it.
if(CMAKE_CXX_COMPILER_ID STREQUAL Clang)
  set(repaired ${CMAKE_BINARY_DIR}/lib/libstdc++.a)
  set(repair ${PROJECT_SOURCE_DIR}/cmake/repair-unwind-tables.py)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} --target=${CMAKE_CXX_COMPILER_TARGET} -print-file-name=libstdc++.a
    OUTPUT_VARIABLE library OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  if(${repair} IS_NEWER_THAN ${repaired} OR ${library} IS_NEWER_THAN ${repaired})
    file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
    execute_process(COMMAND python3 ${repair} ${library} ${repaired} COMMAND_ERROR_IS_FATAL ANY)
    execute_process(COMMAND ${CMAKE_RANLIB} ${repaired} COMMAND_ERROR_IS_FATAL ANY)
  endif()
  target_link_options(host_options INTERFACE -Llib) # The linker runs in the build folder.
endif()

if(HOST_TRAP_UNDEFINED)
  target_compile_options(host_options INTERFACE -fsanitize=undefined -fsanitize-trap=undefined)
endif()
if(HOST_COVERAGE)
  target_link_options(host_options INTERFACE --coverage)
endif()
