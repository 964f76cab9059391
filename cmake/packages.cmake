# What CPack makes Debian packages of: a package a component. scripts/package.sh builds for both architectures and completes what CPack
# does not know to write.
if(NOT DEFINED KEST_PACKAGE_ARCHITECTURE)
    return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kest)
set(CPACK_PACKAGE_VENDOR "The Kest authors")
set(CPACK_PACKAGE_CONTACT "The Kest authors <maintainers@kest.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE "${KEST_PACKAGE_ARCHITECTURE}")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(runtime libkest${PROJECT_VERSION_MAJOR})
set(version "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
string(CONCAT text "Kest gives C++17 programs one interface to files, directories, dynamic\nlibraries, threads, sockets, time, text and the "
    "process. No failure and no\ncancelled thread loses a descriptor, a lock or a file.\n\n")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# What the library is linked with, and the protocol database that sockets are made with.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${KEST_PACKAGE_DEPENDS}, netbase")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${text}This package holds the library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkest-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${runtime} (= ${version})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "libkest-doc")
string(CONCAT CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "${text}"
    "This package holds the headers, the static library, the CMake package and the\nfile for pkg-config.")

if(KEST_BUILD_DOCS)
    list(APPEND CPACK_COMPONENTS_ALL documentation)
    set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_NAME libkest-doc)
    set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_SECTION doc)
    set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_ARCHITECTURE all)
    string(CONCAT CPACK_COMPONENT_DOCUMENTATION_DESCRIPTION "${text}"
        "This package holds the manual as pages for a browser.")
endif()

# What Debian wants to find beside every package's files.
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${component} upper)
    set(PACKAGE ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
    set(VERSION ${PROJECT_VERSION})
    set(DATE "${KEST_PACKAGE_DATE}")
    set(folder "${PROJECT_BINARY_DIR}/packaging/${PACKAGE}")
    configure_file("${PROJECT_SOURCE_DIR}/packaging/changelog.in" "${folder}/changelog.Debian" @ONLY)
    configure_file("${PROJECT_SOURCE_DIR}/CHANGELOG.md" "${folder}/changelog" COPYONLY)
    foreach(changelog changelog changelog.Debian)
        # -n: no time and no name in it, so that the same sources give the same package.
        execute_process(COMMAND gzip -9nf "${folder}/${changelog}" COMMAND_ERROR_IS_FATAL ANY)
    endforeach()
    install(FILES "${folder}/changelog.gz" "${folder}/changelog.Debian.gz" "${PROJECT_SOURCE_DIR}/packaging/copyright"
        DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${PACKAGE}" COMPONENT ${component})
    set(overrides "${PROJECT_SOURCE_DIR}/packaging/${PACKAGE}.lintian-overrides")
    if(EXISTS "${overrides}")
        install(FILES "${overrides}" DESTINATION "${CMAKE_INSTALL_DATADIR}/lintian/overrides" RENAME ${PACKAGE} COMPONENT ${component})
    endif()
endforeach()

include(CPack)
