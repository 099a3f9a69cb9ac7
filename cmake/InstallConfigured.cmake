# palvin_install_configured(TEMPLATE DESTINATION): installs TEMPLATE, filled
# in as configure_file(@ONLY) does, at DESTINATION (relative to the prefix).
# Files that name installed paths use @PALVIN_INSTALL_PREFIX@, which is filled
# in at install time, so that `cmake --install --prefix` gets it right too.
function(palvin_install_configured template destination)
  set(PALVIN_INSTALL_PREFIX "@CMAKE_INSTALL_PREFIX@")
  get_filename_component(name "${destination}" NAME)
  set(staged ${CMAKE_CURRENT_BINARY_DIR}/installed/${name}.in)
  configure_file(${template} ${staged} @ONLY)
  install(CODE "
    set(palvin_file \"\${CMAKE_INSTALL_PREFIX}/${destination}\")
    message(STATUS \"Installing: \$ENV{DESTDIR}\${palvin_file}\")
    configure_file(\"${staged}\" \"\$ENV{DESTDIR}\${palvin_file}\" @ONLY)
    list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\$ENV{DESTDIR}\${palvin_file}\")
  ")
endfunction()
