# What a player gets: install rules and the release packages (scripts/release.sh runs CPack).
#   Windows: sarnlink-<version>-windows-x64.zip with the static .exe, README.txt, the example
#            configuration and the licences of what is linked into the .exe.
#   Linux:   a .deb (sarnlink-cli in /usr/bin, its dependencies declared from the libraries it
#            links) and a .tar.gz of the same tree.

set(SARNLINK_PACKAGE_CONTACT "sarnlink developers" CACHE STRING "Maintainer named in the .deb")

# The players' guide lives once, in README.md, between two markers; README.txt is cut from it.
file(READ ${CMAKE_SOURCE_DIR}/README.md readme_text)
string(FIND "${readme_text}" "<!-- players' guide -->" guide_start)
string(FIND "${readme_text}" "<!-- end of players' guide -->" guide_end)
if(guide_start EQUAL -1 OR guide_end LESS guide_start)
  message(FATAL_ERROR "README.md has lost the players' guide markers that README.txt is cut from")
endif()
string(LENGTH "<!-- players' guide -->" marker_length)
math(EXPR guide_start "${guide_start} + ${marker_length}")
math(EXPR guide_length "${guide_end} - ${guide_start}")
string(SUBSTRING "${readme_text}" ${guide_start} ${guide_length} guide_text)
string(STRIP "${guide_text}" guide_text)
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/packaging/README.txt
  CONTENT "sarnlink ${PROJECT_VERSION}\n\n${guide_text}\n" @ONLY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/README.md)

# The programs a player gets: sarnlink-cli, and sarnlink-check where the build has it.
set(player_programs sarnlink-cli)
if(TARGET sarnlink-check)
  list(APPEND player_programs sarnlink-check)
endif()
# The packages need only these: packaging must not wait for the test suites to build.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY TRUE)
add_custom_target(player-programs)
add_dependencies(player-programs ${player_programs})

if(WIN32)
  # A player unpacks one folder and finds everything in it, the program at the top.
  set(doc_dir .)
  set(license_dir licenses)
  install(TARGETS ${player_programs} RUNTIME DESTINATION .)
  # The .exe carries the MinGW-w64 runtime, winpthreads, libstdc++ and libgcc (under the GCC
  # runtime library exception, with GPL-3 beside it), nlohmann json and miniupnpc.
  install(FILES
    ${CMAKE_SOURCE_DIR}/packaging/licenses/mingw-w64-runtime-and-winpthreads.txt
    ${CMAKE_SOURCE_DIR}/packaging/licenses/gcc-runtime-libstdc++-libgcc.txt
    ${CMAKE_SOURCE_DIR}/packaging/licenses/GPL-3.txt
    ${CMAKE_SOURCE_DIR}/packaging/licenses/nlohmann-json.txt
    ${CMAKE_SOURCE_DIR}/packaging/licenses/miniupnpc.txt
    DESTINATION ${license_dir})
else()
  include(GNUInstallDirs)
  set(doc_dir ${CMAKE_INSTALL_DATAROOTDIR}/doc/sarnlink)
  set(license_dir ${doc_dir}/licenses)
  install(TARGETS ${player_programs} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  # libstdc++, libcurl, OpenSSL and miniupnpc come from the system's packages with their own notices;
  # only nlohmann json is compiled in.
  install(FILES ${CMAKE_SOURCE_DIR}/packaging/licenses/nlohmann-json.txt DESTINATION ${license_dir})
endif()
install(FILES ${CMAKE_BINARY_DIR}/packaging/README.txt
  ${CMAKE_SOURCE_DIR}/packaging/sarnlink_config.example.json
  DESTINATION ${doc_dir})

set(CPACK_PACKAGE_NAME sarnlink)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "Runs beside the orlond game port and carries its online play to The Ember Court")
set(CPACK_PACKAGE_CONTACT "${SARNLINK_PACKAGE_CONTACT}")
set(CPACK_STRIP_FILES TRUE)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_PACKAGE_FILE_NAME sarnlink-${PROJECT_VERSION}-windows-x64)
  # Explorer's "Extract All" already makes a folder named after the zip; a folder inside the
  # zip would nest a second one and put the program two levels below where the player chose.
  set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY OFF)
else()
  set(CPACK_GENERATOR DEB TGZ)
  set(CPACK_PACKAGE_FILE_NAME sarnlink-${PROJECT_VERSION}-linux-x86_64)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION games)
  # Depends is worked out from the libraries the program links (libcurl, libcrypto, libminiupnpc, libstdc++).
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  # The synopsis line comes from the summary above; this is the long text below it.
  set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "sarnlink-cli answers the game's online-service protocols on this machine's loopback and\n\
carries accounts, matching rooms, peer-to-peer play and the game's server traffic over HTTPS\n\
to The Ember Court community service.")
endif()
include(CPack)
