// Trigger tables: which elements must be validated again when another one
// changes. Records keyed by uuid, static path and path pattern name their
// dependents; a reverse record per dependent names the records that hold it.
// Also the validator triggers of one element, printing and release.
//
// Invariants of a context's four tables:
//  1. A table holds at most one record per key. Keys are cut to the record's
//     key field both when stored and when looked up.
//  2. A uuid is at most once among the dependents of one record.
//  3. uuid is a dependent of record R exactly when the reverse record keyed
//     by uuid holds an entry naming R: every change adds or removes both.
//  4. A removal that leaves a reverse record without entries frees it. A
//     uuid, path or pattern record left without dependents stays in its
//     table until its caller removes it.
//  5. A pattern record's compiled expression, once made, is that of its key
//     and is freed with the record.
//  6. Registrations waiting in a batch (see batch_registrations) belong to
//     one context; every function here that reads or changes that
//     context's tables makes them first, in the order they were asked for,
//     so the tables are whole whenever anything else looks at them.
#define ZR_SOURCE "src/triggers"
#include "internal.h"
#include "triggers.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <pcre.h>
#include <string>

using zr::clear_table;
using zr::zalloc;

// ------------------------------------------------------------------------
// Trigger records
// ------------------------------------------------------------------------

namespace zr::triggers {

namespace {

// Dependents are kept as fixed-size copies of this many bytes.
constexpr size_t dependent_size = 260;

// Advanced by every removal from any table: a registration known before
// holds while it stays.
std::atomic<uint64_t> removals{0};

void removed()
{
    removals.fetch_add(1, std::memory_order_relaxed);
}

template <typename R> R *&table_of(cfg *context);
template <> cfg_uuid_trigger *&table_of<cfg_uuid_trigger>(cfg *context)
{
    return context->uuid_triggers;
}
template <> cfg_path_trigger *&table_of<cfg_path_trigger>(cfg *context)
{
    return context->path_triggers;
}
template <> cfg_pattern_trigger *&table_of<cfg_pattern_trigger>(cfg *context)
{
    return context->pattern_triggers;
}
template <> cfg_reverse_trigger *&table_of<cfg_reverse_trigger>(cfg *context)
{
    return context->reverse_triggers;
}

cfg_link **dependents_of(const cfg_trigger_entry &entry)
{
    if (entry.uuid_trigger != nullptr)
        return &entry.uuid_trigger->dependents;
    if (entry.path_trigger != nullptr)
        return &entry.path_trigger->dependents;
    if (entry.pattern_trigger != nullptr)
        return &entry.pattern_trigger->dependents;
    return nullptr;
}

const char *key_of(const cfg_trigger_entry &entry)
{
    if (entry.uuid_trigger != nullptr)
        return entry.uuid_trigger->key;
    if (entry.path_trigger != nullptr)
        return entry.path_trigger->key;
    if (entry.pattern_trigger != nullptr)
        return entry.pattern_trigger->key;
    return "";
}

bool same_record(const cfg_trigger_entry &a, const cfg_trigger_entry &b)
{
    return a.uuid_trigger == b.uuid_trigger && a.path_trigger == b.path_trigger &&
           a.pattern_trigger == b.pattern_trigger;
}

// Unlinks and frees the first node whose data satisfies matches, with its data.
template <typename Match> bool unlink_first(cfg_link **head, Match matches)
{
    for (cfg_link **at = head; *at != nullptr; at = &(*at)->next) {
        if (!matches((*at)->data))
            continue;
        removed();
        cfg_link *node = *at;
        *at = node->next;
        free(node->data);
        free(node);
        return true;
    }
    return false;
}

bool dependent_is(void *data, const char *uuid)
{
    return strcmp(static_cast<const char *>(data), uuid) == 0;
}

template <typename R> void free_record(R *record)
{
    cfg_link_list_free(record->dependents);
    free(record);
}

void free_record(cfg_pattern_trigger *record)
{
    if (record->compiled != nullptr)
        pcre_free(record->compiled);
    cfg_link_list_free(record->dependents);
    free(record);
}

void free_record(cfg_reverse_trigger *record)
{
    cfg_link_list_free(record->triggered_by);
    free(record);
}

template <typename R> void delete_record(cfg *context, R *record)
{
    R *&table = table_of<R>(context);
    HASH_DEL(table, record);
    removed();
    free_record(record);
}

void delete_entry_record(cfg *context, const cfg_trigger_entry &entry)
{
    if (entry.uuid_trigger != nullptr)
        delete_record(context, entry.uuid_trigger);
    else if (entry.path_trigger != nullptr)
        delete_record(context, entry.path_trigger);
    else if (entry.pattern_trigger != nullptr)
        delete_record(context, entry.pattern_trigger);
}

// Removes the reverse entry of uuid that names entry's record; a reverse
// record left without entries is freed (keeps invariant 4).
void drop_reverse_entry(cfg *context, const cfg_trigger_entry &entry, const char *uuid)
{
    cfg_reverse_trigger *reverse = find_record<cfg_reverse_trigger>(context, uuid);
    if (reverse == nullptr)
        return;
    unlink_first(&reverse->triggered_by, [&entry](void *data) {
        return same_record(*static_cast<cfg_trigger_entry *>(data), entry);
    });
    if (reverse->triggered_by == nullptr)
        delete_record(context, reverse);
}

template <typename R> void free_table(R *&table)
{
    removed();
    clear_table(table, [](R *record) { free_record(record); });
}

// key as R's table hashes it: cut to the record's key field.
template <typename R> zr::hashed_key table_key(const char *key)
{
    return zr::hashed_key(key, strnlen(key, sizeof(R::key) - 1));
}

template <typename R> R *find_hashed(R *table, const zr::hashed_key &key)
{
    R *record = nullptr;
    HASH_FIND_BYHASHVALUE(hh, table, key.text, key.length, key.hash, record);
    return record;
}

} // namespace

template <typename R> R *find_record(cfg *context, const char *key)
{
    settle_registrations(context);
    if (context == nullptr || key == nullptr)
        return nullptr;
    return find_hashed(table_of<R>(context), table_key<R>(key));
}

// The record under key, added empty to its table when there is none; keeps
// invariant 1.
template <typename R> R *find_or_add(cfg *context, const char *key)
{
    settle_registrations(context);
    if (context == nullptr || key == nullptr)
        return nullptr;
    R *&table = table_of<R>(context);
    const zr::hashed_key hashed = table_key<R>(key);
    R *record = find_hashed(table, hashed);
    if (record != nullptr)
        return record;
    record = zalloc<R>();
    if (record == nullptr)
        return nullptr;
    memcpy(record->key, key, hashed.length);
    HASH_ADD_KEYPTR_BYHASHVALUE(hh, table, record->key, hashed.length, hashed.hash, record);
    if (!zr::hash_added(record)) {
        free(record);
        return nullptr;
    }
    zr::keep_sparse(table);
    return record;
}

bool static_path(cfg *context, cfg_element *element, std::string &out)
{
    char *path = nullptr;
    if (!cfg_get_static_path(context, element, &path) || path == nullptr)
        return false;
    zr::cstr_ptr holder(path);
    if (path[0] == '{') {
        const char *colon = strchr(path, ':');
        out = colon != nullptr ? colon + 1 : "";
    } else {
        out = path;
    }
    return true;
}

#define ZR_TRIGGER_RECORD(R)                                 \
    template R *find_record<R>(cfg *context, const char *key); \
    template R *find_or_add<R>(cfg *context, const char *key);
ZR_TRIGGER_RECORD(cfg_uuid_trigger)
ZR_TRIGGER_RECORD(cfg_path_trigger)
ZR_TRIGGER_RECORD(cfg_pattern_trigger)
ZR_TRIGGER_RECORD(cfg_reverse_trigger)
#undef ZR_TRIGGER_RECORD

cfg_trigger_entry entry_for(cfg_uuid_trigger *record)
{
    return {record, nullptr, nullptr};
}
cfg_trigger_entry entry_for(cfg_path_trigger *record)
{
    return {nullptr, record, nullptr};
}
cfg_trigger_entry entry_for(cfg_pattern_trigger *record)
{
    return {nullptr, nullptr, record};
}

bool has_dependent(const cfg_trigger_entry &entry, const char *uuid)
{
    cfg_link **dependents = dependents_of(entry);
    if (dependents == nullptr || uuid == nullptr)
        return false;
    for (cfg_link *n = *dependents; n != nullptr; n = n->next)
        if (dependent_is(n->data, uuid))
            return true;
    return false;
}

// Keeps invariant 2 by refusing a uuid that is there already.
bool add_dependent(cfg_reverse_trigger *reverse, const cfg_trigger_entry &entry,
                   const char *uuid)
{
    cfg_link **dependents = dependents_of(entry);
    if (reverse == nullptr || dependents == nullptr || uuid == nullptr ||
        has_dependent(entry, uuid))
        return false;
    auto *copy = static_cast<char *>(calloc(1, dependent_size));
    auto *back = zalloc<cfg_trigger_entry>();
    if (copy == nullptr || back == nullptr) {
        free(copy);
        free(back);
        return false;
    }
    memcpy(copy, uuid, strnlen(uuid, dependent_size - 1));
    *back = entry;
    // Both sides or neither (keeps invariant 3).
    if (cfg_add_link(dependents, copy) == nullptr) {
        free(copy);
        free(back);
        return false;
    }
    if (cfg_add_link(&reverse->triggered_by, back) == nullptr) {
        unlink_first(dependents, [copy](void *data) { return data == copy; });
        free(back);
        return false;
    }
    return true;
}

namespace {

// A conditional's registration waiting in a batch: copies of what
// depend_on_uuid would read of the two texts.
struct pending_registration {
    char dependent[dependent_size];
    char key[CFG_UUID_SIZE];
};

// Registrations of one context made inside a batch_registrations scope.
// They are made in the order asked, sixteen at a time, the buckets and
// first records of all of them fetched before any is looked up: each
// lookup of a large table misses the cache, and a batch's misses overlap.
// Anything else that reads or changes the tables makes the waiting ones
// first, so no one sees the tables short of a registration.
constexpr size_t registration_batch = 16;

struct registration_queue {
    cfg *context = nullptr;
    int depth = 0;
    size_t count = 0;
    // On the heap: the library's thread-locals must stay a few bytes.
    std::unique_ptr<pending_registration[]> pending;
};

thread_local registration_queue queued;

// The registration depend_on_uuid made last, while removals stood at
// removals_then.
struct uuid_registration {
    const cfg *context = nullptr;
    uint64_t removals_then = 0;
    std::string dependent;
    std::string key;
};

thread_local uuid_registration last_registration;

} // namespace

namespace {

void register_now(cfg *context, const char *dependent, const char *key)
{
    uuid_registration &last = last_registration;
    const uint64_t now = removals.load(std::memory_order_relaxed);
    if (last.context == context && last.removals_then == now && last.dependent == dependent &&
        last.key == key)
        return;
    cfg_reverse_trigger *reverse = find_or_add<cfg_reverse_trigger>(context, dependent);
    cfg_uuid_trigger *record = find_or_add<cfg_uuid_trigger>(context, key);
    const bool held = add_dependent(reverse, entry_for(record), dependent) ||
                      (reverse != nullptr && has_dependent(entry_for(record), dependent));
    if (!held) {
        last.context = nullptr;
        return;
    }
    last.context = context;
    last.removals_then = now;
    last.dependent = dependent;
    last.key = key;
}

// The bucket that hash falls in, in R's table; nullptr for an empty table.
template <typename R> UT_hash_bucket *bucket_of(R *table, unsigned hash)
{
    if (table == nullptr)
        return nullptr;
    return &table->hh.tbl->buckets[hash & (table->hh.tbl->num_buckets - 1U)];
}

template <typename R> unsigned hash_of(const char *key)
{
    const zr::hashed_key hashed = table_key<R>(key);
    return hashed.hash;
}

// Makes the waiting registrations, in order, having fetched their buckets
// and then the buckets' first records.
void make_queued()
{
    registration_queue &q = queued;
    const size_t count = q.count;
    q.count = 0;
    cfg *context = q.context;
    UT_hash_bucket *buckets[2 * registration_batch];
    for (size_t i = 0; i < count; i++) {
        buckets[2 * i] = bucket_of(context->reverse_triggers,
                                   hash_of<cfg_reverse_trigger>(q.pending[i].dependent));
        buckets[2 * i + 1] =
            bucket_of(context->uuid_triggers, hash_of<cfg_uuid_trigger>(q.pending[i].key));
    }
    for (size_t i = 0; i < 2 * count; i++)
        if (buckets[i] != nullptr)
            __builtin_prefetch(buckets[i]);
    for (size_t i = 0; i < 2 * count; i++)
        if (buckets[i] != nullptr && buckets[i]->hh_head != nullptr)
            __builtin_prefetch(buckets[i]->hh_head);
    for (size_t i = 0; i < count; i++)
        register_now(context, q.pending[i].dependent, q.pending[i].key);
}

} // namespace

batch_registrations::batch_registrations(cfg *context)
{
    registration_queue &q = queued;
    if (context == nullptr || (q.depth > 0 && q.context != context))
        return; // a walk of another context inside one: its registrations are made at once
    q.context = context;
    q.depth++;
    context_ = context;
}

batch_registrations::~batch_registrations()
{
    registration_queue &q = queued;
    if (context_ == nullptr)
        return;
    if (--q.depth == 0) {
        make_queued();
        q.context = nullptr;
    }
}

void depend_on_uuid(cfg *context, const char *dependent, const char *key)
{
    registration_queue &q = queued;
    if (q.depth == 0 || q.context != context || dependent == nullptr || key == nullptr) {
        register_now(context, dependent, key);
        return;
    }
    if (q.pending == nullptr)
        q.pending = std::make_unique<pending_registration[]>(registration_batch);
    pending_registration &p = q.pending[q.count++];
    size_t dependent_length = strnlen(dependent, sizeof p.dependent - 1);
    memcpy(p.dependent, dependent, dependent_length);
    p.dependent[dependent_length] = '\0';
    size_t key_length = strnlen(key, sizeof p.key - 1);
    memcpy(p.key, key, key_length);
    p.key[key_length] = '\0';
    if (q.count == registration_batch)
        make_queued();
}

void settle_registrations(cfg *context)
{
    if (queued.count != 0 && queued.context == context)
        make_queued();
}

// Keeps invariant 3: the dependent and its reverse entry go together.
bool drop_dependent(cfg *context, const cfg_trigger_entry &entry, const char *uuid)
{
    settle_registrations(context);
    cfg_link **dependents = dependents_of(entry);
    if (dependents == nullptr || uuid == nullptr)
        return false;
    std::string dependent(uuid); // uuid may point into the node freed below
    if (unlink_first(dependents, [&](void *data) { return dependent_is(data, dependent.c_str()); }))
        drop_reverse_entry(context, entry, dependent.c_str());
    return *dependents == nullptr;
}

// Keeps invariant 3 for every dependent of the record.
void remove_record(cfg *context, const cfg_trigger_entry &entry)
{
    settle_registrations(context);
    cfg_link **dependents = dependents_of(entry);
    if (dependents == nullptr)
        return;
    for (cfg_link *n = *dependents; n != nullptr; n = n->next)
        drop_reverse_entry(context, entry, static_cast<const char *>(n->data));
    delete_entry_record(context, entry);
}

// Keeps invariant 3 from the reverse side.
void forget_dependent(cfg *context, const char *uuid)
{
    settle_registrations(context);
    cfg_reverse_trigger *reverse = find_record<cfg_reverse_trigger>(context, uuid);
    if (reverse == nullptr)
        return;
    HASH_DEL(context->reverse_triggers, reverse);
    removed();
    std::string dependent(reverse->key);
    for (cfg_link *n = reverse->triggered_by; n != nullptr; n = n->next) {
        const auto &entry = *static_cast<cfg_trigger_entry *>(n->data);
        cfg_link **dependents = dependents_of(entry);
        unlink_first(dependents, [&](void *data) { return dependent_is(data, dependent.c_str()); });
        if (*dependents == nullptr)
            delete_entry_record(context, entry);
    }
    free_record(reverse);
}

void *compiled_pattern(cfg_pattern_trigger *record)
{
    if (record == nullptr)
        return nullptr;
    if (record->compiled == nullptr) {
        const char *error = nullptr;
        int offset = 0;
        record->compiled = pcre_compile(record->key, 0, &error, &offset, nullptr);
    }
    return record->compiled;
}

} // namespace zr::triggers

