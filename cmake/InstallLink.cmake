# palvin_install_link(LINK TARGET): installs a symbolic link LINK (absolute,
# or relative to the prefix) to TARGET (relative to the prefix). The link's
# text is relative, so it holds inside DESTDIR as well as once installed.
function(palvin_install_link link target)
  install(CODE "
    set(palvin_target \"\${CMAKE_INSTALL_PREFIX}/${target}\")
    set(palvin_link \"${link}\")
    if(NOT IS_ABSOLUTE \"\${palvin_link}\")
      set(palvin_link \"\${CMAKE_INSTALL_PREFIX}/\${palvin_link}\")
    endif()
    get_filename_component(palvin_dir \"\${palvin_link}\" DIRECTORY)
    file(RELATIVE_PATH palvin_relative \"\${palvin_dir}\" \"\${palvin_target}\")
    file(MAKE_DIRECTORY \"\$ENV{DESTDIR}\${palvin_dir}\")
    message(STATUS \"Installing: \$ENV{DESTDIR}\${palvin_link} -> \${palvin_relative}\")
    file(CREATE_LINK \"\${palvin_relative}\" \"\$ENV{DESTDIR}\${palvin_link}\" SYMBOLIC)
    list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\$ENV{DESTDIR}\${palvin_link}\")
  ")
endfunction()
