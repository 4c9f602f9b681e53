# What the OpenWrt package (openwrt/net/cbsd) takes from `cmake --install`
# besides the binary: the procd init script and the default configuration.
# Both paths are fixed on OpenWrt (procd reads /etc/init.d, the daemon
# /etc/config/sas), whatever the prefix.
set(CBSD_OPENWRT_FILES ${CMAKE_SOURCE_DIR}/openwrt/net/cbsd/files)
install(PROGRAMS ${CBSD_OPENWRT_FILES}/cbsd.init DESTINATION /etc/init.d RENAME cbsd)
install(FILES ${CBSD_OPENWRT_FILES}/sas.config DESTINATION /etc/config RENAME sas)

# The init script against a stand-in of procd's shell helpers, a DESTDIR
# install with its file list, and the default configuration's names against
# the daemon's table of UCI names.
if(NOT CBSD_FUZZ)
  add_test(NAME package.init_script
           COMMAND sh ${CMAKE_SOURCE_DIR}/tests/openwrt/init_script_test.sh
                   ${CBSD_OPENWRT_FILES}/cbsd.init)
  add_test(NAME package.install
           COMMAND sh ${CMAKE_SOURCE_DIR}/tests/openwrt/install_test.sh
                   ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR})
  add_test(NAME package.config_names
           COMMAND /usr/bin/python3 ${CMAKE_SOURCE_DIR}/tests/openwrt/config_names_test.py)
  set_tests_properties(package.init_script package.install package.config_names
                       PROPERTIES LABELS "package" TIMEOUT 60)
endif()
