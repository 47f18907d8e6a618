/* zrconfig.h: the configuration client library.
 *
 * Programs read, change and validate the appliance configuration through a
 * context (cfg) that holds a local copy of the configuration elements they
 * touched, the schema that describes them, and a stack of coded messages on
 * which every failure is reported. Functions return 1 or a pointer on
 * success, 0 or NULL on failure; the reason is on the message stack.
 *
 * Threads. A context and everything reached from it (elements, schema,
 * messages, trigger tables, connection) is used by one thread at a time; the
 * library takes no lock on it. Contexts on separate threads, each with its
 * own schema, may be used at once: created, filled, converted, validated,
 * released, and each talking to the daemon over its own connection. The
 * process-wide state they share allows it: the message catalogue is built
 * once and then only read; the compiled address and key patterns are
 * compiled once and then only matched; the pool of uuid-index entries sits
 * behind its own lock, and so do the schema records kept after a reload
 * displaced them; the lookup counters are atomic (a change in one
 * context only makes the others look list members up again); each thread
 * makes uuids with its own generator; and the log state sits behind its own
 * lock (a handler set with zrlog_set_handler may run on several threads at
 * once). Not safe from several threads at once: one context; one schema
 * shared by several contexts (validation adds to its cache of compiled
 * patterns); and the formatted-path buffer, of which the process has one:
 * cfg_simple_get_by_path and the functions built on it, and the text they
 * hand back through path_out, must not overlap with the same calls on
 * another thread. Every context creation calls zrlog_init_raw, which sets
 * the log's ident and sinks for the whole process.
 */
#ifndef ZRCONFIG_H
#define ZRCONFIG_H

#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include <jansson.h>
#include <uthash.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define ZRCONFIG_API __attribute__((visibility("default")))
#else
#define ZRCONFIG_API
#endif

/* ------------------------------------------------------------------------
 * Type codes and flags
 * ---------------------------------------------------------------------- */

#define CFG_TYPE_BOOL 1
#define CFG_TYPE_INT 2
#define CFG_TYPE_FLOAT 3
#define CFG_TYPE_STRING 4
#define CFG_TYPE_BLOB 6
#define CFG_TYPE_LIST 7
#define CFG_TYPE_MAP 8
#define CFG_TYPE_REFERENCE 9
#define CFG_TYPE_IF 10 /* schema only */

#define CFG_FLAG_NEW 1
#define CFG_FLAG_CHANGED 2
#define CFG_FLAG_DELETED 4
#define CFG_FLAG_FUTURE_CHILD 8
#define CFG_FLAG_HAS_FUTURE 16

#define CFG_UUID_SIZE 256

/* ------------------------------------------------------------------------
 * Records
 * ---------------------------------------------------------------------- */

typedef struct cfg cfg;
typedef struct cfg_schema cfg_schema;
typedef struct cfg_element cfg_element;

/* Trigger tables and schema records are completed by their own areas. */
struct cfg_uuid_trigger;
struct cfg_path_trigger;
struct cfg_pattern_trigger;
struct cfg_reverse_trigger;
struct cfg_schema_index_entry;
struct cfg_schema_element;
struct cfg_schema_type;
struct cfg_regex_cache_entry;

/* A node of a singly linked list; new nodes go to the tail. */
typedef struct cfg_link {
    void *data;
    struct cfg_link *next;
} cfg_link;

/* One relation between two elements: list (7), map (8) or reference (9). */
typedef struct cfg_parent_link {
    char uuid[CFG_UUID_SIZE];
    unsigned int type;
    unsigned int index; /* list kind */
    char *name;         /* map kind: the member's key (owned) */
} cfg_parent_link;

/* One configuration element. Records are made and released by the library,
 * which keeps private data beside each (list positions among them): change
 * parents and members through the library's functions, not by hand. */
struct cfg_element {
    char uuid[CFG_UUID_SIZE];
    char schema[CFG_UUID_SIZE];
    unsigned int type;
    unsigned int flags;
    int generation;
    cfg_link *parents;
    cfg_parent_link *future_parent;
    union {
        int int_value;       /* Boolean and Integer */
        double float_value;
        char *string_value;  /* String and Reference (target uuid) */
        struct {
            unsigned char *data;
            uint64_t size;
        } blob;
        struct {
            cfg_link *members;
            cfg_link *future_members;
        } list;
        struct {
            cfg_link *members;
        } map;
    } value;
};

/* An entry of the context's uuid index; the key is the element's own uuid.
 * Entries leave the index through cfg_delete_elem or cfg_free_element. */
typedef struct cfg_index_entry {
    cfg_element *element;
    UT_hash_handle hh;
} cfg_index_entry;

/* The schema handle: the uuid map of schema elements, the root, the type
 * registry and the cache of compiled string patterns. */
struct cfg_schema {
    struct cfg_schema_index_entry *elements;
    struct cfg_schema_element *root;
    cfg_link *types;
    struct cfg_regex_cache_entry *regex_cache;
};

/* A message argument: key is a catalogue name, value owned text. */
typedef struct cfg_message_arg {
    char *key;
    char *value;
    UT_hash_handle hh;
    int owns_key; /* set on arguments decoded from JSON */
} cfg_message_arg;

/* One coded message on the stack. */
typedef struct cfg_message {
    int code;
    cfg_message_arg *args;
    char *cached_message;
} cfg_message;

/* One catalogue row. */
typedef struct cfg_message_def {
    int code;
    int type;
    int level;
    const char *text;
    const char **arg_names;
} cfg_message_def;

/* ---- schema records ---- */

/* A member link of a map or if schema element: kind 8, the member's uuid
 * and its key (owned). */
typedef struct cfg_schema_mapid {
    char uuid[CFG_UUID_SIZE];
    unsigned int type;
    char *key;
} cfg_schema_mapid;

/* A conditional link: kind 7, the uuid of an if element and its position. */
typedef struct cfg_schema_mapconditional {
    char uuid[CFG_UUID_SIZE];
    unsigned int type;
    int index;
} cfg_schema_mapconditional;

/* A named type: kind 8, the uuid of the schema element describing it and
 * its name (owned). */
typedef struct cfg_schema_type {
    char uuid[CFG_UUID_SIZE];
    unsigned int type;
    char *name;
} cfg_schema_type;

/* A tag: kind 4, key and value (both owned). */
typedef struct cfg_schema_tag {
    unsigned int type;
    char *key;
    char *value;
} cfg_schema_tag;

/* A value of an allowed-values list or of an if element's comparison. */
typedef union cfg_schema_value {
    int bool_value;
    int int_value;
    double float_value;
    char *string_value;
} cfg_schema_value;

/* An allowed-value entry: kind 1 and the value by the element's type. */
typedef struct cfg_schema_allowed {
    unsigned int type;
    cfg_schema_value value;
} cfg_schema_allowed;

/* A custom validator attached to a schema element. */
typedef struct cfg_schema_validator {
    char *name;
    char **params;
    int params_count;
    char **paths;
    int paths_count;
} cfg_schema_validator;

/* The member lists of a map element (and the head of an if element's part). */
typedef struct cfg_schema_members {
    cfg_link *required;     /* cfg_schema_mapid */
    cfg_link *optional;     /* cfg_schema_mapid */
    cfg_link *deprecated;   /* cfg_schema_mapid */
    cfg_link *conditionals; /* cfg_schema_mapconditional */
} cfg_schema_members;

/* One schema element: the common head, then the part of its type.
 * "default" and "operator" are keywords, hence default_value and op. */
typedef struct cfg_schema_element {
    char uuid[CFG_UUID_SIZE];
    int type;
    unsigned int flags;
    int generation;
    int validators_count;
    cfg_schema_validator **validators;
    cfg_link *tags; /* cfg_schema_tag */
    union {
        struct {
            int has_default;
            int default_value;
        } boolean;
        struct {
            int has_min, min, has_max, max, has_default, default_value;
            cfg_link *allowed; /* cfg_schema_allowed */
        } integer;
        struct {
            int has_min;
            double min;
            int has_max;
            double max;
            int has_default;
            double default_value;
            cfg_link *allowed;
        } real;
        struct {
            int has_min, min, has_max, max;
            int has_regex;
            char *regex;
            int has_default;
            char *default_value;
            cfg_link *allowed;
        } string;
        struct {
            int has_min, min, has_max, max;
        } blob;
        struct {
            int element_kind; /* 1 type code, 2 type name */
            int has_min, min, has_max, max;
            int element_type;
            char *element_type_name;
        } list;
        cfg_schema_members map;
        struct {
            char *target;
        } reference;
        struct {
            cfg_schema_members members;
            char *path;
            int op;         /* 0 none, 1 exists, 2 ==, 3 !=, 4 >, 5 >=, 6 <, 7 <= */
            int value_type; /* 0 none, 1 bool, 2 int, 3 string, 4 float */
            cfg_schema_value value;
            char value_id[64];
            int eval_priority;
        } cond;
    } u;
} cfg_schema_element;

/* An entry of the schema's uuid map, keyed by its own copy of the element's
 * uuid (so a lookup never reads an element that was freed while mapped). */
struct cfg_schema_index_entry {
    cfg_schema_element *element;
    char uuid[CFG_UUID_SIZE];
    UT_hash_handle hh;
};
typedef struct cfg_schema_index_entry cfg_schema_index_entry;

/* A compiled string pattern, keyed by its text (a pcre pointer). */
struct cfg_regex_cache_entry {
    char *pattern;
    void *compiled;
    UT_hash_handle hh;
};
typedef struct cfg_regex_cache_entry cfg_regex_cache_entry;

/* ---- connection records ---- */

/* One id the daemon reassigned on a push: the client's id and the new one.
 * The member named "new" in C is spelled new_ in C++, where "new" is a
 * keyword; the layout is the same in both languages. */
typedef struct cfg_uuid_map_entry {
    char old[255];
#ifdef __cplusplus
    char new_[369];
#else
    char new[369];
#endif
    UT_hash_handle hh; /* keyed by old, over its string length */
} cfg_uuid_map_entry;

/* The connection record kept in a context's client_data. */
typedef struct cfg_client {
    int request_id; /* requests built so far; the next carries request_id + 1 */
    int socket;     /* connected descriptor, -1 once closed */
    cfg_uuid_map_entry *uuid_map;
} cfg_client;

/* ---- condition records ---- */

#define CFG_CONDITION_AND 1
#define CFG_CONDITION_OR 2
#define CFG_CONDITION_BASIC 3

