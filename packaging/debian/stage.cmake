# Run by CPack on the staged files: the changelog, the copyright file and the manual pages as Debian has them.
set(share "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/usr/share")
set(documents "${share}/doc/${CPACK_PACKAGE_NAME}")
set(revision "${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")

function(run)
    execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY OUTPUT_VARIABLE output OUTPUT_STRIP_TRAILING_WHITESPACE)
    set(output "${output}" PARENT_SCOPE)
endfunction()

# The changelog of the package tells of this version; everything else is in the program's own.
string(REPLACE "." "\\." pattern "${CPACK_PACKAGE_VERSION}")
file(STRINGS "${CPACK_ORVANTIS_SOURCES}/CHANGELOG.md" heading REGEX "^## \\[${pattern}\\] - ")
if(NOT heading MATCHES "([0-9]+-[0-9]+-[0-9]+)$")
    message(FATAL_ERROR "CHANGELOG.md has no heading with a date for version ${CPACK_PACKAGE_VERSION}")
endif()
run(date --utc --rfc-email "--date=${CMAKE_MATCH_1}")
file(WRITE "${documents}/changelog.Debian"
    "${CPACK_PACKAGE_NAME} (${revision}) unstable; urgency=medium\n\n"
    "  * Version ${CPACK_PACKAGE_VERSION}; changelog.gz tells what is new.\n\n"
    " -- ${CPACK_DEBIAN_PACKAGE_MAINTAINER}  ${output}\n")
configure_file("${CPACK_ORVANTIS_SOURCES}/packaging/debian/copyright" "${documents}/copyright" COPYONLY NO_SOURCE_PERMISSIONS)
file(REMOVE "${documents}/LICENSE") # Debian has the text in one place for all packages, and copyright names it
file(RENAME "${documents}/CHANGELOG.md" "${documents}/changelog")
file(GLOB pages "${share}/man/man1/*.1")
run(gzip --best --no-name "${documents}/changelog" "${documents}/changelog.Debian" ${pages})
