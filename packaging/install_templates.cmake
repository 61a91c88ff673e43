# Runs when installing (cmake --install, CPack): writes the installed files that name
# installed paths, with the prefix of this install rather than the configured one.
# The caller sets bootstrand_template_dir, bootstrand_version, the folders
# bootstrand_includedir, bootstrand_sbindir, bootstrand_pkgconfigdir and
# bootstrand_unitdir (relative to the prefix or absolute) and bootstrand_plugindir.
set(prefix "${CMAKE_INSTALL_PREFIX}")
set(version "${bootstrand_version}")
set(plugindir "${bootstrand_plugindir}")
foreach(folder includedir sbindir pkgconfigdir unitdir)
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

foreach(entry "bootstrand-plugin.pc.in|${pkgconfigdir}" "bootstrand.service.in|${unitdir}")
  string(REPLACE "|" ";" entry "${entry}")
  list(GET entry 0 template)
  list(GET entry 1 folder)
  string(REGEX REPLACE "\\.in$" "" name "${template}")
  message(STATUS "Installing: $ENV{DESTDIR}${folder}/${name}")
  configure_file("${bootstrand_template_dir}/${template}" "$ENV{DESTDIR}${folder}/${name}" @ONLY)
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${folder}/${name}")
endforeach()