/* Comparison operators of a basic condition. */
#define CFG_OPER_EQ 1
#define CFG_OPER_NE 2
#define CFG_OPER_LT 3
#define CFG_OPER_LE 4
#define CFG_OPER_GT 5
#define CFG_OPER_GE 6
#define CFG_OPER_LIKE_FIRST 7 /* 7 to 9 all render as LIKE; the bound */
#define CFG_OPER_LIKE_LAST 9  /* pattern decides how they match */
#define CFG_OPER_IS_NOT_NULL 10
#define CFG_OPER_IS_NULL 11

/* Value type of a basic condition without a value (IS NULL, IS NOT NULL);
 * the others are CFG_TYPE_BOOL, _INT, _FLOAT, _STRING and _REFERENCE. */
#define CFG_CONDITION_UNTYPED 10

/* A search condition: an AND or OR node over its children, or a basic
 * comparison of one field with one typed value. A node owns its children. */
typedef struct cfg_condition {
    int type;
    struct cfg_condition *next;     /* next sibling under the same node */
    struct cfg_condition *children; /* AND and OR nodes */
    char *fieldname;                /* basic conditions, from here on */
    int oper;
    int datatype;
    union {
        int int_value;      /* boolean and integer */
        double float_value;
        char *string_value; /* string, and the target uuid of a reference */
    } value;
} cfg_condition;

/* ---- validation records ---- */

/* Trigger tables: uthash tables keyed by text. Each record lists, as
 * dependents, the uuids (char[260] copies, at most once each) of the
 * elements to re-validate when what it watches changes. */

/* Watches an existing element, by its uuid. */
struct cfg_uuid_trigger {
    char key[CFG_UUID_SIZE];
    cfg_link *dependents;
    UT_hash_handle hh;
};

/* Watches a static path where no element existed when it was tested. */
struct cfg_path_trigger {
    char key[512];
    cfg_link *dependents;
    UT_hash_handle hh;
};

/* Watches every static path that a regular expression matches; compiled
 * (a pcre pointer) is made on first use and kept with the record. */
struct cfg_pattern_trigger {
    char key[1024];
    cfg_link *dependents;
    void *compiled;
    UT_hash_handle hh;
};

/* One entry of a reverse record: exactly one of the three is set. */
typedef struct cfg_trigger_entry {
    struct cfg_uuid_trigger *uuid_trigger;
    struct cfg_path_trigger *path_trigger;
    struct cfg_pattern_trigger *pattern_trigger;
} cfg_trigger_entry;

/* Keyed by a dependent's uuid: every trigger record whose dependents hold
 * it (cfg_trigger_entry items, in the order added). */
struct cfg_reverse_trigger {
    char key[CFG_UUID_SIZE];
    cfg_link *triggered_by;
    UT_hash_handle hh;
};

typedef struct cfg_uuid_trigger cfg_uuid_trigger;
typedef struct cfg_path_trigger cfg_path_trigger;
typedef struct cfg_pattern_trigger cfg_pattern_trigger;
typedef struct cfg_reverse_trigger cfg_reverse_trigger;

/* The bookkeeping of one validation walk; allocate it zeroed, release it
 * with free_context. Both maps are element maps keyed by uuid; an entry
 * keeps its own copy of the uuid, so a map outlives a replaced record. */
typedef struct validation_context {
    cfg_index_entry *unhandled; /* known to exist, not accounted for yet */
    cfg_index_entry *seen;      /* every element ever entered */
    uint8_t shallow;            /* members are marked handled, not validated */
} validation_context;

/* An item of a connection's id map, held in two hash indexes at once. */
typedef struct cfg_uuid_item {
    char key[512];
    UT_hash_handle hh;
    UT_hash_handle hh2;
} cfg_uuid_item;

typedef cfg_element *(*cfg_get_by_id_fn)(cfg *context, const char *uuid);
typedef cfg_element **(*cfg_get_by_ids_fn)(cfg *context, char **uuids, int count);
typedef int (*cfg_free_client_data_fn)(cfg *context);

/* The configuration context. */
struct cfg {
    cfg_index_entry *elements;
    cfg_schema *schema;
    struct cfg_uuid_trigger *uuid_triggers;
    struct cfg_path_trigger *path_triggers;
    struct cfg_pattern_trigger *pattern_triggers;
    struct cfg_reverse_trigger *reverse_triggers;
    cfg_message **messages;
    int messages_count;
    char **conflicts;
    int conflicts_count;
    char *transaction_dir;
    char *transaction_id;
    void *client_data;
    cfg_get_by_id_fn get_by_id;
    cfg_get_by_ids_fn get_by_ids;
    cfg_free_client_data_fn free_client_data;
};

/* ------------------------------------------------------------------------
 * Context and lookups
 * ---------------------------------------------------------------------- */

/* A new empty schema, or NULL when memory runs out. */
ZRCONFIG_API cfg_schema *cfg_create_new_schema(void);
/* A new context over schema (shared, not owned), or over a new empty schema
 * when schema is NULL. */
ZRCONFIG_API cfg *cfg_create_new_config(cfg_schema *schema);
/* Releases the context (not its schema) and clears *handle; 0 for NULL. */
ZRCONFIG_API int cfg_free_config(cfg **handle);
/* Releases a schema and every schema element; clears *handle. */
ZRCONFIG_API int cfg_free_schema(cfg *context, cfg_schema **handle);
/* Releases an id map whose items sit in two hash indexes. */
ZRCONFIG_API void free_uuid_map(cfg_uuid_item *head);

ZRCONFIG_API struct cfg_schema_element *cfg_schema_root(cfg *context);
/* Looks an element up through the context's get_by_id hook (may fetch). */
ZRCONFIG_API cfg_element *cfg_get_by_id(cfg *context, const char *uuid);
/* Looks several elements up through the get_by_ids hook; the one further
 * argument is the number of ids (int). */
ZRCONFIG_API cfg_element **cfg_get_by_ids(cfg *context, char **uuids, ...);
/* Looks an element up in the local index only. It is also the get_by_id
 * hook of a context without a daemon: with it (or the client's hook), lists
 * remember the elements their members resolved to. */
ZRCONFIG_API cfg_element *cfg_find_by_id(cfg *context, const char *uuid);
/* The root element "root-1". */
ZRCONFIG_API cfg_element *cfg_root(cfg *context);
/* The schema element with that uuid (local schema map only). */
ZRCONFIG_API struct cfg_schema_element *cfg_get_schema_by_id(cfg *context, const char *uuid);
/* A new JSON array of the texts of a NULL-terminated array. */
ZRCONFIG_API json_t *strings_to_list(char **strings);

/* Flag queries: the flag's bit value when set, else 0. */
ZRCONFIG_API unsigned int cfg_element_is_new(cfg_element *element);
ZRCONFIG_API unsigned int cfg_element_is_changed(cfg_element *element);
ZRCONFIG_API unsigned int cfg_element_is_deleted(cfg_element *element);

/* Writes a new 36-character identifier into out (256 bytes): a version-1
 * uuid whose first and last characters are replaced by '{' and '}'. */
ZRCONFIG_API int gen_uuid(char *out);
ZRCONFIG_API int uuidcmp(const char *a, const char *b);
ZRCONFIG_API char *uuidcpy(char *dst, const char *src);

/* ------------------------------------------------------------------------
 * Messages
 * ---------------------------------------------------------------------- */

/* Appends msg to the stack, which takes it over. */
ZRCONFIG_API bool cfg_add_message(cfg *context, cfg_message *msg);
/* A new message of code with nargs value texts, paired with the row's
 * argument names. The message takes the texts over; on failure they are
 * freed. */
ZRCONFIG_API cfg_message *v_cfg_new_message(int code, int nargs, ...);
ZRCONFIG_API cfg_message *cfg_new_message(int code, int nargs, char **values);
ZRCONFIG_API bool cfg_free_message_arg(cfg_message_arg **arg);
ZRCONFIG_API bool cfg_free_message(cfg_message **msg);
ZRCONFIG_API bool cfg_free_message_stack(cfg *context);
ZRCONFIG_API int cfg_message_count(cfg *context);
ZRCONFIG_API bool cfg_has_messages(cfg *context);
ZRCONFIG_API cfg_message *cfg_get_message_object(cfg *context, int index);
/* The filled template (cached; owned by the message), or NULL. */
ZRCONFIG_API char *cfg_get_message_string(cfg_message *msg);
ZRCONFIG_API char *cfg_get_first_message_string(cfg *context);
ZRCONFIG_API int cfg_get_message_code(cfg_message *msg);
ZRCONFIG_API int cfg_get_message_type(cfg_message *msg);
ZRCONFIG_API int cfg_get_message_level(cfg_message *msg);
ZRCONFIG_API int cfg_get_message_arg_count(cfg_message *msg);
ZRCONFIG_API const char *cfg_get_message_arg_name(cfg_message *msg, int index);
ZRCONFIG_API char *cfg_get_message_arg_value(cfg_message *msg, int index);
/* The catalogue row of code, or NULL for a code without a row. */
ZRCONFIG_API cfg_message_def *cfg_get_message_def(int code);
ZRCONFIG_API void cfg_message_init(void);
/* Prints the stack to standard error. */
ZRCONFIG_API void dump_message_stack(cfg *context);
ZRCONFIG_API char *zrmsg_itoa(int value);
ZRCONFIG_API char *zrmsg_ftoa(double value);

/* One adder per catalogue row: the row's arguments in the row's order. */
ZRCONFIG_API bool cfg_message_add_unexpected(cfg *c, const char *file, int line);
ZRCONFIG_API bool cfg_message_add_unknown_lock(cfg *c);
ZRCONFIG_API bool cfg_message_add_file_io(cfg *c);
ZRCONFIG_API bool cfg_message_add_unknown_pull(cfg *c);
ZRCONFIG_API bool cfg_message_add_protocol(cfg *c);
ZRCONFIG_API bool cfg_message_add_int_above_max(cfg *c, int max, const char *uuid);
ZRCONFIG_API bool cfg_message_add_int_below_min(cfg *c, int min, const char *uuid);
ZRCONFIG_API bool cfg_message_add_int_invalid_value(cfg *c, const char *uuid);
ZRCONFIG_API bool cfg_message_add_float_above_max(cfg *c, double max, const char *uuid);
ZRCONFIG_API bool cfg_message_add_float_below_min(cfg *c, double min, const char *uuid);
ZRCONFIG_API bool cfg_message_add_float_invalid_value(cfg *c, const char *uuid);
ZRCONFIG_API bool cfg_message_add_string_above_max(cfg *c, int max, const char *uuid);
ZRCONFIG_API bool cfg_message_add_string_below_min(cfg *c, int min, const char *uuid);
ZRCONFIG_API bool cfg_message_add_string_invalid_value(cfg *c, const char *uuid,
                                                       const char *value);
