# The Debian package: `cpack -G DEB` in the build folder (`make deb`) writes
# verbolt_<version>_amd64.deb. Only what the program needs at run time goes in: the binary, its
# desktop entry, icon, AppStream data and manual page (component "verbolt"), plus the copyright
# and changelog Debian asks for.
include(GNUInstallDirs)

set(VERBOLT_MAINTAINER "Verbolt developers <packaging@verbolt.org>"
    CACHE STRING "Name and address in the package's Maintainer field")

# The changelog's date is the release's day in the form Debian reads (RFC 2822).
execute_process(COMMAND date -u -R -d "${VERBOLT_RELEASE_DATE} 12:00"
                OUTPUT_VARIABLE VERBOLT_RELEASE_DATE_RFC2822 OUTPUT_STRIP_TRAILING_WHITESPACE
                RESULT_VARIABLE verbolt_date_result)
if(NOT verbolt_date_result EQUAL 0)
    message(FATAL_ERROR "Cannot read the release date ${VERBOLT_RELEASE_DATE}")
endif()

set(verbolt_doc ${PROJECT_BINARY_DIR}/packaging)
configure_file(${PROJECT_SOURCE_DIR}/packaging/copyright.in ${verbolt_doc}/copyright @ONLY)
configure_file(${PROJECT_SOURCE_DIR}/packaging/changelog.in ${verbolt_doc}/changelog @ONLY)
add_custom_command(OUTPUT ${verbolt_doc}/changelog.gz
                   COMMAND gzip -9 -n -c changelog > changelog.gz
                   WORKING_DIRECTORY ${verbolt_doc}
                   DEPENDS ${verbolt_doc}/changelog
                   VERBATIM)
add_custom_target(verbolt_changelog ALL DEPENDS ${verbolt_doc}/changelog.gz)

set(verbolt_docdir ${CMAKE_INSTALL_DATADIR}/doc/verbolt)
install(FILES ${verbolt_doc}/copyright ${verbolt_doc}/changelog.gz DESTINATION ${verbolt_docdir} COMPONENT verbolt)

# `make deb` builds everything first; packing then only installs what is built, instead of
# checking every test and benchmark again.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME verbolt)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "The Verbolt authors")
set(CPACK_PACKAGE_CONTACT ${VERBOLT_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "chat client for language-model services")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# Anything else built here (tools, tests, a library brought in from elsewhere) stays out.
set(CPACK_COMPONENTS_ALL verbolt)
set(CPACK_STRIP_FILES ON)
set(CPACK_OUTPUT_FILE_PREFIX ${PROJECT_BINARY_DIR})

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${VERBOLT_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# CPack puts the summary above it, indents each line and turns the empty line into " .".
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "Verbolt is a desktop chat client for large-language-model services in which
you bring your own API keys. OpenAI, Groq, Anthropic and any
OpenAI-compatible endpoint (Ollama, llama.cpp, vLLM, LM Studio) stream their
replies into one window, shown as Markdown with highlighted code and tables.

Conversations are kept on your disk and can be exported as Markdown; the
whole configuration moves in one JSON file.")
# The libraries linked come from dpkg-shlibdeps; what Qt loads by itself at run time does not:
# the SVG image and icon plug-ins draw every symbol of the window, and the Secret Service
# client library keeps the API keys in the desktop's keyring.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libqt6svg6 (>= 6.4), libsecret-1-0")
# Without it Qt draws through XWayland on a Wayland desktop, which still works.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "qt6-wayland")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# lintian reports no error and no warning on the package (tools/check-deb.sh fails on either).
# Left at the "info" level, on purpose:
# - hardening-no-fortify-functions: _FORTIFY_SOURCE would have to be set for every object of the
#   project, not only for the package; the build flags are the same for tests and package.
# - binary-has-unneeded-section .comment: CPack strips with plain `strip`, which keeps the
#   compiler's one-line note.

include(CPack)