// ------------------------------------------------------------------------
// Validator triggers, printing and release
// ------------------------------------------------------------------------

namespace {

namespace trig = zr::triggers;

// Room for one pattern, its terminating zero included.
constexpr size_t pattern_size = 1024;

// The static path with "(", ")" and "." escaped, then the validator path,
// cut to what a pattern record holds.
std::string validator_pattern(const std::string &static_path, const char *validator_path)
{
    std::string pattern;
    for (char c : static_path) {
        if (c == '(' || c == ')' || c == '.')
            pattern += '\\';
        pattern += c;
    }
    pattern += validator_path;
    if (pattern.size() > pattern_size - 1)
        pattern.resize(pattern_size - 1);
    return pattern;
}

// The texts that name gives for the data of each node, joined by ", ".
template <typename Name> std::string join(cfg_link *head, Name name)
{
    std::string text;
    for (cfg_link *n = head; n != nullptr; n = n->next) {
        if (n != head)
            text += ", ";
        text += name(n->data);
    }
    return text;
}

const char *dependent_text(void *data)
{
    return static_cast<const char *>(data);
}

const char *entry_key(void *data)
{
    return trig::key_of(*static_cast<cfg_trigger_entry *>(data));
}

template <typename R> void print_triggers(R *table)
{
    for (R *record = table; record != nullptr; record = static_cast<R *>(record->hh.next))
        printf("%s triggers (%s)\n", record->key, join(record->dependents, dependent_text).c_str());
}

void print_reverse(cfg_reverse_trigger *table)
{
    for (cfg_reverse_trigger *record = table; record != nullptr;
         record = static_cast<cfg_reverse_trigger *>(record->hh.next))
        printf("%s thinks it is triggered by (%s)\n", record->key,
               join(record->triggered_by, entry_key).c_str());
}

const char rule[] = "-----------------------------------------------------";

} // namespace