ZRCONFIG_API bool cfg_message_add_string_format(cfg *c, const char *uuid);
ZRCONFIG_API bool cfg_message_add_blob_above_max(cfg *c, int max, const char *uuid);
ZRCONFIG_API bool cfg_message_add_blob_below_min(cfg *c, int min, const char *uuid);
ZRCONFIG_API bool cfg_message_add_list_above_max(cfg *c, int max, const char *uuid);
ZRCONFIG_API bool cfg_message_add_list_below_min(cfg *c, int min, const char *uuid);
ZRCONFIG_API bool cfg_message_add_list_wrong_type(cfg *c, const char *uuid);
ZRCONFIG_API bool cfg_message_add_missing_required(cfg *c, const char *name,
                                                   const char *uuid);
ZRCONFIG_API bool cfg_message_add_invalid_reference(cfg *c, const char *uuid);
ZRCONFIG_API bool cfg_message_add_wrong_type(cfg *c, const char *uuid);
ZRCONFIG_API bool cfg_message_add_no_match(cfg *c, const char *uuid, const char *name);
ZRCONFIG_API bool cfg_message_add_password_mismatch(cfg *c, const char *uuid);
ZRCONFIG_API bool cfg_message_add_invalid_networkaddress(cfg *c, const char *address,
                                                         const char *uuid);
ZRCONFIG_API bool cfg_message_add_duplicate(cfg *c, const char *field, const char *value,
                                            const char *uuid);
ZRCONFIG_API bool cfg_message_add_common_name_error(cfg *c, const char *common_name,
                                                    const char *uuid);
ZRCONFIG_API bool cfg_message_add_path_not_found(cfg *c, const char *path);
ZRCONFIG_API bool cfg_message_add_uuid_not_found(cfg *c, const char *uuid);
ZRCONFIG_API bool cfg_message_add_database(cfg *c);
ZRCONFIG_API bool cfg_message_add_schema(cfg *c);
ZRCONFIG_API bool cfg_message_add_conflict(cfg *c);
ZRCONFIG_API bool cfg_message_add_push_failed(cfg *c);
ZRCONFIG_API bool cfg_message_add_get_schema_failed(cfg *c);
ZRCONFIG_API bool cfg_message_add_get_data_by_path_failed(cfg *c);
ZRCONFIG_API bool cfg_message_add_get_data_by_id_failed(cfg *c);
ZRCONFIG_API bool cfg_message_add_lock_failed(cfg *c);
ZRCONFIG_API bool cfg_message_add_subscribe_failed(cfg *c);
ZRCONFIG_API bool cfg_message_add_invalid_request(cfg *c);
ZRCONFIG_API bool cfg_message_add_incomplete_data(cfg *c, const char *param);
ZRCONFIG_API bool cfg_message_add_invalid_credentials(cfg *c);
ZRCONFIG_API bool cfg_message_add_invalid_session(cfg *c);
ZRCONFIG_API bool cfg_message_add_changed_ro(cfg *c);
ZRCONFIG_API bool cfg_message_add_worker(cfg *c);
ZRCONFIG_API bool cfg_message_add_reg_not_ready(cfg *c);
ZRCONFIG_API bool cfg_message_add_permission_denied(cfg *c);
ZRCONFIG_API bool cfg_message_add_invalid_action(cfg *c, const char *action);
ZRCONFIG_API bool cfg_message_add_invalid_parameter(cfg *c, const char *param);
ZRCONFIG_API bool cfg_message_add_invalid_json(cfg *c, const char *param, const char *value,
                                               const char *error, int line, int column,
                                               int position);
ZRCONFIG_API bool cfg_message_add_invalid_cert(cfg *c);
ZRCONFIG_API bool cfg_message_add_invalid_query(cfg *c);
ZRCONFIG_API bool cfg_message_add_unknown_data_of_type(cfg *c, const char *type,
                                                       const char *item);
ZRCONFIG_API bool cfg_message_add_invalid_ip(cfg *c, const char *address, const char *uuid);
ZRCONFIG_API bool cfg_message_add_invalid_parameter_value(cfg *c, const char *param,
                                                          const char *value);
ZRCONFIG_API bool cfg_message_add_bad_tag_name(cfg *c, const char *tag_name);
ZRCONFIG_API bool cfg_message_add_bad_key(cfg *c);
ZRCONFIG_API bool cfg_message_add_csr_generate_failed(cfg *c);
ZRCONFIG_API bool cfg_message_add_invalid_mac(cfg *c, const char *mac, const char *uuid);
ZRCONFIG_API bool cfg_message_add_dhcp_limit(cfg *c);
ZRCONFIG_API bool cfg_message_add_invalid_role(cfg *c, const char *rolename,
                                               const char *mode);
ZRCONFIG_API bool cfg_message_add_int_outside_range(cfg *c, int min, int max,
                                                    const char *uuid);
ZRCONFIG_API bool cfg_message_add_field_updated(cfg *c, const char *fieldname,
                                                const char *value);
ZRCONFIG_API bool cfg_message_add_cfg_push_unsupported_operation(cfg *c);
ZRCONFIG_API bool cfg_message_add_cfg_push_ug_reserved_value(cfg *c, const char *value);
ZRCONFIG_API bool cfg_message_add_cfg_push_dataset_updated(cfg *c, const char *dataset);
ZRCONFIG_API bool cfg_message_add_cfg_push_no_changes_required(cfg *c);
ZRCONFIG_API bool cfg_message_add_cfg_push_request_failed(cfg *c, const char *message);
ZRCONFIG_API bool cfg_message_add_cfg_push_communication_failure(cfg *c);
ZRCONFIG_API bool cfg_message_add_cfg_push_node_offline(cfg *c);
ZRCONFIG_API bool cfg_message_add_cfg_push_bad_remote_data(cfg *c);
ZRCONFIG_API bool cfg_message_add_invalid_file_format(cfg *c);
ZRCONFIG_API bool cfg_message_add_cfg_push_script_exec_success(cfg *c);
ZRCONFIG_API bool cfg_message_add_cfg_push_script_exec_failure(cfg *c, int code);
ZRCONFIG_API bool cfg_message_add_cfg_push_script_exec_timeout(cfg *c);
ZRCONFIG_API bool cfg_message_add_hashed_password_found(cfg *c);
ZRCONFIG_API bool cfg_message_add_hashed_password_not_found(cfg *c);

/* ------------------------------------------------------------------------
 * Message JSON
 * ---------------------------------------------------------------------- */

ZRCONFIG_API json_t *cfg_message_arg_to_json(cfg_message_arg *arg);
ZRCONFIG_API json_t *cfg_message_to_json(cfg_message *msg);
/* A new array of the stack's messages, oldest first. */
ZRCONFIG_API json_t *cfg_message_stack_to_json(cfg *context);
ZRCONFIG_API cfg_message_arg *json_to_config_message_arg(json_t *json);
ZRCONFIG_API cfg_message *json_to_config_message(json_t *json);
/* Decodes every message of array onto the stack; the number appended. */
ZRCONFIG_API int append_json_config_messages_to_context(cfg *context, json_t *array);

/* ------------------------------------------------------------------------
 * Elements and values
 * ---------------------------------------------------------------------- */

/* Each type has five families. cfg_init_* makes an unindexed record owned by
 * the caller; cfg_new_*[_with_id] marks it new and indexes it (the context
 * owns it from then on); cfg_load_* indexes data from the daemon, releasing a
 * local record of the same uuid first; the value readers return 1 and a copy
 * (caller frees text and blobs); cfg_set_* replaces the record by a new one
 * under the same uuid and returns it (the old pointer is invalid afterwards;
 * on a failed load the old record is left unindexed and owned by the caller). */
ZRCONFIG_API cfg_element *cfg_init_bool(cfg *context, int value);
ZRCONFIG_API cfg_element *cfg_new_bool_with_id(cfg *context, int value, const char *uuid);
ZRCONFIG_API cfg_element *cfg_new_bool(cfg *context, int value);
ZRCONFIG_API cfg_element *cfg_load_bool(cfg *context, const char *uuid, int value);
ZRCONFIG_API int cfg_bool_value(cfg_element *element, int *out);
ZRCONFIG_API cfg_element *cfg_set_bool(cfg *context, cfg_element *element, int value);

ZRCONFIG_API cfg_element *cfg_init_int(cfg *context, int value);
ZRCONFIG_API cfg_element *cfg_new_int_with_id(cfg *context, int value, const char *uuid);
ZRCONFIG_API cfg_element *cfg_new_int(cfg *context, int value);
ZRCONFIG_API cfg_element *cfg_load_int(cfg *context, const char *uuid, int value);
ZRCONFIG_API int cfg_int_value(cfg_element *element, int *out);
ZRCONFIG_API cfg_element *cfg_set_int(cfg *context, cfg_element *element, int value);

ZRCONFIG_API cfg_element *cfg_init_float(cfg *context, double value);
ZRCONFIG_API cfg_element *cfg_new_float_with_id(cfg *context, double value, const char *uuid);
ZRCONFIG_API cfg_element *cfg_new_float(cfg *context, double value);
ZRCONFIG_API cfg_element *cfg_load_float(cfg *context, const char *uuid, double value);
ZRCONFIG_API int cfg_float_value(cfg_element *element, double *out);
ZRCONFIG_API cfg_element *cfg_set_float(cfg *context, cfg_element *element, double value);

/* Text longer than 16777216 bytes is refused. */
ZRCONFIG_API cfg_element *cfg_init_string(cfg *context, const char *text);
ZRCONFIG_API cfg_element *cfg_new_string_with_id(cfg *context, const char *text,
                                                 const char *uuid);
ZRCONFIG_API cfg_element *cfg_new_string(cfg *context, const char *text);
ZRCONFIG_API cfg_element *cfg_load_string(cfg *context, const char *uuid, const char *text);
ZRCONFIG_API int cfg_string_value(cfg_element *element, char **out);
ZRCONFIG_API cfg_element *cfg_set_string(cfg *context, cfg_element *element, const char *text);

ZRCONFIG_API cfg_element *cfg_init_blob(cfg *context, const void *data, size_t size);
ZRCONFIG_API cfg_element *cfg_new_blob_with_id(cfg *context, const void *data, size_t size,
                                               const char *uuid);
ZRCONFIG_API cfg_element *cfg_new_blob(cfg *context, const void *data, size_t size);
ZRCONFIG_API cfg_element *cfg_load_blob(cfg *context, const char *uuid, const void *data,
                                        size_t size);
/* Stores the size and, when out is given, a copy with one extra zero byte. */
ZRCONFIG_API int cfg_blob_value(cfg_element *element, void **out, size_t *size);
ZRCONFIG_API cfg_element *cfg_set_blob(cfg *context, cfg_element *element, const void *data,
                                       size_t size);

/* References are linked into their target's parents; a target that cannot be
 * found (through the lookup hook) makes them fail. */
