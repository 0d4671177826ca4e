# ravo_write_units(prefix folder): writes the systemd units into the folder, for programs below the
# prefix. Each service on the bus gets the sandbox that all have in common. Also used while installing.
set(RAVO_UNITS ravod vpncaas NetworkService)
set(RAVO_UNITS_SOURCE_DIR "${CMAKE_CURRENT_LIST_DIR}/..")

function(ravo_write_units RAVO_PREFIX folder)
    file(READ "${RAVO_UNITS_SOURCE_DIR}/sandbox.conf" text)
    string(STRIP "${text}" RAVO_SANDBOX)
    foreach(unit ${RAVO_UNITS})
        configure_file("${RAVO_UNITS_SOURCE_DIR}/${unit}.service.in" "${folder}/${unit}.service" @ONLY)
    endforeach()
    foreach(unit ravod-notify.service ravod-notify.path)
        configure_file("${RAVO_UNITS_SOURCE_DIR}/${unit}.in" "${folder}/${unit}" @ONLY)
    endforeach()
endfunction()

# ravo_write_tmpfiles(prefix folder): writes what is made at each boot, for programs below the prefix.
# The daemon starts the notifier by one name, so elsewhere than in /usr/local a link leads to it. A
# notifier that is there already stays.
function(ravo_write_tmpfiles prefix folder)
    file(READ "${RAVO_UNITS_SOURCE_DIR}/tmpfiles.conf" text)
    if(NOT prefix STREQUAL "/usr/local")
        string(APPEND text "L /usr/local/sbin/notify - - - - ${prefix}/sbin/notify\n")
    endif()
    file(WRITE "${folder}/ravod.conf" "${text}")
endfunction()

# ravo_write_openvpn_files(prefix folder): writes what servers of OpenVPN include, for a helper below
# the prefix. Also used while installing.
function(ravo_write_openvpn_files RAVO_PREFIX folder)
    foreach(name ravod ravod-auth)
        configure_file("${RAVO_UNITS_SOURCE_DIR}/openvpn/${name}.conf.in" "${folder}/${name}.conf" @ONLY)
    endforeach()
endfunction()

# ravo_write_scripts(prefix folder names...): writes scripts for programs below the prefix, named with
# their folder: what pppd calls (ppp/ip-up, ppp/ip-down), and what starts the services without systemd
# (openrc/ravod, runit/run). Also used while installing.
function(ravo_write_scripts RAVO_PREFIX folder)
    foreach(name ${ARGN})
        configure_file("${RAVO_UNITS_SOURCE_DIR}/${name}.in" "${folder}/${name}" @ONLY
            FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                WORLD_READ WORLD_EXECUTE)
    endforeach()
endfunction()
