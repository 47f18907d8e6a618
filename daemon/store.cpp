// The SQLite store of zrconfigd.
//
// Tables:
//   meta(key PRIMARY KEY, value)
//       "format" (1 once a configuration is stored), "schema_root" (uuid of
//       the schema root), "next_id" (the counter behind the daemon's ids).
//   elements(id PRIMARY KEY, type, schema, generation, value)
//       one row per configuration element; value is an INTEGER for Boolean
//       (0/1) and Integer, a REAL for Float, TEXT for String and for the
//       target uuid of a Reference, a BLOB for Blob, NULL for List and Map.
//   members(parent, position, child, name; PRIMARY KEY(parent, position))
//       the member links of lists and maps in member order: name is the
//       map key, NULL for a list member, whose index is its position. An
//       element's parent links are the rows naming it as child; reference
//       links are not stored, they follow from the references' values.
//   schema_nodes(id PRIMARY KEY, body)
//       one schema element each, as its JSON text.
//   types(name PRIMARY KEY, schema_id, position)
//       the type registry in registry order.
//   subscriptions(name PRIMARY KEY, priority, program, args, paths, before,
//       after): the lists as JSON arrays of strings.
//
// Invariants:
//   1. Between pushes the stored elements equal the daemon's model: every
//      change reaches both, or neither (a push is one transaction).
//   2. The positions of one parent's members run 0, 1, 2 ... without gaps.
//   3. No cached statement is left standing on a row: one that is keeps a
//      read transaction open, and the write-ahead log can then never be
//      checkpointed and grows with every push. Lookups of one row reset
//      their statement before returning.
#define ZRD_SOURCE "daemon/store"
#include "store.h"

#include <sqlite3.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace zrd {