ZRCONFIG_API cfg_element *cfg_init_reference(cfg *context);
ZRCONFIG_API cfg_element *cfg_new_reference_with_id(cfg *context, const char *target_uuid,
                                                    const char *uuid);
ZRCONFIG_API cfg_element *cfg_new_reference(cfg *context, const char *target_uuid);
ZRCONFIG_API cfg_element *cfg_load_reference(cfg *context, const char *uuid,
                                             const char *target_uuid);
ZRCONFIG_API int cfg_reference_value(cfg_element *element, char **out);
ZRCONFIG_API cfg_element *cfg_set_reference(cfg *context, cfg_element *element,
                                            const char *target_uuid);

ZRCONFIG_API cfg_element *cfg_init_list(cfg *context);
ZRCONFIG_API cfg_element *cfg_new_list_with_id(cfg *context, const char *uuid);
ZRCONFIG_API cfg_element *cfg_new_list(cfg *context);
ZRCONFIG_API cfg_element *cfg_load_list(cfg *context, const char *uuid);
/* Number of members (future members); with a NULL out only checks the type. */
ZRCONFIG_API int cfg_list_size(cfg_element *element, unsigned int *out);
ZRCONFIG_API int cfg_list_future_size(cfg_element *element, unsigned int *out);
/* An empty list in the element's place; its members are deleted. */
ZRCONFIG_API cfg_element *cfg_set_list(cfg *context, cfg_element *element);

ZRCONFIG_API cfg_element *cfg_init_map(cfg *context);
ZRCONFIG_API cfg_element *cfg_new_map_with_id(cfg *context, const char *uuid);
ZRCONFIG_API cfg_element *cfg_new_map(cfg *context);
ZRCONFIG_API cfg_element *cfg_load_map(cfg *context, const char *uuid);
/* An empty map in the element's place; its members are deleted. */
ZRCONFIG_API cfg_element *cfg_set_map(cfg *context, cfg_element *element);

ZRCONFIG_API int cfg_elem_type(cfg_element *element, unsigned int *out);
/* A copy of the uuid (caller frees). */
ZRCONFIG_API int cfg_elem_uuid(cfg_element *element, char **out);
ZRCONFIG_API int cfg_elem_generation(cfg_element *element, int *out);

/* ------------------------------------------------------------------------
 * Containers, parents and links
 * ---------------------------------------------------------------------- */

/* Link lists: nodes are appended at the tail. cfg_link_list_free frees the
 * nodes and their records (not a map link's name). Removal by uuid renumbers
 * the list-kind links that follow and the parent links of the members they
 * name; it returns the number of nodes removed. */
ZRCONFIG_API cfg_link *cfg_add_link(cfg_link **head, void *data);
ZRCONFIG_API int cfg_link_list_get(cfg_link *head, unsigned int index, void **out);
ZRCONFIG_API int cfg_link_list_length(cfg_link *head);
ZRCONFIG_API void cfg_link_list_free(cfg_link *head);
ZRCONFIG_API int cfg_link_list_delete_by_uuid(cfg *context, cfg_link **head, const char *uuid);

/* Adds the element to the uuid index; 0 when its uuid is indexed already. */
ZRCONFIG_API int cfg_add_elem(cfg *context, cfg_element *element);
/* Removes the index entry keyed by the element's uuid; the record stays. */
ZRCONFIG_API void cfg_delete_elem(cfg *context, cfg_element *element);

/* Lists. Members (and future members) are linked on both sides; member
 * uuids handed out point into the link and live until the list changes.
 * Positions are indexed beside each element: nodes appended with
 * cfg_add_link are picked up, but a member list freed directly must be
 * rebuilt through these functions, not with cfg_add_link. */
ZRCONFIG_API cfg_link *cfg_append_listelem(cfg *context, cfg_element *list, cfg_element *child,
                                           int future);
/* Appends child; the list is marked changed only for a new or changed child. */
ZRCONFIG_API cfg_link *cfg_add_listelem(cfg *context, cfg_element *list, cfg_element *child);
ZRCONFIG_API cfg_link *cfg_append_future_listelem(cfg *context, cfg_element *list,
                                                  cfg_element *child);
ZRCONFIG_API cfg_link *cfg_append_future_listid(cfg_element *list, const char *uuid);
ZRCONFIG_API cfg_link *cfg_load_listid(cfg_element *list, const char *uuid);
ZRCONFIG_API char *cfg_get_listelem(cfg_element *list, int index);
ZRCONFIG_API char *cfg_get_future_listelem(cfg_element *list, unsigned int index);
ZRCONFIG_API int cfg_list_contains(cfg_element *list, const char *uuid);
ZRCONFIG_API int cfg_get_list_index(cfg *context, cfg_element *element, unsigned int *index);
ZRCONFIG_API int cfg_get_future_list_index(cfg *context, cfg_element *element,
                                           const char *list_uuid, unsigned int *index);
/* Drops the future member links at index (by uuid); the child is untouched. */
ZRCONFIG_API int cfg_list_delete_future_at(cfg *context, cfg_element *list,
                                           unsigned int index);

/* Maps. Keys are not unique; lookups take the first match. */
ZRCONFIG_API cfg_link *cfg_add_mapkey(cfg *context, cfg_element *map_elem, const char *key,
                                      const char *uuid);
ZRCONFIG_API cfg_link *cfg_load_mapid(cfg_element *map, const char *key, const char *uuid);
/* Joins child under key, deleting a member already held under it. */
ZRCONFIG_API cfg_link *cfg_add_mapelem(cfg *context, cfg_element *map_elem, const char *key,
                                       cfg_element *child);
ZRCONFIG_API char *cfg_get_mapelem(cfg_element *map, const char *key);
/* A new array of key copies in member order (caller frees both). */
ZRCONFIG_API int cfg_map_keys(cfg_element *map, char ***keys, unsigned int *count);
ZRCONFIG_API int cfg_get_map_key(cfg *context, cfg_element *element, char **key);
ZRCONFIG_API int cfg_map_delete_key(cfg *context, cfg_element *map, const char *key);

/* Replace the member under key, or make a new member there. */
ZRCONFIG_API cfg_element *cfg_map_set_string(cfg *context, cfg_element *map, const char *key,
                                             const char *text);
ZRCONFIG_API cfg_element *cfg_map_set_int(cfg *context, cfg_element *map, const char *key,
                                          int value);
ZRCONFIG_API cfg_element *cfg_map_set_float(cfg *context, cfg_element *map, const char *key,
                                            double value);
ZRCONFIG_API cfg_element *cfg_map_set_reference(cfg *context, cfg_element *map,
                                                const char *key, const char *target_uuid);
ZRCONFIG_API cfg_element *cfg_map_set_bool(cfg *context, cfg_element *map, const char *key,
                                           int value);
ZRCONFIG_API cfg_element *cfg_map_set_blob(cfg *context, cfg_element *map, const char *key,
                                           const void *data, size_t size);

/* Read the value at a relative path below start (a plain key works too). */
ZRCONFIG_API int cfg_map_get_string(cfg *context, cfg_element *start, const char *path,
                                    char **out);
ZRCONFIG_API int cfg_map_get_bool(cfg *context, cfg_element *start, const char *path,
                                  int *out);
ZRCONFIG_API int cfg_map_get_reference(cfg *context, cfg_element *start, const char *path,
                                       char **out);
ZRCONFIG_API int cfg_map_get_int(cfg *context, cfg_element *start, const char *path,
                                 int *out);
ZRCONFIG_API int cfg_map_get_blob(cfg *context, cfg_element *start, const char *path,
                                  void **out, size_t *size);

/* Moves a reference to target_uuid: its link leaves the old target's parents
 * and joins the new target's. 0 when the new target cannot be found. */
ZRCONFIG_API int update_reference(cfg *context, cfg_element *reference,
                                  const char *target_uuid);
ZRCONFIG_API cfg_link *cfg_load_referenceparent(cfg_element *element, const char *uuid);
ZRCONFIG_API cfg_link *cfg_load_mapparent(cfg_element *element, const char *uuid,
                                          const char *key);
ZRCONFIG_API cfg_link *cfg_load_listparent(cfg_element *element, const char *uuid,
                                           unsigned int index);

/* The list of a future member, else the first list or map holding it. */
ZRCONFIG_API cfg_element *cfg_get_parent_elem(cfg *context, cfg_element *element);
/* Marks the element deleted and cascades to its members, future members and
 * the references naming it; nothing is freed. */
ZRCONFIG_API void cfg_delete_element(cfg *context, cfg_element *element);
ZRCONFIG_API void cfg_delete_members(cfg *context, cfg_element *element);
/* Frees the record, its links and its index entry. */
ZRCONFIG_API void cfg_free_element(cfg *context, cfg_element *element);

/* ------------------------------------------------------------------------
 * Element JSON
 * ---------------------------------------------------------------------- */

/* Encoders return a new JSON value (caller releases); NULL for an unknown
 * type. Booleans and floats travel as strings, blobs as pairs of digits. */
ZRCONFIG_API json_t *bool_to_json(cfg_element *element);
ZRCONFIG_API json_t *int_to_json(cfg_element *element);
ZRCONFIG_API json_t *float_to_json(cfg_element *element);
ZRCONFIG_API json_t *string_to_json(cfg_element *element);
ZRCONFIG_API json_t *blob_to_json(cfg_element *element);
ZRCONFIG_API json_t *list_to_json(cfg_element *element);
ZRCONFIG_API json_t *map_to_json(cfg_element *element);
ZRCONFIG_API json_t *reference_to_json(cfg_element *element);
ZRCONFIG_API json_t *refparent_to_json(cfg_parent_link *link);
ZRCONFIG_API json_t *listparent_to_json(cfg_parent_link *link);
ZRCONFIG_API json_t *mapparent_to_json(cfg_parent_link *link);
ZRCONFIG_API json_t *parents_to_json(cfg_link *parents);
ZRCONFIG_API json_t *elem_to_json(cfg_element *element);
ZRCONFIG_API int hexchar(int nibble);
ZRCONFIG_API int fromHex(int character);

/* Decoders load one element object (borrowed) into the context and return
 * it; reference and future parents are not loaded. */
ZRCONFIG_API cfg_element *json_to_bool(cfg *context, json_t *object);
ZRCONFIG_API cfg_element *json_to_int(cfg *context, json_t *object);
ZRCONFIG_API cfg_element *json_to_float(cfg *context, json_t *object);
ZRCONFIG_API cfg_element *json_to_string(cfg *context, json_t *object);
ZRCONFIG_API cfg_element *json_to_blob(cfg *context, json_t *object);
ZRCONFIG_API cfg_element *json_to_list(cfg *context, json_t *object);
ZRCONFIG_API cfg_element *json_to_map(cfg *context, json_t *object);
ZRCONFIG_API cfg_element *json_to_reference(cfg *context, json_t *object);
ZRCONFIG_API cfg_element *json_to_elem(cfg *context, json_t *object);

