# Run by cmake --install, with module_dir, registration_dir (both below the prefix) and template set.
# p11-kit looks for a bare name in the system's own directory, elsewhere it needs the whole path.
set(VELT_REGISTERED velt-pkcs11.so)
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(VELT_REGISTERED ${CMAKE_INSTALL_PREFIX}/${module_dir}/velt-pkcs11.so)
endif()
set(registration $ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/${registration_dir}/velt-pkcs11.module)
message(STATUS "Installing: ${registration}")
configure_file(${template} ${registration} @ONLY NEWLINE_STYLE UNIX)
