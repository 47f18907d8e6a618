// Numbers that the library and zrconfigd share, so that the two cannot
// drift: the codes of the message catalogue (named after their adders,
// cfg_message_add_<name>) and the operations of the configuration lock.
// Header only; the library and the daemon both include it.
#ifndef ZRCONFIG_CODES_H
#define ZRCONFIG_CODES_H

namespace zr {

namespace msg {
// Codes 62 and 63 are not assigned: the daemon uses them.
enum code : int {
    unexpected = 0,
    unknown_lock = 1,
    file_io = 2,
    unknown_pull = 3,
    protocol = 4,
    int_above_max = 5,
    int_below_min = 6,
    int_invalid_value = 7,
    float_above_max = 8,
    float_below_min = 9,
    float_invalid_value = 10,
    string_above_max = 11,
    string_below_min = 12,
    string_invalid_value = 13,
    string_format = 14,
    blob_above_max = 15,
    blob_below_min = 16,
    list_above_max = 17,
    list_below_min = 18,
    list_wrong_type = 19,
    missing_required = 20,
    invalid_reference = 21,
    wrong_type = 22,
    no_match = 23,
    password_mismatch = 24,
    invalid_networkaddress = 25,
    duplicate = 26,
    common_name_error = 27,
    path_not_found = 28,
    uuid_not_found = 29,
    database = 30,
    schema = 31,
    conflict = 32,
    push_failed = 33,
    get_schema_failed = 34,
    get_data_by_path_failed = 35,
    get_data_by_id_failed = 36,
    lock_failed = 37,
    subscribe_failed = 38,
    invalid_request = 39,
    incomplete_data = 40,
    invalid_credentials = 41,
    invalid_session = 42,
    changed_ro = 43,
    worker = 44,
    reg_not_ready = 45,
    permission_denied = 46,
    invalid_action = 47,
    invalid_parameter = 48,
    invalid_json = 49,
    invalid_cert = 50,
    invalid_query = 51,
    unknown_data_of_type = 52,
    invalid_ip = 53,
    invalid_parameter_value = 54,
    bad_tag_name = 55,
    bad_key = 56,
    csr_generate_failed = 57,
    invalid_mac = 58,
    dhcp_limit = 59,
    invalid_role = 60,
    int_outside_range = 61,
    field_updated = 64,
    cfg_push_unsupported_operation = 65,
    cfg_push_ug_reserved_value = 66,
    cfg_push_dataset_updated = 67,
    cfg_push_no_changes_required = 68,
    cfg_push_request_failed = 69,
    cfg_push_communication_failure = 70,
    cfg_push_node_offline = 71,
    cfg_push_bad_remote_data = 72,
    invalid_file_format = 73,
    cfg_push_script_exec_success = 74,
    cfg_push_script_exec_failure = 75,
    cfg_push_script_exec_timeout = 76,
    hashed_password_found = 77,
    hashed_password_not_found = 78,
};
} // namespace msg

// The operations of cfg_lock, by the number callers pass.
namespace lock {
enum operation : int { none = 0, write = 1, read = 2 };
} // namespace lock

} // namespace zr

#endif // ZRCONFIG_CODES_H