namespace {

const char *const create_tables = R"(
CREATE TABLE IF NOT EXISTS meta(key TEXT PRIMARY KEY, value TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS elements(id TEXT PRIMARY KEY, type INTEGER NOT NULL,
    schema TEXT NOT NULL, generation INTEGER NOT NULL, value);
CREATE INDEX IF NOT EXISTS elements_references ON elements(value) WHERE type = 9;
CREATE TABLE IF NOT EXISTS members(parent TEXT NOT NULL, position INTEGER NOT NULL,
    child TEXT NOT NULL, name TEXT, PRIMARY KEY(parent, position));
CREATE INDEX IF NOT EXISTS members_child ON members(child);
CREATE TABLE IF NOT EXISTS schema_nodes(id TEXT PRIMARY KEY, body TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS types(name TEXT PRIMARY KEY, schema_id TEXT NOT NULL,
    position INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS subscriptions(name TEXT PRIMARY KEY, priority INTEGER NOT NULL,
    program TEXT NOT NULL, args TEXT NOT NULL, paths TEXT NOT NULL, before TEXT NOT NULL,
    after TEXT NOT NULL);
)";

const char *column_text(sqlite3_stmt *st, int column)
{
    const unsigned char *text = sqlite3_column_text(st, column);
    return text != nullptr ? reinterpret_cast<const char *>(text) : "";
}

void bind_text(sqlite3_stmt *st, int index, const char *text)
{
    sqlite3_bind_text(st, index, text, -1, SQLITE_TRANSIENT);
}

// Makes the element a row describes; references need their target held.
cfg_element *element_of_row(cfg *ctx, sqlite3_stmt *st)
{
    const char *id = column_text(st, 0);
    switch (sqlite3_column_int(st, 1)) {
    case CFG_TYPE_BOOL:
        return cfg_load_bool(ctx, id, sqlite3_column_int(st, 4) != 0);
    case CFG_TYPE_INT:
        return cfg_load_int(ctx, id, sqlite3_column_int(st, 4));
    case CFG_TYPE_FLOAT:
        return cfg_load_float(ctx, id, sqlite3_column_double(st, 4));
    case CFG_TYPE_STRING:
        return cfg_load_string(ctx, id, column_text(st, 4));
    case CFG_TYPE_BLOB:
        return cfg_load_blob(ctx, id, sqlite3_column_blob(st, 4),
                             static_cast<size_t>(sqlite3_column_bytes(st, 4)));
    case CFG_TYPE_LIST:
        return cfg_load_list(ctx, id);
    case CFG_TYPE_MAP:
        return cfg_load_map(ctx, id);
    case CFG_TYPE_REFERENCE:
        return cfg_load_reference(ctx, id, column_text(st, 4));
    default:
        return nullptr;
    }
}

// The stored form of an element's value.
void bind_value(sqlite3_stmt *st, int index, cfg_element *e)
{
    switch (e->type) {
    case CFG_TYPE_BOOL:
    case CFG_TYPE_INT:
        sqlite3_bind_int(st, index, e->value.int_value);
        break;
    case CFG_TYPE_FLOAT:
        sqlite3_bind_double(st, index, e->value.float_value);
        break;
    case CFG_TYPE_STRING:
    case CFG_TYPE_REFERENCE:
        bind_text(st, index, e->value.string_value != nullptr ? e->value.string_value : "");
        break;
    case CFG_TYPE_BLOB:
        sqlite3_bind_blob64(st, index, e->value.blob.data, e->value.blob.size, SQLITE_TRANSIENT);
        break;
    default:
        sqlite3_bind_null(st, index);
    }
}

// True when element already names reference among its parents.
bool has_reference_parent(cfg_element *element, const char *reference)
{
    for (cfg_link *l = element->parents; l != nullptr; l = l->next) {
        auto *link = static_cast<cfg_parent_link *>(l->data);
        if (link->type == CFG_TYPE_REFERENCE && uuidcmp(link->uuid, reference) == 0)
            return true;
    }
    return false;
}

json_t *string_array(const std::vector<std::string> &items)
{
    json_t *array = json_array();
    for (const std::string &s : items)
        json_array_append_new(array, json_string(s.c_str()));
    return array;
}

std::vector<std::string> strings_of(const char *text)
{
    std::vector<std::string> out;
    json_ptr array(json_loads(text, 0, nullptr));
    size_t i;
    json_t *item;
    json_array_foreach(array.get(), i, item)
    {
        if (json_is_string(item))
            out.emplace_back(json_string_value(item));
    }
    return out;
}

// Binds the values of condition's comparisons from index on, depth first.
void bind_condition(sqlite3_stmt *st, cfg_condition *c, int &index)
{
    for (; c != nullptr; c = c->next) {
        if (c->type != CFG_CONDITION_BASIC) {
            bind_condition(st, c->children, index);
            continue;
        }
        if (c->oper < CFG_OPER_EQ || c->oper > CFG_OPER_LIKE_LAST)
            continue;
        if (c->datatype == CFG_TYPE_FLOAT)
            sqlite3_bind_double(st, index++, c->value.float_value);
        else if (c->datatype == CFG_TYPE_STRING || c->datatype == CFG_TYPE_REFERENCE)
            bind_text(st, index++, c->value.string_value);
        else
            sqlite3_bind_int(st, index++, c->value.int_value);
    }
}

} // namespace

// Takes the database for this process alone: a second daemon on the same
// file would answer from a model that the first one's pushes have left
// behind, and overwrite them without a conflict. The lock (flock, apart
// from SQLite's own fcntl locks) lasts while fd stays open.
static int lock_database(const std::string &path, std::string &error)
{
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        error = "cannot open database " + path + ": " + strerror(errno);
        return -1;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) == 0)
        return fd;
    error = errno == EWOULDBLOCK
                ? "database " + path + " is in use by another zrconfigd; stop that one first"
                : "cannot lock database " + path + ": " + strerror(errno);
    close(fd);
    return -1;
}