/* A borrowed value inside root: segments separated by the byte 0x07, each a
 * member name or name[n] for entry n of that member. */
ZRCONFIG_API json_t *json_path_get(json_t *root, const char *path);

/* ------------------------------------------------------------------------
 * Paths and simple access
 * ---------------------------------------------------------------------- */

/* Path flags of the rendering functions. */
#define CFG_PATH_BARE_INDEX 1  /* n instead of [n], separators after lists */
#define CFG_PATH_BARE_UUID 2   /* U instead of (U) */
#define CFG_PATH_STATIC 4      /* list members by a stable number */

/* The element at a path from the root ("" is the root), or NULL. */
ZRCONFIG_API cfg_element *cfg_get_by_path(cfg *context, const char *path);
/* Walks key, .key, [n] and (uuid) steps from start. */
ZRCONFIG_API cfg_element *cfg_get_child_by_path(cfg *context, cfg_element *start,
                                                const char *path);
/* printf-style paths. The formatted path lives in one process-wide buffer,
 * overwritten by the next call (not thread-safe, not to be freed). */
ZRCONFIG_API cfg_element *cfg_simple_get_by_path(cfg *context, const char *format, ...);
ZRCONFIG_API cfg_element *cfg_simple_get_by_path_va(cfg *context, char **path_out,
                                                    const char *format, va_list args);
ZRCONFIG_API int cfg_simple_string_value_by_path(cfg *context, char **out,
                                                 const char *format, ...);
ZRCONFIG_API int cfg_simple_bool_value_by_path(cfg *context, int *out, const char *format,
                                               ...);
ZRCONFIG_API int cfg_simple_int_value_by_path(cfg *context, int *out, const char *format,
                                              ...);
ZRCONFIG_API cfg_element *cfg_simple_get_listelem(cfg *context, cfg_element *list,
                                                  unsigned int index);
ZRCONFIG_API cfg_element *cfg_simple_get_mapelem(cfg *context, cfg_element *map,
                                                 const char *key);

/* The parent link naming the element's place: map, then list, then the
 * future parent, then a reference link. */
ZRCONFIG_API cfg_parent_link *cfg_get_most_solid_parent_link(cfg_element *element);
/* One path component into out; the snprintf result. */
ZRCONFIG_API int cfg_get_path_basename_from_link(cfg *context, const char *uuid,
                                                 cfg_parent_link *link, unsigned int flags,
                                                 char *out, size_t size);
ZRCONFIG_API int cfg_get_path_basename_from_parent(cfg *context, cfg_element *element,
                                                   const char *parent_uuid,
                                                   unsigned int flags, char *out,
                                                   size_t size);
ZRCONFIG_API int cfg_get_path_basename(cfg *context, cfg_element *element, unsigned int flags,
                                       char *out, size_t size);
/* A new array (caller frees) of the element and its ancestors; NULL on a
 * cycle. With to_top 0 the root is left out. */
ZRCONFIG_API cfg_element **cfg_get_path_elements(cfg *context, cfg_element *element,
                                                 unsigned int *count, int to_top);
/* A new text (caller frees): the path from the top down to the element. */
ZRCONFIG_API char *cfg_get_canonical_path(cfg *context, cfg_element *element,
                                          unsigned int flags, const char *separator);
/* Stores a new static path in *out (caller frees); "uuid:path" for elements
 * made locally. */
ZRCONFIG_API int cfg_get_static_path(cfg *context, cfg_element *element, char **out);
/* Writes the Blob at path to file when it differs: 1 written, 0 already
 * equal, -1 on failure. mode 0 means 0644. */
ZRCONFIG_API int cfg_simple_sync_blob_to_file(cfg *context, const char *path,
                                              const char *file, unsigned int mode);

/* ------------------------------------------------------------------------
 * Element text dump
 * ---------------------------------------------------------------------- */

/* One line per indexed element, in index order (caller frees). */
ZRCONFIG_API char *cfg_to_string(cfg *context);

/* ------------------------------------------------------------------------
 * Schema elements
 * ---------------------------------------------------------------------- */

/* Constructors, one family per type. init registers a zeroed record under
 * uuid (a fresh uuid when NULL) in the context's schema; new does the same
 * with a fresh uuid and sets CFG_FLAG_NEW; load is the form used for the
 * daemon's data. Strings are copied; the schema owns the record. */
ZRCONFIG_API cfg_schema_element *cfg_init_schema_bool(cfg *context, const char *uuid,
                                                      int has_default, int default_value);
ZRCONFIG_API cfg_schema_element *cfg_new_schema_bool(cfg *context, int has_default,
                                                     int default_value);
ZRCONFIG_API cfg_schema_element *cfg_load_schema_bool(cfg *context, const char *uuid,
                                                      int has_default, int default_value);
ZRCONFIG_API cfg_schema_element *cfg_init_schema_int(cfg *context, const char *uuid,
                                                     int has_max, int max, int has_min,
                                                     int min, int has_default,
                                                     int default_value);
ZRCONFIG_API cfg_schema_element *cfg_new_schema_int(cfg *context, int has_max, int max,
                                                    int has_min, int min, int has_default,
                                                    int default_value);
ZRCONFIG_API cfg_schema_element *cfg_load_schema_int(cfg *context, const char *uuid,
                                                     int has_max, int max, int has_min,
                                                     int min, int has_default,
                                                     int default_value);
/* The three flags first, then the three doubles. */
ZRCONFIG_API cfg_schema_element *cfg_init_schema_float(cfg *context, const char *uuid,
                                                       int has_max, int has_min,
                                                       int has_default, double max,
                                                       double min, double default_value);
ZRCONFIG_API cfg_schema_element *cfg_new_schema_float(cfg *context, int has_max,
                                                      int has_min, int has_default,
                                                      double max, double min,
                                                      double default_value);
ZRCONFIG_API cfg_schema_element *cfg_load_schema_float(cfg *context, const char *uuid,
                                                       int has_max, int has_min,
                                                       int has_default, double max,
                                                       double min, double default_value);
/* has_default and has_regex follow from default_value and regex being set. */
ZRCONFIG_API cfg_schema_element *cfg_init_schema_string(cfg *context, const char *uuid,
                                                        int has_max, int max, int has_min,
                                                        int min, const char *default_value,
                                                        const char *regex);
ZRCONFIG_API cfg_schema_element *cfg_new_schema_string(cfg *context, int has_max, int max,
                                                       int has_min, int min,
                                                       const char *default_value,
                                                       const char *regex);
ZRCONFIG_API cfg_schema_element *cfg_load_schema_string(cfg *context, const char *uuid,
                                                        int has_max, int max, int has_min,
                                                        int min, const char *default_value,
                                                        const char *regex);
ZRCONFIG_API cfg_schema_element *cfg_init_schema_blob(cfg *context, const char *uuid,
                                                      int has_max, int max, int has_min,
                                                      int min);
ZRCONFIG_API cfg_schema_element *cfg_new_schema_blob(cfg *context, int has_max, int max,
                                                     int has_min, int min);
ZRCONFIG_API cfg_schema_element *cfg_load_schema_blob(cfg *context, const char *uuid,
                                                      int has_max, int max, int has_min,
                                                      int min);
ZRCONFIG_API cfg_schema_element *cfg_init_schema_list(cfg *context, const char *uuid,
                                                      int has_max, int max, int has_min,
                                                      int min, int element_kind,
                                                      int element_type,
                                                      const char *element_type_name);
ZRCONFIG_API cfg_schema_element *cfg_new_schema_list(cfg *context, int has_max, int max,
                                                     int has_min, int min, int element_kind,
                                                     int element_type,
                                                     const char *element_type_name);
ZRCONFIG_API cfg_schema_element *cfg_load_schema_list(cfg *context, const char *uuid,
                                                      int has_max, int max, int has_min,
                                                      int min, int element_kind,
                                                      int element_type,
                                                      const char *element_type_name);
ZRCONFIG_API cfg_schema_element *cfg_init_schema_map(cfg *context, const char *uuid);
ZRCONFIG_API cfg_schema_element *cfg_new_schema_map(cfg *context);
ZRCONFIG_API cfg_schema_element *cfg_load_schema_map(cfg *context, const char *uuid);
ZRCONFIG_API cfg_schema_element *cfg_init_schema_reference(cfg *context, const char *uuid);
ZRCONFIG_API cfg_schema_element *cfg_new_schema_reference(cfg *context, const char *target);
ZRCONFIG_API cfg_schema_element *cfg_load_schema_reference(cfg *context, const char *uuid,
                                                           const char *target);
/* The value fields are set only when op is not 1 (exists). */
ZRCONFIG_API cfg_schema_element *cfg_init_schema_if(cfg *context, const char *uuid,
                                                    const char *path, int op,
                                                    int value_type, cfg_schema_value value,
                                                    int eval_priority);
ZRCONFIG_API cfg_schema_element *cfg_new_schema_if(cfg *context, const char *path, int op,
                                                   int value_type, cfg_schema_value value,
                                                   int eval_priority);
/* Also copies value_id (at most 63 characters), or makes one when NULL. */
ZRCONFIG_API cfg_schema_element *cfg_load_schema_if(cfg *context, const char *uuid,
                                                    const char *path, int op,
                                                    int value_type, cfg_schema_value value,
                                                    const char *value_id, int eval_priority);

/* Appends a member link to required (which 0), optional (1) or deprecated (2)
 * of a map or if element. */
ZRCONFIG_API bool cfg_load_schema_mapid(cfg_schema_element *elem, int which,
                                        const char *key, const char *uuid);
/* Appends a conditional link whose index is its position. */
ZRCONFIG_API bool cfg_load_schema_mapconditional(cfg_schema_element *elem, const char *uuid);

/* Value readers: false, outputs untouched, for an element of another type.
 * Every output may be NULL; strings handed out are copies the caller frees. */
ZRCONFIG_API bool cfg_schema_bool_values(cfg_schema_element *elem, int *has_default,
                                         int *default_value);
ZRCONFIG_API bool cfg_schema_int_values(cfg_schema_element *elem, int *has_min, int *min,
                                        int *has_max, int *max, int *has_default,
                                        int *default_value);
ZRCONFIG_API bool cfg_schema_float_values(cfg_schema_element *elem, int *has_min,
                                          double *min, int *has_max, double *max,
                                          int *has_default, double *default_value);
/* default_value and regex are NULL when not set. */
ZRCONFIG_API bool cfg_schema_string_values(cfg_schema_element *elem, int *has_max, int *max,
                                           int *has_min, int *min, char **default_value,
                                           char **regex);
