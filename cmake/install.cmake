# What "cmake --install" puts where, in components that a packager can tell apart:
#   library  libzevobandwidth and the definition of the status directory
#   core     libzevocore    \ left out with ZEVOBW_PLATFORM=OFF, as are
#   sdk      libzevosdk     / zevocore.h and what links against them
#   dev      what a service is built with, section 3 of the manual
#   tool     the administrator's command, its manual and completions
#
# DESTDIR and --prefix are followed: nothing that is installed names the prefix.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Builds what is installed, and nothing else.
add_custom_target(distribution ALL)
add_dependencies(distribution zevobandwidth zevocore zevosdk zevobandwidth-tool)

# ---- libraries and headers ----

install(TARGETS zevobandwidth LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library
        NAMELINK_COMPONENT dev)
install(FILES
        include/zevobandwidth.h
        include/zevobandwidth.hpp
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
if(ZEVOBW_PLATFORM)
    install(TARGETS zevocore LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT core
            NAMELINK_COMPONENT dev)
    # Services read the error slot themselves; libzevosdk they never call.
    install(FILES platform/core/include/zevocore.h
            DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
    install(TARGETS zevosdk LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT sdk NAMELINK_SKIP)
endif()

# ---- how a service finds them ----

set(pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH pc_to_prefix /${pc_dir} /)
string(REGEX REPLACE "/$" "" pc_to_prefix ${pc_to_prefix})
configure_file(cmake/zevobandwidth.pc.in zevobandwidth.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/zevobandwidth.pc DESTINATION ${pc_dir} COMPONENT dev)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Zevobandwidth)
configure_package_config_file(cmake/ZevobandwidthConfig.cmake.in ZevobandwidthConfig.cmake
    INSTALL_DESTINATION ${package_dir} PATH_VARS CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/ZevobandwidthConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/ZevobandwidthConfig.cmake
              ${CMAKE_BINARY_DIR}/ZevobandwidthConfigVersion.cmake
        DESTINATION ${package_dir} COMPONENT dev)

# ---- the status directory ----

# systemd looks there whatever the architecture's library directory is.
install(FILES cmake/tmpfiles.conf RENAME zevobandwidth.conf
        DESTINATION lib/tmpfiles.d COMPONENT library)

# ---- the tool: in bin, for ordinary users run "zevobandwidth pipe" ----

install(TARGETS zevobandwidth-tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)

# install_completion(SHELL DIRECTORY NAME): what the tool itself prints for the shell.
function(install_completion shell directory name)
    set(script ${CMAKE_BINARY_DIR}/completion/${shell}/${name})
    add_custom_command(OUTPUT ${script} VERBATIM
        COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/completion/${shell}
        COMMAND zevobandwidth-tool completion ${shell} > ${script})
    add_custom_target(completion_${shell} DEPENDS ${script})
    add_dependencies(distribution completion_${shell})
    install(FILES ${script} DESTINATION ${directory} COMPONENT tool)
endfunction()
install_completion(bash ${CMAKE_INSTALL_DATADIR}/bash-completion/completions zevobandwidth)
install_completion(zsh ${CMAKE_INSTALL_DATADIR}/zsh/site-functions _zevobandwidth)
install_completion(fish ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d zevobandwidth.fish)

# ---- the manual ----

file(GLOB pages CONFIGURE_DEPENDS man/*.[1578])
foreach(page IN LISTS pages)
    cmake_path(GET page EXTENSION LAST_ONLY section)
    string(SUBSTRING ${section} 1 -1 section)
    install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT tool)
endforeach()

# Section 3 comes from the comments of the header.
find_program(ZEVOBW_DOXYGEN doxygen)
if(ZEVOBW_DOXYGEN)
    file(GLOB samples CONFIGURE_DEPENDS man/man3/*.c)
    set(section3 ${CMAKE_BINARY_DIR}/man3)
    add_custom_command(OUTPUT ${section3}/zevobandwidth.h.3 VERBATIM
        COMMAND scripts/manual ${section3} WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}
        DEPENDS ${public_header} docs/Doxyfile docs/Doxyfile.man scripts/manual
                scripts/lib/page.awk debian/changelog ${samples})
    add_custom_target(manual DEPENDS ${section3}/zevobandwidth.h.3)
    add_dependencies(distribution manual)
    install(DIRECTORY ${section3}/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT dev)
else()
    message(STATUS "Doxygen is not installed: section 3 of the manual is not made "
                   "(scripts/test installs it)")
endif()
