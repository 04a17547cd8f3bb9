# Where things are installed: below the prefix as the distribution has it, libraries in the directory
# of their architecture.
if(CMAKE_LIBRARY_ARCHITECTURE)
    set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Object code libraries")
endif()
include(GNUInstallDirs)
set(velt_module_dir ${CMAKE_INSTALL_LIBDIR}/pkcs11)

# The file by which p11-kit finds the module. It is written at installation, which may choose another
# prefix than the build.
function(velt_install_registration)
    install(CODE "
        set(module_dir ${velt_module_dir})
        set(registration_dir ${CMAKE_INSTALL_DATADIR}/p11-kit/modules)
        set(template ${PROJECT_SOURCE_DIR}/packaging/velt-pkcs11.module.in)
        include(${PROJECT_SOURCE_DIR}/cmake/install_registration.cmake)"
        COMPONENT velt-pkcs11)
endfunction()

# velt_install_manual(<component> <page> [<program>]): packaging/man/<page>.in with the version filled in,
# and with the options of the program, made by target velt-manuals.
add_custom_target(velt-manuals ALL)
function(velt_install_manual component page)
    set(pages ${PROJECT_SOURCE_DIR}/packaging/man)
    set(filled ${CMAKE_BINARY_DIR}/man/${page})
    if(ARGN)
        configure_file(${pages}/${page}.in ${filled}.in @ONLY)
        add_custom_command(OUTPUT ${filled}
            COMMAND ${pages}/fill-options ${filled}.in ${filled} ${ARGN}
            DEPENDS ${filled}.in ${pages}/fill-options ${pages}/options.awk ${ARGN})
        add_custom_target(manual-${page} DEPENDS ${filled})
        add_dependencies(velt-manuals manual-${page})
    else()
        configure_file(${pages}/${page}.in ${filled} @ONLY)
    endif()
    string(REGEX MATCH "[0-9]$" section ${page})
    install(FILES ${filled} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
endfunction()
