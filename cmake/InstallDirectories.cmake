# Directories that an installation makes can be read by all users and written by their owner alone, whatever the umask is:
# root's is 077 on many machines, and CMake sets the modes of files only. Included before the first install rule, which is
# when it remembers what is missing; vxutils_open_installed_directories() comes after the last one.
set(installed_directories "${CMAKE_INSTALL_BINDIR}" "${CMAKE_INSTALL_INCLUDEDIR}/vxutils" "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
  "${CMAKE_INSTALL_LIBDIR}/cmake/vxutils" "${CMAKE_INSTALL_DATADIR}/bash-completion/completions"
  "${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions" "${CMAKE_INSTALL_DATADIR}/vxutils/schemas" "${CMAKE_INSTALL_DATADIR}/vxutils/scenarios"
  "${CMAKE_INSTALL_DATADIR}/vxutils/panel" "${CMAKE_INSTALL_DATADIR}/vxutils/pytest" "${CMAKE_INSTALL_LIBEXECDIR}/vxutils-gateway"
  "${CMAKE_INSTALL_DOCDIR}" "${CMAKE_INSTALL_MANDIR}/man1" "${CMAKE_INSTALL_MANDIR}/man3" "${CMAKE_INSTALL_MANDIR}/man7")
install(CODE "
  set(missing_directories \"\")
  foreach(directory IN ITEMS ${installed_directories})
    cmake_path(ABSOLUTE_PATH directory BASE_DIRECTORY \"\${CMAKE_INSTALL_PREFIX}\")
    set(directory \"\$ENV{DESTDIR}\${directory}\")
    while(NOT EXISTS \"\${directory}\" AND NOT directory STREQUAL \"\")
      list(APPEND missing_directories \"\${directory}\")
      cmake_path(GET directory PARENT_PATH directory)
    endwhile()
  endforeach()
" ALL_COMPONENTS)

function(vxutils_open_installed_directories)
  install(CODE "
    foreach(directory IN LISTS missing_directories)
      if(IS_DIRECTORY \"\${directory}\")
        file(CHMOD \"\${directory}\" PERMISSIONS
          OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
      endif()
    endforeach()
  " ALL_COMPONENTS)
endfunction()
