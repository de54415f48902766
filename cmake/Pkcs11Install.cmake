# Installs the PKCS#11 module under <prefix>/lib/keyloft (or KEYLOFT_PKCS11_INSTALL_DIR: the
# Debian package puts it in the multiarch pkcs11 folder) and registers it with p11-kit: a
# keyloft.module file in p11-kit's folder of module configurations, which p11-kit-proxy.so and
# every p11-kit-aware application read. Included from pkcs11/CMakeLists.txt after the
# keyloft-pkcs11 target.
set(KEYLOFT_PKCS11_INSTALL_DIR lib/keyloft CACHE STRING
    "Folder of the PKCS#11 module, relative to the install prefix")
install(TARGETS keyloft-pkcs11 LIBRARY DESTINATION ${KEYLOFT_PKCS11_INSTALL_DIR})

pkg_get_variable(P11_MODULE_CONFIGS p11-kit-1 p11_module_configs)
if(NOT P11_MODULE_CONFIGS)
    set(P11_MODULE_CONFIGS /usr/share/p11-kit/modules)
endif()
# The registration names the module by its absolute installed path, so it is written at install
# time, when the prefix (`cmake --install --prefix`) is known.
set(keyloft_module_file ${CMAKE_CURRENT_BINARY_DIR}/keyloft.module)
install(CODE "
    set(KEYLOFT_PKCS11_PATH
        \"\${CMAKE_INSTALL_PREFIX}/${KEYLOFT_PKCS11_INSTALL_DIR}/$<TARGET_FILE_NAME:keyloft-pkcs11>\")
    configure_file(\"${PROJECT_SOURCE_DIR}/pkcs11/keyloft.module.in\" \"${keyloft_module_file}\"
        @ONLY)
")
install(FILES ${keyloft_module_file} DESTINATION ${P11_MODULE_CONFIGS})
