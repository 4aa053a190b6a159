# What `cmake --install` and the Debian package (scripts/package.sh) put where: the programs and
# their manual pages, the room that ships and the package's documents. The launcher and the icons
# are installed by src/app.
include(GNUInstallDirs)
find_program(GZIP gzip REQUIRED)

# A user's and a scene maker's programs; the test helpers (turnelo-mpris-player, turnelo-ui-shots,
# turnelo-icons) stay out.
set(_tools turnelo-scene turnelo-defaults turnelo-publish turnelo-sync turnelo-gen-scene)
install(TARGETS ${_tools} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# The path the program searches under each $XDG_DATA_DIRS entry.
install(DIRECTORY ${CMAKE_SOURCE_DIR}/scenes/room DESTINATION ${CMAKE_INSTALL_DATADIR}/turnelo/scenes)

if(TURNELO_PACKAGING)
  find_program(HELP2MAN help2man REQUIRED)
  # help2man's NAME line, which it cannot take from the usage.
  set(_summary_turnelo "a photoreal room with a record player on the desktop")
  set(_summary_turnelo-scene "check a scene folder, its light blend and its image crops")
  set(_summary_turnelo-defaults "read and write Turnelo's settings with their types")
  set(_summary_turnelo-publish "package scene folders and write the scene catalog")
  set(_summary_turnelo-sync "install or update the scene from the content service")
  set(_summary_turnelo-gen-scene "write a synthetic scene package")
  set(_pages)
  foreach(_program turnelo ${_tools})
    set(_page ${CMAKE_BINARY_DIR}/man/${_program}.1)
    # The usage and the version are answered from the arguments alone, with no display or bus.
    add_custom_command(OUTPUT ${_page}.gz
      COMMAND ${HELP2MAN} --no-info --name=${_summary_${_program}} --output=${_page} $<TARGET_FILE:${_program}>
      COMMAND ${GZIP} -9nf ${_page}
      DEPENDS ${_program}
      COMMENT "Manual page of ${_program}"
      VERBATIM)
    list(APPEND _pages ${_page}.gz)
  endforeach()
  add_custom_target(turnelo_man ALL DEPENDS ${_pages})
  install(FILES ${_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()

# Debian's documents directory is named after the package, not the project.
set(_doc ${CMAKE_INSTALL_DATADIR}/doc/turnelo)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/debian/copyright ${CMAKE_SOURCE_DIR}/docs/scene-format.md DESTINATION ${_doc})
file(READ ${CMAKE_CURRENT_LIST_DIR}/debian/changelog _changelog)
if(NOT _changelog MATCHES "^turnelo \\(${PROJECT_VERSION}\\)")
  message(FATAL_ERROR "cmake/debian/changelog: the first entry is not version ${PROJECT_VERSION}")
endif()
set(_changelog_gz ${CMAKE_BINARY_DIR}/debian/changelog.gz)
add_custom_command(OUTPUT ${_changelog_gz}
  COMMAND ${CMAKE_COMMAND} -E copy ${CMAKE_CURRENT_LIST_DIR}/debian/changelog ${CMAKE_BINARY_DIR}/debian/changelog
  COMMAND ${GZIP} -9nf ${CMAKE_BINARY_DIR}/debian/changelog
  DEPENDS ${CMAKE_CURRENT_LIST_DIR}/debian/changelog
  VERBATIM)
add_custom_target(turnelo_changelog ALL DEPENDS ${_changelog_gz})
install(FILES ${_changelog_gz} DESTINATION ${_doc})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME turnelo)
set(CPACK_PACKAGE_VENDOR Quelt)
set(CPACK_PACKAGE_CONTACT "Turnelo maintainers <turnelo@quelt.app>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "photoreal room with a record player on the desktop")
set(CPACK_PACKAGE_DESCRIPTION [=[
Turnelo draws a photoreal room behind the desktop icons, like a wallpaper
that lives: a 1979 record player in an apartment. The light follows the wall
clock, the record on the turntable is what the music player plays (MPRIS),
and when it rains in your city it rains on the window.

The room is a package of pre-rendered HDR plates, composited on the GPU with
Vulkan. The package holds the room in two framings, and the tools to check,
generate, publish and install scenes.
]=])
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION x11)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# dpkg-shlibdeps finds the Vulkan loader, but a driver comes only through the loader's own
# Recommends, which apt skips with --no-install-recommends. Without a driver the plain turntable
# stands in for the room: recommended, not required, and any vendor's driver will do.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "mesa-vulkan-drivers | vulkan-icd")
set(CPACK_STRIP_FILES ON)
# The plates are compressed EXR already: xz takes about thirty times as long as gzip for a 0.5%
# smaller package.
set(CPACK_DEBIAN_COMPRESSION_TYPE gzip)
include(CPack)