ZRCONFIG_API bool cfg_schema_blob_values(cfg_schema_element *elem, int *has_min, int *min,
                                         int *has_max, int *max);
ZRCONFIG_API bool cfg_schema_list_values(cfg_schema_element *elem, int *element_kind,
                                         int *has_min, int *min, int *has_max, int *max,
                                         int *element_type, char **element_type_name);
/* True when a target is set (*target is then a copy, else NULL). */
ZRCONFIG_API bool cfg_schema_reference_value(cfg_schema_element *elem, char **target);
ZRCONFIG_API bool cfg_schema_if_values(cfg_schema_element *elem, char **path, int *op,
                                       int *value_type, cfg_schema_value *value,
                                       int *eval_priority);
ZRCONFIG_API bool cfg_schema_elem_type(cfg_schema_element *elem, int *out);
ZRCONFIG_API bool cfg_schema_elem_uuid(cfg_schema_element *elem, char **out);
ZRCONFIG_API bool cfg_schema_elem_generation(cfg_schema_element *elem, int *out);

/* Setters replace old by a record of the named type under the same uuid,
 * keeping flags (plus CFG_FLAG_CHANGED), generation, tags and, for int, float
 * and string, allowed values. Old members are marked deleted and old is
 * released: continue with the returned record. Parameters follow the fields. */
ZRCONFIG_API cfg_schema_element *cfg_set_schema_bool(cfg *context, cfg_schema_element *old,
                                                     int has_default, int default_value);
ZRCONFIG_API cfg_schema_element *cfg_set_schema_int(cfg *context, cfg_schema_element *old,
                                                    int has_min, int min, int has_max,
                                                    int max, int has_default,
                                                    int default_value);
ZRCONFIG_API cfg_schema_element *cfg_set_schema_float(cfg *context, cfg_schema_element *old,
                                                      int has_min, double min, int has_max,
                                                      double max, int has_default,
                                                      double default_value);
ZRCONFIG_API cfg_schema_element *cfg_set_schema_string(cfg *context,
                                                       cfg_schema_element *old, int has_min,
                                                       int min, int has_max, int max,
                                                       const char *regex,
                                                       const char *default_value);
ZRCONFIG_API cfg_schema_element *cfg_set_schema_blob(cfg *context, cfg_schema_element *old,
                                                     int has_min, int min, int has_max,
                                                     int max);
ZRCONFIG_API cfg_schema_element *cfg_set_schema_list(cfg *context, cfg_schema_element *old,
                                                     int element_kind, int has_min, int min,
                                                     int has_max, int max, int element_type,
                                                     const char *element_type_name);
ZRCONFIG_API cfg_schema_element *cfg_set_schema_map(cfg *context, cfg_schema_element *old);
ZRCONFIG_API cfg_schema_element *cfg_set_schema_reference(cfg *context,
                                                          cfg_schema_element *old,
                                                          const char *target);
ZRCONFIG_API cfg_schema_element *cfg_set_schema_if(cfg *context, cfg_schema_element *old,
                                                   const char *path, int op, int value_type,
                                                   cfg_schema_value value,
                                                   const char *value_id, int eval_priority);

/* Allowed values (appended in order, repeats kept); editing sets
 * CFG_FLAG_CHANGED. get_allowed_index hands out a copy of a string. */
ZRCONFIG_API bool cfg_add_schema_int_allowed(cfg *context, cfg_schema_element *elem,
                                             int value);
ZRCONFIG_API bool cfg_delete_schema_int_allowed(cfg_schema_element *elem, int value);
ZRCONFIG_API int cfg_schema_int_allowed_size(cfg_schema_element *elem);
ZRCONFIG_API bool cfg_schema_int_get_allowed_index(cfg_schema_element *elem, int index,
                                                   int *value);
ZRCONFIG_API bool cfg_add_schema_float_allowed(cfg *context, cfg_schema_element *elem,
                                               double value);
ZRCONFIG_API bool cfg_delete_schema_float_allowed(cfg_schema_element *elem, double value);
ZRCONFIG_API int cfg_schema_float_allowed_size(cfg_schema_element *elem);
ZRCONFIG_API bool cfg_schema_float_get_allowed_index(cfg_schema_element *elem, int index,
                                                     double *value);
ZRCONFIG_API bool cfg_add_schema_string_allowed(cfg *context, cfg_schema_element *elem,
                                                const char *value);
ZRCONFIG_API bool cfg_delete_schema_string_allowed(cfg_schema_element *elem,
                                                   const char *value);
ZRCONFIG_API int cfg_schema_string_allowed_size(cfg_schema_element *elem);
ZRCONFIG_API bool cfg_schema_string_get_allowed_index(cfg_schema_element *elem, int index,
                                                      char **value);

/* Tags, in insertion order; adding and deleting set CFG_FLAG_CHANGED. */
ZRCONFIG_API bool cfg_add_schema_tag(cfg_schema_element *elem, const char *key,
                                     const char *value);
/* The value of the first tag under key (owned by the element), or NULL. */
ZRCONFIG_API const char *cfg_get_schema_tag(cfg_schema_element *elem, const char *key);
ZRCONFIG_API bool cfg_delete_schema_tag(cfg_schema_element *elem, const char *key);
/* The element's own tag list (cfg_schema_tag items) and its length. */
ZRCONFIG_API bool cfg_schema_tags(cfg_schema_element *elem, cfg_link **tags, int *count);

/* Validators: a new record named name; parameters and paths are copied and
 * appended; an element owns the validators attached to it. */
ZRCONFIG_API cfg_schema_validator *cfg_init_schema_validator(cfg *context, const char *name);
ZRCONFIG_API bool cfg_validator_add_param(cfg_schema_validator *validator, const char *text);
ZRCONFIG_API bool cfg_validator_add_path(cfg_schema_validator *validator, const char *text);
ZRCONFIG_API bool cfg_schema_add_validator(cfg_schema_element *elem,
                                           cfg_schema_validator *validator);

/* ------------------------------------------------------------------------
 * Schema tree and types
 * ---------------------------------------------------------------------- */

/* Inserts elem under its uuid, dropping (not freeing) an element already
 * there. */
ZRCONFIG_API bool cfg_add_schema_elem(cfg_schema_index_entry **map, cfg_schema_element *elem);
/* Removes the entry for uuid; the element is not freed. */
ZRCONFIG_API bool cfg_delete_schema_elem(cfg_schema_index_entry **map, const char *uuid);
ZRCONFIG_API cfg_schema_element *cfg_get_schema_node(cfg *context, const char *uuid);

/* Keys of member list which (0 required, 1 optional, 2 deprecated) of a map
 * or if element: a new array of copies, NULL when empty. */
ZRCONFIG_API bool cfg_schema_map_keys(cfg_schema_element *elem, int which, char ***keys,
                                      int *count);
/* The uuid of the member under key in list which (owned by the link). */
ZRCONFIG_API const char *cfg_get_schema_mapelem(cfg_schema_element *elem, int which,
                                                const char *key);
/* Links member under key into list which of a map; a member already under
 * key is marked deleted and its link replaced. */
ZRCONFIG_API bool cfg_add_schema_mapelem(cfg *context, cfg_schema_element *map, int which,
                                         const char *key, cfg_schema_element *member);
ZRCONFIG_API bool cfg_schema_map_delete_key_linkage(cfg_schema_element *elem, int which,
                                                    const char *key);
ZRCONFIG_API bool cfg_add_schema_map_conditionalelem(cfg *context, cfg_schema_element *elem,
                                                     cfg_schema_element *if_elem);
/* Removes the conditional link to uuid; later links move up one position. */
ZRCONFIG_API bool cfg_delete_schema_map_conditionalelem_linkage(cfg_schema_element *elem,
                                                                const char *uuid);
ZRCONFIG_API bool cfg_schema_map_conditional_size(cfg_schema_element *elem, int *count);
ZRCONFIG_API const char *cfg_get_schema_map_conditionalelem(cfg_schema_element *elem, int i);

/* Marks elem deleted and, through required, optional and conditional links,
 * everything below it (deprecated members are left alone). */
ZRCONFIG_API void cfg_delete_schema_element(cfg *context, cfg_schema_element *elem);
/* Marks what is below a map or if element deleted and elem changed. */
ZRCONFIG_API void cfg_delete_schema_members(cfg *context, cfg_schema_element *elem);
/* Frees an element and everything it owns; it must no longer be mapped. */
ZRCONFIG_API void cfg_free_schema_element(cfg_schema_element *elem);
/* Frees a map or if element's direct members and conditionals (dropping them
 * from the uuid map), drops elem's own entry, and frees elem. */
ZRCONFIG_API void cfg_free_schema_element_base(cfg *context, cfg_schema_element *elem);

/* The type registry: names bound to the uuid of a schema element. */
ZRCONFIG_API bool cfg_add_type(cfg *context, const char *name, const char *uuid);
ZRCONFIG_API const char *cfg_get_type(cfg *context, const char *name);
ZRCONFIG_API bool cfg_delete_type(cfg *context, const char *name);
/* All names as a new array of copies in registry order (NULL when none). */
ZRCONFIG_API bool cfg_types(cfg *context, char ***names, int *count);

/* Drops the deprecated member links of elem and of everything below its
 * required and optional members; a list of a named type works on the type. */
ZRCONFIG_API bool cfg_schema_purge_deprecated(cfg *context, cfg_schema_element *elem);

/* ------------------------------------------------------------------------
 * Schema JSON
 * ---------------------------------------------------------------------- */

/* A new JSON object for elem, or NULL for an unknown type. The per-type
 * writers give the keys of their type only. */
ZRCONFIG_API json_t *schema_elem_to_json(cfg_schema_element *elem);
ZRCONFIG_API json_t *schema_bool_to_json(cfg_schema_element *elem);
ZRCONFIG_API json_t *schema_int_to_json(cfg_schema_element *elem);
ZRCONFIG_API json_t *schema_float_to_json(cfg_schema_element *elem);
ZRCONFIG_API json_t *schema_string_to_json(cfg_schema_element *elem);
ZRCONFIG_API json_t *schema_blob_to_json(cfg_schema_element *elem);
ZRCONFIG_API json_t *schema_list_to_json(cfg_schema_element *elem);
ZRCONFIG_API json_t *schema_map_to_json(cfg_schema_element *elem);
ZRCONFIG_API json_t *schema_reference_to_json(cfg_schema_element *elem);
ZRCONFIG_API json_t *schema_if_to_json(cfg_schema_element *elem);
ZRCONFIG_API json_t *validator_to_json(cfg_schema_validator *validator);

/* A new schema element registered in the context, or NULL. The per-type
 * readers read "id" and their own keys only. */