std::unique_ptr<store> store::open(const std::string &path, std::string &error)
{
    int lock_fd = lock_database(path, error);
    if (lock_fd < 0)
        return nullptr;
    sqlite3 *db = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE |
                                                    SQLITE_OPEN_FULLMUTEX,
                             nullptr);
    if (rc != SQLITE_OK) {
        error = std::string("cannot open database ") + path + ": " +
                (db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
        sqlite3_close(db);
        close(lock_fd);
        return nullptr;
    }
    std::unique_ptr<store> s(new store(db, lock_fd));
    sqlite3_busy_timeout(db, 5000);
    if (!s->exec("PRAGMA journal_mode=WAL") || !s->exec("PRAGMA synchronous=FULL") ||
        !s->exec(create_tables)) {
        error = "cannot use database " + path + ": " + s->error_;
        int code = sqlite3_errcode(db);
        if (code == SQLITE_READONLY || code == SQLITE_CANTOPEN)
            error += " (the daemon must be able to write the database and its directory)";
        return nullptr;
    }
    return s;
}

store::~store()
{
    for (auto &[sql, st] : statements_)
        sqlite3_finalize(st);
    sqlite3_close(db_);
    close(lock_fd_); // only now: closing a descriptor of the file drops SQLite's locks
}

bool store::fail(const char *what)
{
    error_ = std::string(what) + ": " + sqlite3_errmsg(db_);
    ZRD_LOG(LOG_ERR, "%s", error_.c_str());
    return false;
}

bool store::exec(const char *sql)
{
    char *err = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &err) == SQLITE_OK)
        return true;
    error_ = err != nullptr ? err : "unknown database error";
    sqlite3_free(err);
    ZRD_LOG(LOG_ERR, "%s", error_.c_str());
    return false;
}

// A cached statement, reset and with its bindings cleared.
sqlite3_stmt *store::prepare(const std::string &sql)
{
    auto at = statements_.find(sql);
    if (at != statements_.end()) {
        sqlite3_reset(at->second);
        sqlite3_clear_bindings(at->second);
        return at->second;
    }
    sqlite3_stmt *st = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &st, nullptr) != SQLITE_OK) {
        fail("prepare");
        return nullptr;
    }
    statements_[sql] = st;
    return st;
}

bool store::is_new()
{
    return meta("format") != "1";
}

bool store::begin()
{
    return exec("BEGIN IMMEDIATE");
}

bool store::commit()
{
    return exec("COMMIT");
}

void store::rollback()
{
    if (!sqlite3_get_autocommit(db_))
        exec("ROLLBACK");
}

std::optional<std::string> store::meta(const char *key)
{
    sqlite3_stmt *st = prepare("SELECT value FROM meta WHERE key = ?");
    if (st == nullptr)
        return std::nullopt;
    bind_text(st, 1, key);
    std::optional<std::string> value;
    if (sqlite3_step(st) == SQLITE_ROW)
        value = column_text(st, 0);
    sqlite3_reset(st); // invariant 3
    return value;
}

bool store::set_meta(const char *key, const std::string &value)
{
    sqlite3_stmt *st = prepare("INSERT OR REPLACE INTO meta(key, value) VALUES(?, ?)");
    if (st == nullptr)
        return false;
    bind_text(st, 1, key);
    bind_text(st, 2, value.c_str());
    return sqlite3_step(st) == SQLITE_DONE || fail("set meta");
}

bool store::write_element(cfg_element *element, int generation)
{
    sqlite3_stmt *row = prepare("INSERT OR REPLACE INTO elements(id, type, schema, generation, "
                                "value) VALUES(?, ?, ?, ?, ?)");
    if (row == nullptr)
        return false;
    bind_text(row, 1, element->uuid);
    sqlite3_bind_int(row, 2, static_cast<int>(element->type));
    bind_text(row, 3, element->schema);
    sqlite3_bind_int(row, 4, generation);
    bind_value(row, 5, element);
    if (sqlite3_step(row) != SQLITE_DONE)
        return fail("write element");
    sqlite3_stmt *clear = prepare("DELETE FROM members WHERE parent = ?");
    if (clear == nullptr)
        return false;
    bind_text(clear, 1, element->uuid);
    if (sqlite3_step(clear) != SQLITE_DONE)
        return fail("clear members");
    int position = 0;
    for (cfg_link *l = members_of(element); l != nullptr; l = l->next, position++) {
        auto *link = static_cast<cfg_parent_link *>(l->data);
        sqlite3_stmt *add = prepare(
            "INSERT INTO members(parent, position, child, name) VALUES(?, ?, ?, ?)");
        if (add == nullptr)
            return false;
        bind_text(add, 1, element->uuid);
        sqlite3_bind_int(add, 2, position);
        bind_text(add, 3, link->uuid);
        if (element->type == CFG_TYPE_MAP)
            bind_text(add, 4, link->name != nullptr ? link->name : "");
        if (sqlite3_step(add) != SQLITE_DONE)
            return fail("write member");
    }
    return true;
}

