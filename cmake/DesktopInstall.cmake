# What a desktop user gets besides the binaries: the manual page (built from its scdoc source),
# bash completion and the polkit action of the presence gate. The PAM service is left to
# distribution packages (debian/keyloft.pam), since PAM stacks differ between distributions.
include(GNUInstallDirs)

option(KEYLOFT_MANPAGE "Build and install the manual page (needs scdoc)" ON)
if(KEYLOFT_MANPAGE)
    find_program(SCDOC scdoc REQUIRED)
    set(keyloft_manpage ${CMAKE_BINARY_DIR}/keyloft.1)
    set(keyloft_manpage_source ${PROJECT_SOURCE_DIR}/docs/keyloft.1.scd)
    add_custom_command(OUTPUT ${keyloft_manpage}
        COMMAND ${SCDOC} < ${keyloft_manpage_source} > ${keyloft_manpage}
        DEPENDS ${keyloft_manpage_source}
        COMMENT "Building the manual page keyloft(1)")
    add_custom_target(keyloft-manpage ALL DEPENDS ${keyloft_manpage})
    install(FILES ${keyloft_manpage} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()

install(FILES ${PROJECT_SOURCE_DIR}/completion/keyloft.bash
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME keyloft)

# polkit reads actions from this one folder only, whatever the install prefix.
set(KEYLOFT_POLKIT_ACTION_DIR /usr/share/polkit-1/actions CACHE PATH
    "Folder of polkit's action definitions")
install(FILES ${PROJECT_SOURCE_DIR}/platform/key_processor/org.keyloft.policy
    DESTINATION ${KEYLOFT_POLKIT_ACTION_DIR})