extern "C" void cfg_create_validator_triggers(cfg *context, cfg_element *element,
                                              cfg_schema_validator *validator)
{
    if (context == nullptr || element == nullptr || validator == nullptr ||
        validator->paths_count <= 0 || validator->paths == nullptr)
        return;
    std::string static_path;
    if (!trig::static_path(context, element, static_path))
        return;
    cfg_reverse_trigger *reverse = trig::find_or_add<cfg_reverse_trigger>(context, element->uuid);
    for (int i = 0; i < validator->paths_count; i++) {
        if (validator->paths[i] == nullptr)
            continue;
        std::string pattern = validator_pattern(static_path, validator->paths[i]);
        cfg_pattern_trigger *record =
            trig::find_or_add<cfg_pattern_trigger>(context, pattern.c_str());
        trig::add_dependent(reverse, trig::entry_for(record), element->uuid);
    }
}

extern "C" int cfg_print_trigger_tables(cfg *context)
{
    trig::settle_registrations(context);
    static_assert(sizeof rule == 54);
    printf("%s\n", rule);
    if (context != nullptr) {
        print_triggers(context->pattern_triggers);
        print_triggers(context->uuid_triggers);
        print_triggers(context->path_triggers);
        print_reverse(context->reverse_triggers);
    }
    int result = printf("%s\n", rule);
    fflush(stdout);
    return result;
}

extern "C" void cfg_free_trigger_tables(cfg *context)
{
    trig::settle_registrations(context);
    if (context == nullptr)
        return;
    trig::free_table(context->reverse_triggers);
    trig::free_table(context->pattern_triggers);
    trig::free_table(context->uuid_triggers);
    trig::free_table(context->path_triggers);
}