bool store::erase_element(const char *id)
{
    for (const char *sql : {"DELETE FROM elements WHERE id = ?", "DELETE FROM members WHERE parent = ?",
                            "DELETE FROM members WHERE child = ?"}) {
        sqlite3_stmt *st = prepare(sql);
        if (st == nullptr)
            return false;
        bind_text(st, 1, id);
        if (sqlite3_step(st) != SQLITE_DONE)
            return fail("erase element");
    }
    return true;
}

bool store::has_element(const char *id)
{
    sqlite3_stmt *st = prepare("SELECT 1 FROM elements WHERE id = ?");
    if (st == nullptr)
        return false;
    bind_text(st, 1, id);
    bool found = sqlite3_step(st) == SQLITE_ROW;
    sqlite3_reset(st); // invariant 3
    return found;
}

// Loads the rows that filter selects (every row when ids is empty, else
// one id at a time), plain elements first and references after them, so
// that a reference finds its target. A reference whose target is missing
// is left out with a log line.
bool store::load_rows(cfg *ctx, const char *filter, const std::vector<std::string> &ids)
{
    std::string base = "SELECT id, type, schema, generation, value FROM elements ";
    for (bool references : {false, true}) {
        std::string sql = base + (references ? "WHERE type = 9" : "WHERE type <> 9") + filter;
        sqlite3_stmt *st = prepare(sql);
        if (st == nullptr)
            return false;
        size_t rounds = ids.empty() ? 1 : ids.size();
        for (size_t i = 0; i < rounds; i++) {
            sqlite3_reset(st);
            if (!ids.empty())
                bind_text(st, 1, ids[i].c_str());
            int rc;
            while ((rc = sqlite3_step(st)) == SQLITE_ROW) {
                cfg_element *e = element_of_row(ctx, st);
                if (e == nullptr) {
                    ZRD_LOG(LOG_WARNING, "stored element '%s' could not be loaded",
                            column_text(st, 0));
                    continue;
                }
                uuidcpy(e->schema, column_text(st, 2));
                e->generation = sqlite3_column_int(st, 3);
            }
            if (rc != SQLITE_DONE)
                return fail("load elements");
        }
    }
    return true;
}

// Joins a parent and a member as one stored link row describes.
static void join(cfg_element *parent, cfg_element *child, const char *parent_id,
                 const char *child_id, int position, const char *name, bool to_parent,
                 bool to_child)
{
    bool map = parent != nullptr ? parent->type == CFG_TYPE_MAP : name != nullptr;
    if (to_parent && parent != nullptr) {
        if (map)
            cfg_load_mapid(parent, name != nullptr ? name : "", child_id);
        else if (parent->type == CFG_TYPE_LIST)
            cfg_load_listid(parent, child_id);
    }
    if (to_child && child != nullptr) {
        if (map)
            cfg_load_mapparent(child, parent_id, name != nullptr ? name : "");
        else
            cfg_load_listparent(child, parent_id, static_cast<unsigned>(position));
    }
}

