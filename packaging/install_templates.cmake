# Runs when installing (cmake --install, CPack): writes the installed files that name
# installed paths, with the prefix of this install rather than the configured one.
# The caller sets bootstrand_component (bootstrand: the service;
# dev: the pkg-config file), bootstrand_template_dir, bootstrand_version, the folders
# bootstrand_includedir, bootstrand_sbindir, bootstrand_libexecdir,
# bootstrand_pkgconfigdir and bootstrand_unitdir (relative to the prefix or absolute)
# and bootstrand_plugindir.
set(prefix "${CMAKE_INSTALL_PREFIX}")
set(version "${bootstrand_version}")
set(plugindir "${bootstrand_plugindir}")
foreach(folder includedir sbindir libexecdir pkgconfigdir unitdir)
  if(IS_ABSOLUTE "${bootstrand_${folder}}")
    set(${folder} "${bootstrand_${folder}}")
  else()
    set(${folder} "${prefix}/${bootstrand_${folder}}")
  endif()
endforeach()
# The pkg-config file names its folders through ${prefix}, as is the custom.
if(NOT IS_ABSOLUTE "${bootstrand_includedir}")
  set(includedir "\${prefix}/${bootstrand_includedir}")
endif()

if(bootstrand_component STREQUAL "dev")
  set(entries "bootstrand-plugin.pc.in|${pkgconfigdir}|bootstrand-plugin.pc|644")
else()
  set(entries "bootstrand.service.in|${unitdir}|bootstrand.service|644")
endif()
foreach(entry ${entries})
  string(REPLACE "|" ";" entry "${entry}")
  list(GET entry 0 template)
  list(GET entry 1 folder)
  list(GET entry 2 name)
  list(GET entry 3 mode)
  set(permissions OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  if(mode STREQUAL "755")
    list(APPEND permissions OWNER_EXECUTE GROUP_EXECUTE WORLD_EXECUTE)
  endif()
  message(STATUS "Installing: $ENV{DESTDIR}${folder}/${name}")
  configure_file("${bootstrand_template_dir}/${template}" "$ENV{DESTDIR}${folder}/${name}" @ONLY
    FILE_PERMISSIONS ${permissions})
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${folder}/${name}")
endforeach()
