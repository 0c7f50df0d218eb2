# What "cmake --install" puts where. Three components: runtime is the product, kit is what authors of services build
# against, symbols are for debuggers. Nothing of tests and measurements.
set(shipped TxSvHost TxSvHostPS txsvcctl txsvcrun)
set(user_documents docs/configuration.md docs/findings.md docs/group-control.md docs/hosting-a-service.md
  docs/logging.md docs/operations.md docs/trust-and-start.md docs/txsvcctl.md docs/txsvcrun.md docs/update-client.md
  docs/working-set.md)

install(TARGETS ${shipped}
  RUNTIME DESTINATION bin COMPONENT runtime
  LIBRARY DESTINATION bin COMPONENT runtime)
foreach(target ${shipped})
  # Only clang writes them.
  install(FILES ${CMAKE_BINARY_DIR}/bin/${target}.pdb DESTINATION symbols COMPONENT symbols OPTIONAL)
endforeach()

# Pages, with their links made right for where they are then.
function(install_pages destination component) # PAGE...
  list(TRANSFORM ARGN PREPEND ${PROJECT_SOURCE_DIR}/ OUTPUT_VARIABLE pages)
  list(JOIN pages "\" \"" pages)
  install(CODE "
    include(\"${PROJECT_SOURCE_DIR}/cmake/InstallPages.cmake\")
    install_pages(\"${destination}\" \"${pages}\")" COMPONENT ${component})
endfunction()
install_pages(docs runtime ${user_documents})
install(FILES bench/plots/trimming.svg DESTINATION docs COMPONENT runtime)
install_pages(. runtime docs/installed/README.md)
install_pages(kit kit sdk/README.md)
install_pages(kit/samples kit samples/README.md)

file(GLOB sdk_headers ${PROJECT_SOURCE_DIR}/sdk/*.h)
install(FILES ${sdk_headers} DESTINATION kit/include COMPONENT kit)
install(FILES sdk/TxSvHost.idl DESTINATION kit/idl COMPONENT kit)
install(FILES sdk/TxSvHostEvents.mof DESTINATION kit COMPONENT kit)
install(FILES cmake/mingw-clang.cmake cmake/mingw-gcc.cmake DESTINATION kit/toolchains COMPONENT kit)
install(DIRECTORY samples DESTINATION kit COMPONENT kit PATTERN README.md EXCLUDE)

include(CMakePackageConfigHelpers)
# Of no architecture: the package's own message says what is wrong with another one.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/TxSvHostConfigVersion.cmake
  COMPATIBILITY SameMajorVersion ARCH_INDEPENDENT)
install(FILES
  sdk/cmake/TxSvHostConfig.cmake sdk/cmake/CheckExport.cmake sdk/cmake/QuietTerminate.cpp sdk/cmake/version.rc.in
  cmake/repair-unwind-tables.py
  ${CMAKE_BINARY_DIR}/TxSvHostConfigVersion.cmake
  DESTINATION kit/lib/cmake/TxSvHost COMPONENT kit)