// Loads member and parent links: every stored link when all is set, else
// the links of the given ids (their members, and their own parent links).
bool store::load_links(cfg *ctx, const std::vector<std::string> &ids, bool all)
{
    const char *by_parent = "SELECT parent, position, child, name FROM members "
                            "WHERE parent = ? ORDER BY position";
    const char *by_child = "SELECT parent, position, child, name FROM members WHERE child = ?";
    std::vector<std::pair<const char *, bool>> passes;
    if (all)
        passes = {{"SELECT parent, position, child, name FROM members ORDER BY parent, position",
                   true}};
    else
        passes = {{by_parent, true}, {by_child, false}};
    for (auto [sql, members] : passes) {
        sqlite3_stmt *st = prepare(sql);
        if (st == nullptr)
            return false;
        size_t rounds = all ? 1 : ids.size();
        for (size_t i = 0; i < rounds; i++) {
            sqlite3_reset(st);
            if (!all)
                bind_text(st, 1, ids[i].c_str());
            int rc;
            while ((rc = sqlite3_step(st)) == SQLITE_ROW) {
                const char *parent_id = column_text(st, 0), *child_id = column_text(st, 2);
                const char *name = sqlite3_column_type(st, 3) == SQLITE_NULL
                                       ? nullptr
                                       : column_text(st, 3);
                join(cfg_find_by_id(ctx, parent_id), cfg_find_by_id(ctx, child_id), parent_id,
                     child_id, sqlite3_column_int(st, 1), name, members, all || !members);
            }
            if (rc != SQLITE_DONE)
                return fail("load links");
        }
    }
    return true;
}

bool store::load_all(cfg *ctx)
{
    return load_rows(ctx, "", {}) && load_links(ctx, {}, true);
}

bool store::reload(cfg *ctx, const std::vector<std::string> &ids)
{
    // A held reference leaves its target's parent links before it goes.
    for (const std::string &id : ids) {
        cfg_element *held = cfg_find_by_id(ctx, id.c_str());
        if (held != nullptr && held->type == CFG_TYPE_REFERENCE)
            update_reference(ctx, held, "");
    }
    if (!load_rows(ctx, " AND id = ?", ids) || !load_links(ctx, ids, false))
        return false;
    // Reloaded targets get back the links of the references naming them.
    sqlite3_stmt *st = prepare("SELECT id FROM elements WHERE type = 9 AND value = ?");
    if (st == nullptr)
        return false;
    for (const std::string &id : ids) {
        cfg_element *target = cfg_find_by_id(ctx, id.c_str());
        if (target == nullptr)
            continue;
        sqlite3_reset(st);
        bind_text(st, 1, id.c_str());
        while (sqlite3_step(st) == SQLITE_ROW) {
            const char *reference = column_text(st, 0);
            if (!has_reference_parent(target, reference))
                cfg_load_referenceparent(target, reference);
        }
    }
    return true;
}

bool store::write_schema(cfg *ctx)
{
    if (!exec("DELETE FROM schema_nodes") || !exec("DELETE FROM types"))
        return false;
    for (cfg_schema_index_entry *e = ctx->schema->elements; e != nullptr;
         e = static_cast<cfg_schema_index_entry *>(e->hh.next)) {
        if (e->element->flags & CFG_FLAG_DELETED)
            continue;
        json_ptr body(schema_elem_to_json(e->element));
        sqlite3_stmt *st = prepare("INSERT OR REPLACE INTO schema_nodes(id, body) VALUES(?, ?)");
        if (!body || st == nullptr)
            continue;
        bind_text(st, 1, e->element->uuid);
        bind_text(st, 2, dump(body.get()).c_str());
        if (sqlite3_step(st) != SQLITE_DONE)
            return fail("write schema");
    }
    char **names = nullptr;
    int count = 0;
    cfg_types(ctx, &names, &count);
    bool ok = true;
    for (int i = 0; i < count; i++) {
        sqlite3_stmt *st =
            prepare("INSERT OR REPLACE INTO types(name, schema_id, position) VALUES(?, ?, ?)");
        const char *uuid = cfg_get_type(ctx, names[i]);
        if (ok && st != nullptr && uuid != nullptr) {
            bind_text(st, 1, names[i]);
            bind_text(st, 2, uuid);
            sqlite3_bind_int(st, 3, i);
            ok = sqlite3_step(st) == SQLITE_DONE || fail("write type");
        }
        free(names[i]);
    }
    free(names);
    cfg_schema_element *root = ctx->schema->root;
    return ok && set_meta("schema_root", root != nullptr ? root->uuid : "");
}

