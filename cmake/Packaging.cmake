# Install rules and the Debian package of the tool: the program and its
# manual page, nothing else.
include(GNUInstallDirs)

# Debian keeps manual pages compressed, without a time stamp in the header.
set(VYRA_MANPAGE ${PROJECT_BINARY_DIR}/small_update.8.gz)
add_custom_command(OUTPUT ${VYRA_MANPAGE}
  COMMAND sh -c "gzip -9 -n -c \"$0\" > \"$1\"" ${PROJECT_SOURCE_DIR}/doc/small_update.8 ${VYRA_MANPAGE}
  DEPENDS ${PROJECT_SOURCE_DIR}/doc/small_update.8
  VERBATIM)
add_custom_target(manpage ALL DEPENDS ${VYRA_MANPAGE})

install(TARGETS small_update RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES ${VYRA_MANPAGE} DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)

if(NOT VYRA_DEB_ARCHITECTURE)
  execute_process(COMMAND dpkg --print-architecture
    OUTPUT_VARIABLE VYRA_DEB_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME small-update)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/package)
set(CPACK_PACKAGE_CONTACT "Appliance update team <update-team@example.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "install the critical fixes waiting in the update directory")
set(CPACK_PACKAGE_DESCRIPTION
  "small_update judges the Debian package files in /smallupd@te/ against the
package naming rules and the system's build number, installs the accepted
ones with dpkg in ascending small-fix order, reports every rejected or failed
package on standard error, in the system log, in the event log and to the
administrators, and appends a verdict line to /var/log/vyraupdate.log.")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${VYRA_DEB_ARCHITECTURE})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(VYRA_PACKAGE_FILE
  ${CPACK_PACKAGE_DIRECTORY}/${CPACK_PACKAGE_NAME}_${PROJECT_VERSION}_${VYRA_DEB_ARCHITECTURE}.deb)

# The dependencies are read off the built program when cpack runs: the C
# library at the newest symbol version it uses, and the C++ runtime only if
# it is linked dynamically.
string(REGEX MATCH "^[0-9]+" VYRA_GCC_MAJOR "${CMAKE_CXX_COMPILER_VERSION}")
string(CONFIGURE [[
execute_process(COMMAND "@CMAKE_OBJDUMP@" -p -T "$<TARGET_FILE:small_update>"
  OUTPUT_VARIABLE vyra_dynamic RESULT_VARIABLE vyra_failed)
if(vyra_failed)
  message(FATAL_ERROR "objdump could not read $<TARGET_FILE:small_update>")
endif()
string(REGEX MATCHALL "GLIBC_[0-9]+\\.[0-9]+(\\.[0-9]+)?" vyra_versions "${vyra_dynamic}")
set(vyra_glibc 2.0)
foreach(vyra_version IN LISTS vyra_versions)
  string(REPLACE "GLIBC_" "" vyra_version "${vyra_version}")
  if(vyra_version VERSION_GREATER vyra_glibc)
    set(vyra_glibc ${vyra_version})
  endif()
endforeach()
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= ${vyra_glibc})")
if(vyra_dynamic MATCHES "NEEDED +libstdc\\+\\+\\.so")
  string(APPEND CPACK_DEBIAN_PACKAGE_DEPENDS ", libstdc++6 (>= @VYRA_GCC_MAJOR@)")
endif()
if(vyra_dynamic MATCHES "NEEDED +libgcc_s\\.so")
  string(APPEND CPACK_DEBIAN_PACKAGE_DEPENDS ", libgcc-s1")
endif()
]] VYRA_DEPENDS_SCRIPT @ONLY)
file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/CPackDepends.cmake CONTENT "${VYRA_DEPENDS_SCRIPT}")
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_BINARY_DIR}/CPackDepends.cmake)

include(CPack)
