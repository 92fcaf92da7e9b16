# The Debian package, made by `cpack -G DEB` in the build directory; scripts/package does all of it.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME orvantis-recorder)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "record one application window into a video file")
set(CPACK_PACKAGE_DESCRIPTION
"Records what one window showed, as evidence: about 24 frames a second with
the mouse pointer, a fading marker for every click and the audio of the
application, into a video that stays playable when the program is killed.

record-window records a window by hand. Launchers steer orvantis-recorder over
a local socket; clients for Node.js and Python, and programs that check a
launcher or a recorder, are included.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}/packages")
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(ORVANTIS_MAINTAINER "Orvantis Recorder Maintainers <maintainers@orvantis.invalid>" CACHE STRING
    "Who answers for the Debian package: a name and an address")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${ORVANTIS_MAINTAINER}")
# What the programs are linked with. Qt's platform "minimal" is in the package of QtGui, and FFmpeg's encoders are in
# libavcodec. PipeWire's library reads client.conf and loads modules, which its package does not bring along: without
# them no audio server is reached, also not one that runs.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "pipewire-bin")
# An audio server, without which a recording has video only; and who reads the recording.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "pipewire")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "ffmpeg, mpv, nodejs, python3")

# What Debian wants otherwise than `cmake --install` leaves it.
set(CPACK_PRE_BUILD_SCRIPTS "${CMAKE_CURRENT_LIST_DIR}/stage.cmake")
set(CPACK_ORVANTIS_SOURCES "${PROJECT_SOURCE_DIR}")
include(CPack)
