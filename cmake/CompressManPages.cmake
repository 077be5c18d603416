# Run by CPack on its staging tree before it builds the package: Debian
# ships manual pages compressed with gzip -9n.
file(GLOB_RECURSE qve_man_pages
  "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/share/man/man*/*.[1-9]")
foreach(page IN LISTS qve_man_pages)
  execute_process(COMMAND gzip -9nf "${page}" RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "gzip ${page} failed")
  endif()
endforeach()