ZRCONFIG_API cfg_schema_element *json_to_schema_elem(cfg *context, json_t *json);
ZRCONFIG_API cfg_schema_element *json_to_schema_bool(cfg *context, json_t *json);
ZRCONFIG_API cfg_schema_element *json_to_schema_int(cfg *context, json_t *json);
ZRCONFIG_API cfg_schema_element *json_to_schema_float(cfg *context, json_t *json);
ZRCONFIG_API cfg_schema_element *json_to_schema_string(cfg *context, json_t *json);
ZRCONFIG_API cfg_schema_element *json_to_schema_blob(cfg *context, json_t *json);
ZRCONFIG_API cfg_schema_element *json_to_schema_list(cfg *context, json_t *json);
ZRCONFIG_API cfg_schema_element *json_to_schema_map(cfg *context, json_t *json);
ZRCONFIG_API cfg_schema_element *json_to_schema_reference(cfg *context, json_t *json);
ZRCONFIG_API cfg_schema_element *json_to_schema_if(cfg *context, json_t *json);
ZRCONFIG_API cfg_schema_validator *json_to_validator(cfg *context, json_t *json);

/* ------------------------------------------------------------------------
 * Conditional evaluation and defaults
 * ---------------------------------------------------------------------- */

/* 1 when the if element's condition holds for map, else 0. Records in the
 * trigger tables that map depends on the tested element (by uuid when it
 * exists, by path when it does not). Paths starting with "^" climb one
 * parent per "^", paths starting with "." are taken below map, others are
 * absolute. An unknown value type pushes the schema message. */
ZRCONFIG_API int evaluate_if(cfg *context, cfg_element *map, cfg_schema_element *if_elem);
/* Compare element (NULL when absent) with value under operator op (1 exists,
 * 2 ==, 3 !=, 4 >, 5 >=, 6 <, 7 <=): 1 or 0. An absent element satisfies
 * only 3; an element of another type satisfies only 1. */
ZRCONFIG_API int evaluate_bool_condition(cfg_element *element, int op, int value);
ZRCONFIG_API int evaluate_int_condition(cfg_element *element, int op, int value);
ZRCONFIG_API int evaluate_string_condition(cfg_element *element, int op, const char *value);
ZRCONFIG_API int evaluate_float_condition(cfg_element *element, int op, double value);

/* Writes into out (256 bytes) the uuid of parent's child under key: parent's
 * uuid, then "_" and key ("-" and key after a uuid with a single dash); a
 * list child (type 7) also gets "@" after the second dash. */
ZRCONFIG_API void cfg_create_uuid(char *out, int type, cfg_element *parent, const char *key);
/* A new indexed element holding schema's default under uuid (fresh when
 * NULL): empty for lists and maps; NULL for blobs, references, if elements
 * and scalars without a default. */
ZRCONFIG_API cfg_element *cfg_create_default(cfg *context, cfg_schema_element *schema,
                                             const char *uuid);
/* Creates missing required map members that have defaults, recursing into
 * maps and into lists of named types, and applies conditionals that hold.
 * Deterministic mode derives the new uuids with cfg_create_uuid, leaves the
 * new elements unflagged, and adds a missing list member as a key only. */
ZRCONFIG_API void cfg_populate_node(cfg *context, cfg_element *element,
                                    cfg_schema_element *schema, int deterministic);
ZRCONFIG_API void cfg_populate_map(cfg *context, cfg_element *map, cfg_schema_element *schema,
                                   int deterministic);
ZRCONFIG_API void cfg_populate_list(cfg *context, cfg_element *list,
                                    cfg_schema_element *schema, int deterministic);
ZRCONFIG_API void cfg_populate_if(cfg *context, cfg_element *map,
                                  cfg_schema_element *if_elem, int deterministic);
/* cfg_populate_node against the schema element named by element->schema. */
ZRCONFIG_API void cfg_populate_defaults(cfg *context, cfg_element *element, int deterministic);

/* ------------------------------------------------------------------------
 * Wire framing and requests
 * ---------------------------------------------------------------------- */

/* Writes value as one frame: a 4-byte big-endian length, then the JSON text.
 * 1 when the whole frame was written. Ignores SIGPIPE for the process. */
ZRCONFIG_API int cfg_send(int socket, json_t *value);
/* Reads one frame and parses it; a new reference or NULL. A timeout_ms of 0
 * or less waits without limit. */
ZRCONFIG_API json_t *cfg_receive_timeout(int socket, int timeout_ms);
/* cfg_receive_timeout with a 10-second time-out. */
ZRCONFIG_API json_t *cfg_receive(int socket);
/* A new request {"method", "id", "data"} with the connection's next id;
 * steals data (which may be NULL). The context must be connected. */
ZRCONFIG_API json_t *cfg_build_request(cfg *ctx, const char *method, json_t *data);
/* Sends request (not stolen) and returns the first response that is not a
 * keep-alive, after appending its "messages" to the stack; NULL on failure. */
ZRCONFIG_API json_t *cfg_send_request(cfg *ctx, json_t *request);

/* ------------------------------------------------------------------------
 * Sessions, data requests and synchronisation
 * ---------------------------------------------------------------------- */

/* Opens a session on the daemon's socket: a new context with the fetch hooks
 * installed, "hello" under client_name (NULL: "<program>-<pid>") and the
 * daemon's schema loaded. cfg_connect waits 60 s for the first answer;
 * timeout_s <= 0 sets no initial time-out. NULL on failure (logged). */
ZRCONFIG_API cfg *cfg_connect(const char *socket_path, const char *client_name);
ZRCONFIG_API cfg *cfg_connect_timeout(const char *socket_path, const char *client_name,
                                      long timeout_s);
/* Registers a program with the daemon; NULL arrays are sent empty. */
ZRCONFIG_API int cfg_subscribe(cfg *ctx, const char *name, int priority, char **paths,
                               char **before, char **after, const char *program,
                               char **args);
/* Says goodbye, saves an open transaction, closes the socket and releases
 * the context and its schema; clears *pctx. */
ZRCONFIG_API int cfg_disconnect(cfg **pctx);
/* cfg_disconnect on a copy: the caller's pointer is left dangling. */
ZRCONFIG_API int cfg_close(cfg *ctx);
/* The free_client_data hook: empties the id map (not the socket). */
ZRCONFIG_API int client_cfg_free_context_data(cfg *ctx);

/* The fetch hooks: the local element, else the daemon's copy. Ids the daemon
 * renamed on a commit are mapped first; get_by_ids writes the new ids back
 * into ids and returns a new NULL-terminated array (caller frees it). */
ZRCONFIG_API cfg_element *client_cfg_get_by_id(cfg *ctx, const char *id);
ZRCONFIG_API cfg_element **client_cfg_get_by_ids(cfg *ctx, char **ids, int count);
/* Loads the members of list from the daemon. */
ZRCONFIG_API int cfg_get_list(cfg *ctx, cfg_element *list);
/* Searches a table; the hits are members of the element "RESULTS". */
ZRCONFIG_API cfg_element *cfg_search(cfg *ctx, const char *table_name,
                                     cfg_condition *conditions);
/* Drops (0), takes for writing (1) or for reading (2) the daemon's lock. */
ZRCONFIG_API int cfg_lock(cfg *ctx, int operation);
/* The element at path as the daemon resolves it (a held copy wins). */
ZRCONFIG_API cfg_element *cfg_fetch_by_path(cfg *ctx, const char *path);
/* Loads schema nodes, the root uuid and type names (all borrowed). */
ZRCONFIG_API int cfg_apply_schema(cfg *ctx, json_t *nodes, json_t *types, json_t *root);
/* Replaces the local copy by the daemon's. New elements stay; a local change
 * that a newer daemon copy overrules stays too, listed as a conflict, unless
 * force is set. 1 when no conflict arose. */
ZRCONFIG_API int cfg_pull(cfg *ctx, int force);
/* Frees every element of the context (the schema stays). */
ZRCONFIG_API void cfg_reset(cfg *ctx);

/* Applies a changeset (borrowed): config lists, then schema lists, appended
 * members, schema root and types. from_daemon looks elements up through the
 * fetch hook and checks generations; 0 replays local work. 1 when all of it
 * applied; the counts of handled items go to the non-NULL count pointers. */
ZRCONFIG_API int cfg_apply_changeset(cfg *ctx, json_t *changeset, int from_daemon,
                                     int *config_count, int *schema_count);
/* Applies one config list with flag (1 added, 2 changed, 4 deleted). */
ZRCONFIG_API int cfg_update_elements(cfg *ctx, json_t *items, int flag, int from_daemon,
                                     int *count);
/* Applies one schema list with flag. */
ZRCONFIG_API int cfg_update_schema_elements(cfg *ctx, json_t *items, int flag, int *count);

/* A new update object of every flagged element, schema element and type. */
ZRCONFIG_API json_t *cfg_assemble_update(cfg *ctx);
/* Pushes the update. On success the context is emptied (later reads fetch
 * afresh, renamed ids mapped) and an open transaction ends. */
ZRCONFIG_API int cfg_commit(cfg *ctx);
/* The conflict list that cfg_pull fills; texts are owned by the context. */
ZRCONFIG_API const char *cfg_add_conflict(cfg *ctx, const char *uuid);
ZRCONFIG_API void cfg_remove_conflict(cfg *ctx, const char *uuid);
ZRCONFIG_API const char *cfg_get_conflict(cfg *ctx, int index);
ZRCONFIG_API int cfg_conflict_count(cfg *ctx);

/* ------------------------------------------------------------------------
 * Transactions
 * ---------------------------------------------------------------------- */

/* Transaction files are "<transaction_dir>/<id>.transaction" holding the
 * update object; a file not saved for 899 seconds is stale. */

/* Starts a transaction under a new id (owned by the context). */
ZRCONFIG_API const char *cfg_transaction_start(cfg *ctx);
/* Writes the pending changes to the open transaction's file (mode 0600). */
ZRCONFIG_API int cfg_transaction_save(cfg *ctx);
/* Replays the file of id into the context (changes keep their flags) and
 * makes id the open transaction; a stale file is deleted instead. */
ZRCONFIG_API int cfg_transaction_open(cfg *ctx, const char *id);
/* Deletes the file of id; 1 when there was one. */
ZRCONFIG_API int cfg_transaction_cancel(cfg *ctx, const char *id);
/* A copy of the open transaction's id (caller frees), or NULL. */
ZRCONFIG_API char *cfg_get_transaction_id(cfg *ctx);
ZRCONFIG_API int cfg_in_transaction(cfg *ctx);

/* ------------------------------------------------------------------------
 * Validation
 * ---------------------------------------------------------------------- */

/* Validates the whole tree from the root against the schema root, filling
 * in defaults for missing required keys and binding elements to their
 * schema elements. 0 on the first failure (one message), or when elements
 * are left that no schema element accounted for (one message each). */