json_t *store::schema_document()
{
    json_t *nodes = json_object(), *types = json_object();
    sqlite3_stmt *st = prepare("SELECT id, body FROM schema_nodes");
    while (st != nullptr && sqlite3_step(st) == SQLITE_ROW) {
        if (json_t *node = json_loads(column_text(st, 1), 0, nullptr))
            json_object_set_new(nodes, column_text(st, 0), node);
    }
    st = prepare("SELECT name, schema_id FROM types ORDER BY position");
    while (st != nullptr && sqlite3_step(st) == SQLITE_ROW)
        json_object_set_new(types, column_text(st, 0), json_string(column_text(st, 1)));
    std::string root = meta("schema_root").value_or("");
    return json_pack("{s:s, s:o, s:o}", "root", root.c_str(), "nodes", nodes, "types", types);
}

bool store::write_subscription(const subscription &sub)
{
    sqlite3_stmt *st = prepare("INSERT OR REPLACE INTO subscriptions(name, priority, program, "
                               "args, paths, before, after) VALUES(?, ?, ?, ?, ?, ?, ?)");
    if (st == nullptr)
        return false;
    bind_text(st, 1, sub.name.c_str());
    sqlite3_bind_int(st, 2, sub.priority);
    bind_text(st, 3, sub.program.c_str());
    int index = 4;
    for (const auto *list : {&sub.args, &sub.paths, &sub.before, &sub.after}) {
        json_ptr array(string_array(*list));
        bind_text(st, index++, dump(array.get()).c_str());
    }
    return sqlite3_step(st) == SQLITE_DONE || fail("write subscription");
}

std::vector<subscription> store::subscriptions()
{
    std::vector<subscription> out;
    sqlite3_stmt *st = prepare("SELECT name, priority, program, args, paths, before, after "
                               "FROM subscriptions ORDER BY name");
    while (st != nullptr && sqlite3_step(st) == SQLITE_ROW) {
        subscription sub;
        sub.name = column_text(st, 0);
        sub.priority = sqlite3_column_int(st, 1);
        sub.program = column_text(st, 2);
        sub.args = strings_of(column_text(st, 3));
        sub.paths = strings_of(column_text(st, 4));
        sub.before = strings_of(column_text(st, 5));
        sub.after = strings_of(column_text(st, 6));
        out.push_back(std::move(sub));
    }
    return out;
}

bool store::search(const char *list_id, const std::string &where, cfg_condition *condition,
                   const std::vector<std::string> &fields, std::vector<std::string> &ids)
{
    // Each field becomes a column holding the value of the member's map
    // entry under that key; fields are plain identifiers (checked by the
    // caller), so they can stand in the text as they are.
    std::string sql = "SELECT zr_id FROM (SELECT l.child AS zr_id, l.position AS zr_position";
    for (const std::string &f : fields)
        sql += ", (SELECT e.value FROM members f JOIN elements e ON e.id = f.child "
               "WHERE f.parent = l.child AND f.name = '" +
               f + "') AS \"" + f + "\"";
    sql += " FROM members l WHERE l.parent = ?1)";
    if (!where.empty())
        sql += " WHERE " + where;
    sql += " ORDER BY zr_position";
    sqlite3_stmt *st = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &st, nullptr) != SQLITE_OK) {
        sqlite3_finalize(st);
        return fail("search");
    }
    bind_text(st, 1, list_id);
    int index = 2;
    bind_condition(st, condition, index);
    int rc;
    while ((rc = sqlite3_step(st)) == SQLITE_ROW)
        ids.emplace_back(column_text(st, 0));
    sqlite3_finalize(st);
    return rc == SQLITE_DONE || fail("search");
}

} // namespace zrd
