# Desktop integration and the Debian package (scripts/package builds it with
# cpack). Everything a user's machine needs is in the `dictora` component;
# whisper.cpp's own headers and static libraries are not.

set(_data ${CMAKE_SOURCE_DIR}/data)
set(_generated ${CMAKE_BINARY_DIR}/package-files)
set(DICTORA_APP_ID "com.dictora.Dictora")

install(FILES ${_data}/${DICTORA_APP_ID}.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications COMPONENT dictora)
install(FILES ${_data}/dictora.svg DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps COMPONENT dictora)
install(FILES ${_data}/${DICTORA_APP_ID}.metainfo.xml DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo COMPONENT dictora)
# udev reads /usr/lib/udev/rules.d and /etc/udev/rules.d only: the package's
# /usr prefix puts it in the first; a /usr/local install must point this at
# /etc/udev/rules.d (then `udevadm trigger`). Relative: under the prefix.
set(DICTORA_UDEV_RULES_DIR "lib/udev/rules.d" CACHE STRING "Where the uinput access rule goes")
install(FILES ${_data}/60-dictora-uinput.rules DESTINATION ${DICTORA_UDEV_RULES_DIR} COMPONENT dictora)

# Launcher icons in the hicolor sizes, rendered from the one SVG.
set(DICTORA_ICON_SIZES 16 22 24 32 48 64 128 256 512)
find_program(RSVG_CONVERT rsvg-convert)
if(RSVG_CONVERT)
  set(_icons)
  foreach(size IN LISTS DICTORA_ICON_SIZES)
    set(_png ${_generated}/icons/${size}x${size}/dictora.png)
    add_custom_command(OUTPUT ${_png}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${_generated}/icons/${size}x${size}
      COMMAND ${RSVG_CONVERT} --width=${size} --height=${size} --output=${_png} ${_data}/dictora.svg
      DEPENDS ${_data}/dictora.svg VERBATIM)
    list(APPEND _icons ${_png})
    install(FILES ${_png} DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/${size}x${size}/apps COMPONENT dictora)
  endforeach()
  add_custom_target(dictora_icons ALL DEPENDS ${_icons})
else()
  message(STATUS "Dictora: rsvg-convert (librsvg2-bin) not found; only the scalable icon is installed")
endif()

# Manual page, changelog and copyright, compressed the way Debian wants them
# (gzip -9n: no name or time stamp, so rebuilds are identical).
string(TIMESTAMP DICTORA_CHANGELOG_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${_data}/dictora.1 ${_generated}/dictora.1 @ONLY)
configure_file(${_data}/changelog.Debian.in ${_generated}/changelog.Debian @ONLY)
set(_whisper_license ${CMAKE_BINARY_DIR}/_deps/whisper-src/LICENSE)
if(EXISTS ${_whisper_license})
  file(READ ${_whisper_license} DICTORA_WHISPER_LICENSE)
  string(REGEX REPLACE "\n\n" "\n.\n" DICTORA_WHISPER_LICENSE "${DICTORA_WHISPER_LICENSE}")
  string(REGEX REPLACE "\n([^\n])" "\n \\1" DICTORA_WHISPER_LICENSE " ${DICTORA_WHISPER_LICENSE}")
endif()
configure_file(${_data}/copyright.in ${_generated}/copyright @ONLY)
set(_gz)
foreach(pair "dictora.1;${_generated}/dictora.1" "changelog.Debian;${_generated}/changelog.Debian")
  list(GET pair 0 name)
  list(GET pair 1 input)
  add_custom_command(OUTPUT ${_generated}/${name}.gz
    COMMAND gzip -9n -c ${input} > ${_generated}/${name}.gz
    DEPENDS ${input} VERBATIM)
  list(APPEND _gz ${_generated}/${name}.gz)
endforeach()
add_custom_target(dictora_package_files ALL DEPENDS ${_gz})
install(FILES ${_generated}/dictora.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT dictora)
install(FILES ${_generated}/changelog.Debian.gz ${_generated}/copyright
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/dictora COMPONENT dictora)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME dictora)
set(CPACK_PACKAGE_VENDOR "Dictora")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Dictora Developer <developers@dictora.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "push-to-talk dictation recognised on this computer")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "Press one global shortcut in any application, speak, and press it again:
the speech is recognised locally with whisper.cpp, tidied, your snippets are
expanded, and the text is pasted into the window that had the focus. Every
dictation is kept in a private local journal that can be searched.
.
No audio leaves the computer or is stored. The speech model is downloaded on
first start, or installed from a file with 'dictora model install'.")
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The windows need Qt's X11 platform plugin, which no linked library names.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "qt6-qpa-plugins")
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_INSTALL_CMAKE_PROJECTS "${CMAKE_BINARY_DIR};Dictora;dictora;/")
include(CPack)
