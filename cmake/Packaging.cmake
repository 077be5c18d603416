# A Debian package of everything `cmake --install` puts in place: the
# plug-in, the host library and its headers, the fetchlet program and its
# manual page, and the set-user-ID launcher with its PAM service and
# settings. Tests, benchmarks and fuzz targets have no install rules, so
# they stay out.
#
#   cmake --build <build> --target package    (or scripts/package)
#
# The package installs under CMAKE_INSTALL_PREFIX, the prefix the program
# was built for (it names the installed plug-in's path): configure with
# -DCMAKE_INSTALL_PREFIX=/usr for a package that follows Debian's layout.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qvefetchlets)
set(CPACK_PACKAGE_VENDOR "qvefetchlets")
set(CPACK_PACKAGE_CONTACT "qvefetchlets maintainers <root@localhost>"
    CACHE STRING "Maintainer named in the Debian package")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "OS fetchlets of a monitoring agent, with an embedded host")
set(CPACK_PACKAGE_DESCRIPTION
    "A plug-in library of fetchlets that collect a metric by running an\n\
operating-system command, plainly or under a user name and password, and\n\
an embedded host that runs them on their own: the fetchlet program, the\n\
host library and its headers, and the fetchlet-launch credential launcher.")
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}/package")

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Library dependencies come from dpkg-shlibdeps; the PAM service file
# includes common-auth and common-account, which libpam-runtime provides.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libpam-runtime")

# Maintainer scripts and control files, generated into the build tree.
set(qve_deb_dir "${PROJECT_BINARY_DIR}/debian-control")
set(qve_launcher_installed
    "${CMAKE_INSTALL_FULL_LIBEXECDIR}/fetchlet-launch")

# The archive may or may not keep the set-user-ID bit; the launcher gets it
# here unless the administrator chose otherwise with dpkg-statoverride.
file(CONFIGURE OUTPUT "${qve_deb_dir}/postinst" @ONLY CONTENT [=[
#!/bin/sh
set -e
launcher='@qve_launcher_installed@'
if [ "$1" = configure ] && [ -f "$launcher" ] &&
   ! dpkg-statoverride --list "$launcher" >/dev/null 2>&1; then
  chown root:root "$launcher"
  chmod 4755 "$launcher"
fi
exit 0
]=])

# The files under /etc are the administrator's once installed.
set(qve_conffiles "")
foreach(conffile "${QVE_PAM_DIR}/fetchlet-launch" "${QVE_LAUNCHER_CONFIG}")
  if(conffile MATCHES "^/etc/")
    string(APPEND qve_conffiles "${conffile}\n")
  endif()
endforeach()
file(WRITE "${qve_deb_dir}/conffiles" "${qve_conffiles}")

# The shared libraries are registered with ldconfig when the package
# comes and goes.
file(WRITE "${qve_deb_dir}/triggers" "activate-noawait ldconfig\n")

set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    "${qve_deb_dir}/postinst;${qve_deb_dir}/conffiles;${qve_deb_dir}/triggers")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_PRE_BUILD_SCRIPTS
    "${CMAKE_CURRENT_LIST_DIR}/CompressManPages.cmake")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "nlohmann-json3-dev")

set(CPACK_SOURCE_GENERATOR TGZ)
set(CPACK_SOURCE_IGNORE_FILES "/\\\\.git/" "/build/")

include(CPack)