ZRCONFIG_API int cfg_validate_data(cfg *context);
/* Validates element and everything below it against the schema element its
 * schema field names; 0 when that is unknown. Leftovers are not reported. */
ZRCONFIG_API int cfg_validate_subtree(cfg *context, cfg_element *element);
/* Checks the type, runs the type's check and then the custom validators
 * (registering their trigger paths first), and marks element handled. */
ZRCONFIG_API int cfg_validate_node(validation_context *vctx, cfg *context,
                                   cfg_element *element, cfg_schema_element *schema);
/* The checks of one type: 1 valid, 0 invalid with at most one message. */
ZRCONFIG_API int cfg_validate_bool(validation_context *vctx, cfg *context,
                                   cfg_element *element, cfg_schema_element *schema);
ZRCONFIG_API int cfg_validate_int(validation_context *vctx, cfg *context,
                                  cfg_element *element, cfg_schema_element *schema);
ZRCONFIG_API int cfg_validate_float(validation_context *vctx, cfg *context,
                                    cfg_element *element, cfg_schema_element *schema);
/* Allowed values, then length bounds, then an unanchored match of the
 * pattern (compiled once per schema; one that does not compile rejects
 * without a message). */
ZRCONFIG_API int cfg_validate_string(validation_context *vctx, cfg *context,
                                     cfg_element *element, cfg_schema_element *schema);
ZRCONFIG_API int cfg_validate_blob(validation_context *vctx, cfg *context,
                                   cfg_element *element, cfg_schema_element *schema);
/* The target must be found through the lookup hook. */
ZRCONFIG_API int cfg_validate_reference(validation_context *vctx, cfg *context,
                                        cfg_element *element, cfg_schema_element *schema);
/* Item count bounds (committed plus pending items), then each item against
 * the named type or the item type code. */
ZRCONFIG_API int cfg_validate_list(validation_context *vctx, cfg *context, cfg_element *list,
                                   cfg_schema_element *schema);
/* Keys optional, required, deprecated in that order, then the conditionals;
 * schema is a map or an if element. */
ZRCONFIG_API int cfg_validate_map(validation_context *vctx, cfg *context, cfg_element *map,
                                  cfg_schema_element *schema);
/* When the if element's condition holds, map must also satisfy its keys. */
ZRCONFIG_API int cfg_validate_if(validation_context *vctx, cfg *context, cfg_element *map,
                                 cfg_schema_element *if_schema);
/* Validates only what local edits can affect: every new or changed element
 * and the elements the trigger tables tie to a flagged one (the first
 * shallowly, the rest in depth; an element never bound to the schema through
 * its nearest bound ancestor). Fills in defaults, prunes the registrations
 * of deleted elements, and reports the first element left unaccounted. 1
 * when everything validates, also when nothing is flagged. */
ZRCONFIG_API int cfg_validate_changed_data(cfg *context);

/* ------------------------------------------------------------------------
 * Custom validators
 * ---------------------------------------------------------------------- */

/* A custom validator: given the element and the schema record's parameters,
 * 1 accepts and 0 rejects (with a message on the stack where the rule has
 * one; wrong element types, parameter counts and missing inputs are silent). */
typedef int (*cfg_validator_fn)(cfg *context, cfg_element *element, char **params,
                                int params_count);

/* One row of validator_lut. */
typedef struct cfg_validator_def {
    const char *name;
    cfg_validator_fn function;
} cfg_validator_def;

/* The named validators, ended by a row whose name is NULL. */
ZRCONFIG_API extern const cfg_validator_def validator_lut[];
/* The function of the first row named name (exact match), or NULL. */
ZRCONFIG_API cfg_validator_fn get_validator(const char *name);

/* Elementary checks: 1 when the text passes. */
ZRCONFIG_API int validate_ipv4address(const char *text);
ZRCONFIG_API int validate_ipv6address(const char *text);
/* Six colon-separated pairs of hexadecimal digits. */
ZRCONFIG_API int validate_macaddress(const char *text);
/* Letters, digits, '-' and '.', with at least one letter. */
ZRCONFIG_API int validate_dnsname(const char *text);
/* An OpenSSH public key line, or a PEM private key without pass phrase. */
ZRCONFIG_API int validate_ssh_key(const char *text);
/* 1 when either is NULL, else whether crypt(clear, "Qz") equals hash. */
ZRCONFIG_API int validate_password(const char *clear, const char *hash);
/* Whether the PEM certificate and private key belong together and, when
 * common_name is given, the certificate's common name equals it. Both PEM
 * texts NULL passes; only one of them NULL fails. */
ZRCONFIG_API int validate_ssl_cert(const char *certificate, const char *key,
                                   const char *common_name);
/* "global" allows only "SummitAdmin", "smart_group" anything else; any
 * other mode allows every role. */
ZRCONFIG_API int validate_group_role(const char *mode, const char *rolename);

/* The validators of the table, one per row. */
ZRCONFIG_API int validator_network_validity(cfg *context, cfg_element *element, char **params,
                                            int params_count);
ZRCONFIG_API int validator_networkaddress(cfg *context, cfg_element *element, char **params,
                                          int params_count);
ZRCONFIG_API int validator_uniqueness(cfg *context, cfg_element *element, char **params,
                                      int params_count);
ZRCONFIG_API int validator_tag_uniqueness(cfg *context, cfg_element *element, char **params,
                                          int params_count);
ZRCONFIG_API int validator_template_uniqueness(cfg *context, cfg_element *element,
                                               char **params, int params_count);
ZRCONFIG_API int validator_password(cfg *context, cfg_element *element, char **params,
                                    int params_count);
ZRCONFIG_API int validator_ssl_cert(cfg *context, cfg_element *element, char **params,
                                    int params_count);
ZRCONFIG_API int validator_ssh_key(cfg *context, cfg_element *element, char **params,
                                   int params_count);
ZRCONFIG_API int validator_condition(cfg *context, cfg_element *element, char **params,
                                     int params_count);
ZRCONFIG_API int validator_timezone(cfg *context, cfg_element *element, char **params,
                                    int params_count);
ZRCONFIG_API int validator_deny_tag_name(cfg *context, cfg_element *element, char **params,
                                         int params_count);
ZRCONFIG_API int validator_dhcp_unique(cfg *context, cfg_element *element, char **params,
                                       int params_count);
ZRCONFIG_API int validator_ssh_delimiter(cfg *context, cfg_element *element, char **params,
                                         int params_count);
ZRCONFIG_API int validator_mode_roles(cfg *context, cfg_element *element, char **params,
                                      int params_count);
ZRCONFIG_API int validator_username_not_system(cfg *context, cfg_element *element,
                                               char **params, int params_count);
ZRCONFIG_API int validator_no_password(cfg *context, cfg_element *element, char **params,
                                       int params_count);

/* ------------------------------------------------------------------------
 * Trigger tables
 * ---------------------------------------------------------------------- */

/* Registers element as a dependent of one pattern per path of validator:
 * the element's static path (without a "{uuid}:" prefix) with "(", ")" and
 * "." escaped, followed by the validator path. */
ZRCONFIG_API void cfg_create_validator_triggers(cfg *context, cfg_element *element,
                                                cfg_schema_validator *validator);
/* Writes the four tables to standard output; the printf result of the last
 * line. */
ZRCONFIG_API int cfg_print_trigger_tables(cfg *context);
/* Frees the four tables and everything in them; the fields end up NULL. */
ZRCONFIG_API void cfg_free_trigger_tables(cfg *context);

/* Validation context bookkeeping: add_unhandled enters an element never
 * seen before into both maps; set_handled marks it seen and drops it from
 * unhandled; free_context empties both maps and frees the record. */
ZRCONFIG_API void add_unhandled(validation_context *vctx, cfg_element *element);
ZRCONFIG_API void set_handled(validation_context *vctx, cfg_element *element);
ZRCONFIG_API void free_context(validation_context *vctx);

/* ------------------------------------------------------------------------
 * Conditions
 * ---------------------------------------------------------------------- */

/* Empty AND and OR nodes. */
ZRCONFIG_API cfg_condition *cfg_new_and_condition(void);
ZRCONFIG_API cfg_condition *cfg_new_or_condition(void);
/* Appends child to an AND or OR node, which takes it over; otherwise does
 * nothing. */
ZRCONFIG_API void cfg_condition_add_child(cfg_condition *node, cfg_condition *child);
/* Basic conditions; the texts are copied. NULL when the operator does not
 * suit the type or a text is NULL. */
ZRCONFIG_API cfg_condition *cfg_new_int_condition(const char *fieldname, int oper, int value);
ZRCONFIG_API cfg_condition *cfg_new_float_condition(const char *fieldname, int oper,
                                                    double value);
ZRCONFIG_API cfg_condition *cfg_new_string_condition(const char *fieldname, int oper,
                                                     const char *value);
ZRCONFIG_API cfg_condition *cfg_new_reference_condition(const char *fieldname, int oper,
                                                        const char *uuid);
ZRCONFIG_API cfg_condition *cfg_new_bool_condition(const char *fieldname, int oper, int value);
ZRCONFIG_API cfg_condition *cfg_new_untyped_condition(const char *fieldname, int oper);
/* Frees condition and everything under it (not its siblings). */
ZRCONFIG_API void cfg_free_conditions(cfg_condition *condition);

/* The SQL WHERE text with a "?" for each value, in depth-first order; the
 * caller frees it. NULL for an unknown type or operator. */
ZRCONFIG_API char *condition_to_sql(cfg_condition *condition);
ZRCONFIG_API char *multi_condition_to_sql(cfg_condition *condition);
ZRCONFIG_API char *basic_condition_to_sql(cfg_condition *condition);

/* The JSON form of a tree; a new value or NULL. */
ZRCONFIG_API json_t *condition_to_json(cfg_condition *condition);
ZRCONFIG_API json_t *multi_condition_to_json(cfg_condition *condition);
ZRCONFIG_API json_t *basic_condition_to_json(cfg_condition *condition);
/* The compact JSON text of a tree; the caller frees it. */
ZRCONFIG_API char *condition_to_json_dump(cfg_condition *condition);
/* A new tree from its JSON form, or NULL when any part is refused. */
ZRCONFIG_API cfg_condition *json_to_condition(json_t *json);
ZRCONFIG_API cfg_condition *json_to_multi_condition(json_t *json, int type);
ZRCONFIG_API cfg_condition *json_to_basic_condition(json_t *json);
/* Parses text (errors into error) and converts it; NULL when either fails. */
ZRCONFIG_API cfg_condition *json_dump_to_condition(const char *text, json_error_t *error);

#ifdef __cplusplus
}
#endif

#endif /* ZRCONFIG_H */
