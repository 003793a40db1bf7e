# `cmake --install` lays Voxaria out as a desktop application (program, desktop entry, icon,
# AppStream metadata, help page, man page), and `cpack` turns that layout into a Debian package.
# Only the program and its data are installed: tests, helpers and benchmarks stay in the build tree.
include(GNUInstallDirs)

set(VOXARIA_APP_ID app.voxaria.Voxaria)
set(VOXARIA_HOMEPAGE "https://github.com/voxaria/voxaria" CACHE STRING
  "Project page named in the package and the AppStream metadata")
set(VOXARIA_SCREENSHOTS_URL "${VOXARIA_HOMEPAGE}/raw/main/docs/screenshots" CACHE STRING
  "Where the screenshots under docs/screenshots are published")
set(VOXARIA_MAINTAINER "Voxaria <voxaria@voxaria.app>" CACHE STRING "Maintainer of the Debian package")
set(VOXARIA_DEVELOPER "Voxaria")
set(VOXARIA_LICENSE "LicenseRef-proprietary")
# The release date in the metadata follows SOURCE_DATE_EPOCH when a reproducible build sets it.
string(TIMESTAMP VOXARIA_RELEASE_DATE "%Y-%m-%d" UTC)
string(TIMESTAMP VOXARIA_CHANGELOG_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)

set(staged ${PROJECT_BINARY_DIR}/packaging)
configure_file(resources/${VOXARIA_APP_ID}.metainfo.xml.in ${staged}/${VOXARIA_APP_ID}.metainfo.xml @ONLY)
configure_file(resources/man/voxaria.1 ${staged}/voxaria.1 @ONLY)
configure_file(packaging/changelog.in ${staged}/changelog @ONLY)
# Debian wants man pages and changelogs compressed, reproducibly (no name or time in the header).
foreach(document voxaria.1 changelog)
  add_custom_command(OUTPUT ${staged}/${document}.gz
    COMMAND gzip -9 -n -c ${staged}/${document} > ${staged}/${document}.gz
    DEPENDS ${staged}/${document} VERBATIM)
endforeach()
add_custom_target(voxaria_documents ALL DEPENDS ${staged}/voxaria.1.gz ${staged}/changelog.gz)

# The program lives in a folder of its own with the whisper-cli it runs beside it (where it looks
# first), and bin/voxaria links there: bin/whisper-cli is the distribution's whisper.cpp package's.
# libexec, not lib/voxaria: CPack adds ldconfig calls for libraries anywhere under lib/, and the
# portable whisper-cli's libraries are private to it.
set(VOXARIA_PROGRAM_DIR ${CMAKE_INSTALL_LIBEXECDIR}/voxaria)
install(TARGETS voxaria RUNTIME DESTINATION ${VOXARIA_PROGRAM_DIR})
file(CREATE_LINK ../${VOXARIA_PROGRAM_DIR}/voxaria ${staged}/voxaria SYMBOLIC)
install(FILES ${staged}/voxaria DESTINATION ${CMAKE_INSTALL_BINDIR})
if(TARGET whisper_cli)
  # Libraries are not programs (0644); the unversioned names only serve linking against them.
  install(DIRECTORY ${VOXARIA_WHISPER_BIN_DIR}/ DESTINATION ${VOXARIA_PROGRAM_DIR}
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
    PATTERN whisper-cli PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE
    REGEX "/lib(whisper|ggml|ggml-base)[.]so$" EXCLUDE)
  # cpack reads this file before it packs: dpkg-shlibdeps is run through packaging/shlibdeps.sh.
  set(cpack_config "set(SHLIBDEPS_EXECUTABLE \"${PROJECT_SOURCE_DIR}/packaging/shlibdeps.sh\")\n")
  # A package goes to other machines: its whisper-cli must be the portable one (the default).
  if(NOT VOXARIA_PORTABLE_CPU)
    string(APPEND cpack_config "message(WARNING \"This package's whisper-cli is built for this machine's CPU "
      "only; configure with -DVOXARIA_PORTABLE_CPU=ON (the default) to make one for any x86-64 CPU.\")\n")
  endif()
  file(WRITE ${staged}/CPackProjectConfig.cmake "${cpack_config}")
  set(CPACK_PROJECT_CONFIG_FILE ${staged}/CPackProjectConfig.cmake)
endif()
# KWin lets a program type the paste keys (X-KDE-Wayland-Interfaces) when the first word of Exec= of
# its installed desktop file is, once links are followed, the program's real path: an absolute one,
# under the prefix the installation (or CPack's) uses.
set(desktop_entry ${staged}/${VOXARIA_APP_ID}.desktop)
install(CODE "
  file(READ \"${PROJECT_SOURCE_DIR}/resources/${VOXARIA_APP_ID}.desktop\" entry)
  string(REPLACE \"\nExec=voxaria\n\" \"\nExec=\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/voxaria\n\" entry \"\${entry}\")
  file(WRITE \"${desktop_entry}\" \"\${entry}\")")
install(FILES ${desktop_entry} DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
install(FILES resources/icons/${VOXARIA_APP_ID}.svg DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)
install(FILES ${staged}/${VOXARIA_APP_ID}.metainfo.xml DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo)
install(FILES resources/help/ajuda.html DESTINATION ${CMAKE_INSTALL_DATADIR}/voxaria/help)
# The page is in Portuguese, like the program; it sits where `man voxaria` finds it in any locale.
install(FILES ${staged}/voxaria.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES packaging/copyright ${staged}/changelog.gz DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/voxaria)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME voxaria)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${VOXARIA_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "push-to-talk voice dictation for the desktop")
set(CPACK_PACKAGE_DESCRIPTION "Hold the dictation key, speak and release: Voxaria turns the speech into
text and pastes it into the application in front, then puts the clipboard
back as it was. Every dictation is kept in a searchable history, and audio
or video files and links can be transcribed to text or SRT subtitles.
.
Speech is recognised locally, by whisper.cpp's whisper-cli when it and a
model are installed, or else live by the Nemotron streaming model. Voxaria lives in the
system tray of an X11 session; its interface is in Brazilian Portuguese.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE ${VOXARIA_HOMEPAGE})
# Depends comes from the libraries the program really links, plus Qt's Portuguese texts for its
# standard dialogs and menus; the rest only widens what it can do.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "qt6-translations-l10n")
# whisper-cli computes on a GPU through the Vulkan loader where there is one, and on the CPU without.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "yt-dlp, pulseaudio-utils")
if(VOXARIA_WHISPER_HAS_VULKAN)
  string(APPEND CPACK_DEBIAN_PACKAGE_RECOMMENDS ", libvulkan1")
endif()
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "whisper.cpp")
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
include(CPack)
