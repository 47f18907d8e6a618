// The daemon's durable store: one SQLite database holding the configuration
// elements, their member links, the schema and the subscriptions. The tables
// are described at the top of store.cpp.
#pragma once

#include "common.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace zrd {

// A program run after accepted pushes that touch its paths.
struct subscription {
    std::string name;
    int priority = 0;
    std::string program;
    std::vector<std::string> args, paths, before, after;
};

class store {
  public:
    // Opens (creating when missing) the database at path in WAL mode with
    // synchronous=FULL, locked against other daemons; null with error set
    // on failure.
    static std::unique_ptr<store> open(const std::string &path, std::string &error);
    ~store();
    store(const store &) = delete;
    store &operator=(const store &) = delete;

    // True until the first configuration has been stored.
    bool is_new();
    const std::string &last_error() const { return error_; }

    // One write transaction; commit is what makes a push durable.
    bool begin();
    bool commit();
    void rollback();

    std::optional<std::string> meta(const char *key);
    bool set_meta(const char *key, const std::string &value);

    // Writes element's row with generation and its member links.
    bool write_element(cfg_element *element, int generation);
    // Removes the element's row and every link naming it.
    bool erase_element(const char *id);
    bool has_element(const char *id);

    // Loads every stored element into ctx, whose index is empty.
    bool load_all(cfg *ctx);
    // Loads the stored copies of ids into ctx, replacing what it holds
    // under those ids, with their member and parent links.
    bool reload(cfg *ctx, const std::vector<std::string> &ids);

    // Replaces the stored schema by ctx's (elements not marked deleted,
    // the type registry and the root).
    bool write_schema(cfg *ctx);
    // The stored schema as the document {"root", "nodes", "types"}.
    json_t *schema_document();

    bool write_subscription(const subscription &sub);
    std::vector<subscription> subscriptions();

    // Ids of the members of list whose fields satisfy where, in list order.
    // where holds "?" placeholders for the condition's values (bound in
    // order) and names only the given fields, each a plain identifier.
    bool search(const char *list_id, const std::string &where, cfg_condition *condition,
                const std::vector<std::string> &fields, std::vector<std::string> &ids);

  private:
    store(sqlite3 *db, int lock_fd) : db_(db), lock_fd_(lock_fd) {}
    sqlite3_stmt *prepare(const std::string &sql);
    bool exec(const char *sql);
    bool fail(const char *what);
    bool load_rows(cfg *ctx, const char *filter, const std::vector<std::string> &ids);
    bool load_links(cfg *ctx, const std::vector<std::string> &ids, bool all);

    sqlite3 *db_;
    int lock_fd_; // holds the database's flock for this process
    std::map<std::string, sqlite3_stmt *> statements_;
    std::string error_;
};

} // namespace zrd
