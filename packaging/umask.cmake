# Run by cpack, which lets the packer's user mask into the packages: before it packs, on the files that it has
# installed, and afterwards on each package, an archive whose members have modes too.
if(NOT CPACK_PACKAGE_FILES)
  execute_process(COMMAND chmod -R u=rwX,go=rX ${CPACK_TEMPORARY_DIRECTORY} COMMAND_ERROR_IS_FATAL ANY)
  return()
endif()

foreach(package ${CPACK_PACKAGE_FILES})
  set(members ${package}.members)
  file(MAKE_DIRECTORY ${members})
  execute_process(
    COMMAND sh -c "ar x \"$1\" && rm \"$1\" && ar rcD \"$1\" debian-binary control.tar.gz data.tar.gz" sh ${package}
    WORKING_DIRECTORY ${members} COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${members})
endforeach()
