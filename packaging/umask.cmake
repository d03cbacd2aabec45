# Run by cpack, which lets the packer's user mask into the packages: before it packs, on the files that it has
# installed, and afterwards on each package, an archive whose members have modes too.
if(NOT CPACK_PACKAGE_FILES)
  execute_process(COMMAND chmod -R u=rwX,go=rX ${CPACK_TEMPORARY_DIRECTORY} COMMAND_ERROR_IS_FATAL ANY)
  return()
endif()

foreach(package ${CPACK_PACKAGE_FILES})
  execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/repack.sh ${package} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
