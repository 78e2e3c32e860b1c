# The display face of headlines and big buttons, taken at configure time from
# the npm registry (the only source registry the build machines reach), checked
# against its published integrity, and embedded as a Qt resource generated in
# the build tree. A failed fetch only warns: the UI then falls back to a bold
# system face.
#
# Sets DICTORA_DISPLAY_FONT_FILE (empty when unavailable).

set(DICTORA_FONT_NPM_PACKAGE "@fontsource/londrina-solid@5.3.0")
set(DICTORA_FONT_TARBALL "fontsource-londrina-solid-5.3.0.tgz")
# npm integrity sha512-tFmgGjs1jfabUQ1chutoptW31U706uuVsTHVcCvuGKhTGNnwxSkLbfTE6zMgI0IzLJikyG25bVpoMjLGn5NYjQ== in hex
set(DICTORA_FONT_SHA512 "b459a01a3b358df69b510d5c86eb68a6d5b7d54ef4eaeb95b131d5702bee18a85318d9f0c5290b6df4c4eb33202342332c98a4c86db96d5a683232c69f93588d")
# Qt's FreeType reads WOFF 1 everywhere; WOFF 2 needs brotli in FreeType.
set(_font_member "package/files/londrina-solid-latin-900-normal.woff")

set(_deps "${CMAKE_BINARY_DIR}/_deps")
set(_tarball "${_deps}/${DICTORA_FONT_TARBALL}")
set(_fontdir "${CMAKE_BINARY_DIR}/fonts")
set(_font "${_fontdir}/LondrinaSolid-Black.woff")
set(DICTORA_DISPLAY_FONT_FILE "")

if(NOT EXISTS "${_font}")
  file(MAKE_DIRECTORY "${_deps}")
  set(_have "")
  if(EXISTS "${_tarball}")
    file(SHA512 "${_tarball}" _have)
  endif()
  if(NOT _have STREQUAL DICTORA_FONT_SHA512)
    find_program(NPM_EXECUTABLE npm)
    if(NPM_EXECUTABLE)
      message(STATUS "Dictora: fetching the display font (${DICTORA_FONT_NPM_PACKAGE})")
      file(REMOVE "${_tarball}")
      execute_process(
        COMMAND "${NPM_EXECUTABLE}" pack "${DICTORA_FONT_NPM_PACKAGE}" --silent --pack-destination "${_deps}"
        WORKING_DIRECTORY "${_deps}"
        RESULT_VARIABLE _npm_rc
        OUTPUT_QUIET ERROR_QUIET)
      if(EXISTS "${_tarball}")
        file(SHA512 "${_tarball}" _have)
      endif()
    endif()
  endif()
  if(_have STREQUAL DICTORA_FONT_SHA512)
    set(_unpack "${_deps}/font-unpack")
    file(REMOVE_RECURSE "${_unpack}")
    file(ARCHIVE_EXTRACT INPUT "${_tarball}" DESTINATION "${_unpack}" PATTERNS "${_font_member}")
    if(EXISTS "${_unpack}/${_font_member}")
      file(MAKE_DIRECTORY "${_fontdir}")
      file(COPY_FILE "${_unpack}/${_font_member}" "${_font}")
    endif()
    file(REMOVE_RECURSE "${_unpack}")
  elseif(EXISTS "${_tarball}")
    file(REMOVE "${_tarball}")
    message(WARNING "${DICTORA_FONT_TARBALL} failed its integrity check (sha512 ${_have}); not using it.")
  else()
    message(WARNING "Could not fetch ${DICTORA_FONT_NPM_PACKAGE}; headlines use a bold system font.")
  endif()
endif()

if(EXISTS "${_font}")
  set(DICTORA_DISPLAY_FONT_FILE "${_font}")
endif()
