# The platform's macros that the policy uses, as API 33 expands them.
define(`x_file_perms', `{ getattr execute execute_no_trans map }')
define(`r_file_perms', `{ getattr open read ioctl lock map watch watch_reads }')
define(`w_file_perms', `{ open append write lock map }')
define(`rx_file_perms', `{ r_file_perms x_file_perms }')
define(`rw_file_perms', `{ r_file_perms w_file_perms }')
define(`create_file_perms', `{ create rename setattr unlink rw_file_perms }')
define(`r_dir_perms', `{ open getattr read search ioctl lock watch watch_reads }')
define(`w_dir_perms', `{ open search write add_name remove_name lock }')
define(`rw_dir_perms', `{ r_dir_perms w_dir_perms }')
define(`rw_socket_perms', `{ ioctl read getattr write setattr lock append bind connect getopt setopt shutdown map }')
define(`create_socket_perms', `{ create rw_socket_perms }')

define(`TCGETS', `0x5401')
define(`TCSETS', `0x5402')
define(`TCFLSH', `0x540b')
define(`SIOCGIFFLAGS', `0x8913')
define(`SIOCSIFFLAGS', `0x8914')
define(`SIOCSIFADDR', `0x8916')
define(`SIOCSIFNETMASK', `0x891c')

define(`domain_trans', `
allow $1 $2:file { getattr open read execute map };
allow $1 $3:process transition;
allow $3 $2:file { entrypoint open read execute getattr map };
ifelse($1, `init', `', `allow $3 $1:process sigchld;')
dontaudit $1 $3:process noatsecure;
allow $1 $3:process { siginh rlimitinh };
')
define(`domain_auto_trans', `domain_trans($1, $2, $3)
type_transition $1 $2:process $3;')
define(`init_daemon_domain', `domain_auto_trans(init, $1_exec, $1)')
define(`r_dir_file', `
allow $1 $2:dir r_dir_perms;
allow $1 $2:{ file lnk_file } r_file_perms;
')
define(`hwbinder_use', `
allow $1 hwservicemanager:binder { call transfer };
allow hwservicemanager $1:binder { call transfer };
allow hwservicemanager $1:dir search;
allow hwservicemanager $1:file { read open map };
allow hwservicemanager $1:process getattr;
')
define(`binder_call', `
allow $1 $2:binder { call transfer };
allow $2 $1:binder transfer;
allow $1 $2:fd use;
')
define(`get_prop', `allow $1 $2:file { getattr open read map };')
define(`set_prop', `
allow $1 property_socket:sock_file write;
allow $1 init:unix_stream_socket connectto;
allow $1 $2:property_service set;
get_prop($1, $2)
')
define(`hal_server_domain', `
typeattribute $1 halserverdomain;
typeattribute $1 $2_server;
typeattribute $1 $2;
')
define(`add_hwservice', `
allow $1 $2:hwservice_manager { add find };
allow $1 hidl_base_hwservice:hwservice_manager add;
neverallow { domain -$1 } $2:hwservice_manager add;
')
define(`hal_attribute_hwservice', `
allow $1_client $2:hwservice_manager find;
add_hwservice($1_server, $2)
neverallow { domain -$1_client -$1_server } $2:hwservice_manager find;
')
define(`vendor_internal_prop', `
type $1, property_type, vendor_property_type, vendor_internal_property_type;
neverallow { coredomain -init -dumpstate } $1:file { append create link unlink read write };
')
define(`vendor_restricted_prop', `
type $1, property_type, vendor_property_type, vendor_restricted_property_type;
neverallow { coredomain -init } $1:property_service set;
')
