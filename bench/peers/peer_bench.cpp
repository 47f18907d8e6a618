// The library next to libyang 2 on the same appliance data: a list of n
// network connections (id, name, mode, address, netmask, mtu, enabled,
// priority, description, vlan; address and netmask required when mode is
// static; names unique), written once as RFC 7951 JSON for libyang and once
// as a daemon answer of element JSON for the library. For each n it times,
// in one run: load, full validation, two edits with revalidation, and heap
// per entry, and prints ours/libyang ratios. Before timing, both must accept
// the valid data and refuse each planted invalid entry, so that a speed-up
// can never come from validating less.
//
// Run by hand: build/bench/zrconfig_peer_bench [--repeat=K] [n...] (default
// 1000 10000 100000, each side three times in turn, medians printed); the
// YANG module is read from the source tree.
#include <zrconfig.h>
#include <zrutil.h>

#include <libyang/libyang.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <malloc.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

namespace {

// The thread's CPU time: the machine is shared, and the time other work
// takes from it must count against neither library.
struct thread_cpu_clock {
    using duration = std::chrono::nanoseconds;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<thread_cpu_clock>;
    static constexpr bool is_steady = true;
    static time_point now()
    {
        timespec t{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
        return time_point(duration(rep{t.tv_sec} * 1000000000 + t.tv_nsec));
    }
};
using clock_type = thread_cpu_clock;

double ms_since(clock_type::time_point start)
{
    return std::chrono::duration<double, std::milli>(clock_type::now() - start).count();
}

// Bytes handed out by malloc, blocks it maps on their own (large tables)
// included.
size_t heap_in_use()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// What one malloc'd block takes from the heap, its header included.
size_t block(const void *p)
{
    return p != nullptr ? malloc_usable_size(const_cast<void *>(p)) + sizeof(size_t) : 0;
}

// ---- the workload ------------------------------------------------------

// A planted fault: which entry and what is wrong with it.
enum class fault { none, bad_range, bad_pattern, bad_enum, duplicate_name, address_on_dhcp };

struct entry {
    unsigned id;
    std::string name, mode, address, description;
    int netmask = 0, mtu = 0, priority = -1, vlan = 0;
    int enabled = -1; // -1: absent (the default applies)
};

std::vector<entry> make_entries(unsigned n, fault planted)
{
    std::vector<entry> out;
    for (unsigned i = 0; i < n; i++) {
        entry e;
        e.id = i;
        e.name = "c" + std::to_string(i);
        e.mode = i % 2 == 0 ? "static" : "dhcp";
        if (e.mode == "static") {
            e.address = "10." + std::to_string(i / 65536 % 256) + "." +
                        std::to_string(i / 256 % 256) + "." + std::to_string(i % 256);
            e.netmask = 24;
        }
        if (i % 3 == 0)
            e.mtu = 9000;
        if (i % 4 == 0)
            e.enabled = i % 8 == 0;
        e.priority = static_cast<int>(i % 8);
        e.description = "connection " + std::to_string(i);
        if (i % 5 == 0)
            e.vlan = static_cast<int>(1 + i % 4094);
        out.push_back(e);
    }
    entry &victim = out[n / 2 + 1]; // an odd index: a dhcp entry
    switch (planted) {
    case fault::bad_range: victim.mtu = 10000; break;
    case fault::bad_pattern: victim.name = "Bad!"; break;
    case fault::bad_enum: victim.mode = "ppp"; break;
    case fault::duplicate_name: victim.name = out[0].name; break;
    case fault::address_on_dhcp: victim.address = "192.168.0.1"; victim.netmask = 24; break;
    case fault::none: break;
    }
    return out;
}

std::string quoted(const std::string &s)
{
    return "\"" + s + "\"";
}

// RFC 7951 JSON of the entries, as libyang reads it.
std::string yang_json(const std::vector<entry> &entries)
{
    std::ostringstream o;
    o << "{\"zr-bench-appliance:network\": {\"conns\": [";
    for (size_t i = 0; i < entries.size(); i++) {
        const entry &e = entries[i];
        o << (i ? ", " : "") << "{\"id\": " << e.id << ", \"name\": " << quoted(e.name)
          << ", \"mode\": " << quoted(e.mode);
        if (!e.address.empty())
            o << ", \"address\": " << quoted(e.address) << ", \"netmask\": " << e.netmask;
        if (e.mtu)
            o << ", \"mtu\": " << e.mtu;
        if (e.enabled >= 0)
            o << ", \"enabled\": " << (e.enabled ? "true" : "false");
        if (e.priority >= 0)
            o << ", \"priority\": " << e.priority;
        o << ", \"description\": " << quoted(e.description);
        if (e.vlan)
            o << ", \"vlan\": " << e.vlan;
        o << "}";
    }
    o << "]}}";
    return o.str();
}

// One element object as the daemon writes it.
void element(std::ostringstream &o, bool &first, const std::string &id, int type,
             const std::string &schema, const std::string &parent, const std::string &key,
             long index, const std::string &value)
{
    o << (first ? "" : ", ") << "{\"generation\": 1, \"parents\": [";
    if (!parent.empty()) {
        if (index >= 0)
            o << "{\"list\": " << quoted(parent) << ", \"type\": \"list\", \"index\": " << index
              << "}";
        else
            o << "{\"map\": " << quoted(parent) << ", \"type\": \"map\", \"name\": "
              << quoted(key) << "}";
    }
    o << "], \"type\": " << type << ", \"id\": " << quoted(id) << ", \"schema\": "
      << quoted(schema) << ", \"value\": " << value << "}";
    first = false;
}

// The daemon's answer holding every element of the entries.
std::string daemon_answer(const std::vector<entry> &entries)
{
    std::ostringstream o;
    bool first = true;
    o << "{\"result\": true, \"data\": [";
    element(o, first, "root-1", CFG_TYPE_MAP, "b-root", "", "", -1,
            "{\"network\": \"network-1\"}");
    element(o, first, "network-1", CFG_TYPE_MAP, "b-network", "root-1", "network", -1,
            "{\"conns\": \"conns-1\"}");
    std::ostringstream members;
    for (size_t i = 0; i < entries.size(); i++)
        members << (i ? ", " : "") << quoted("conn-" + std::to_string(i));
    element(o, first, "conns-1", CFG_TYPE_LIST, "b-conns", "network-1", "conns", -1,
            "[" + members.str() + "]");
    for (size_t i = 0; i < entries.size(); i++) {
        const entry &e = entries[i];
        std::string n = std::to_string(i), map = "conn-" + n;
        std::vector<std::pair<std::string, std::string>> keys;
        auto member = [&](const char *key, int type, const std::string &value) {
            std::string id = std::string(key) + "-" + n;
            element(o, first, id, type, std::string("b-") + key, map, key, -1, value);
            keys.emplace_back(key, id);
        };
        member("id", CFG_TYPE_INT, std::to_string(e.id));
        member("name", CFG_TYPE_STRING, quoted(e.name));
        member("mode", CFG_TYPE_STRING, quoted(e.mode));
        if (!e.address.empty()) {
            member("address", CFG_TYPE_STRING, quoted(e.address));
            member("netmask", CFG_TYPE_INT, std::to_string(e.netmask));
        }
        if (e.mtu)
            member("mtu", CFG_TYPE_INT, std::to_string(e.mtu));
        if (e.enabled >= 0)
            member("enabled", CFG_TYPE_BOOL, e.enabled ? "\"true\"" : "\"false\"");
        if (e.priority >= 0)
            member("priority", CFG_TYPE_INT, std::to_string(e.priority));
        member("description", CFG_TYPE_STRING, quoted(e.description));
        if (e.vlan)
            member("vlan", CFG_TYPE_INT, std::to_string(e.vlan));
        std::string value = "{";
        for (size_t k = 0; k < keys.size(); k++)
            value += (k ? ", " : "") + quoted(keys[k].first) + ": " + quoted(keys[k].second);
        element(o, first, map, CFG_TYPE_MAP, "b-conn", "conns-1", "", static_cast<long>(i),
                value + "}");
    }
    o << "]}";
    return o.str();
}

// The schema document with the constraints of the YANG module.
const char *const schema_document = R"({"root": "b-root", "types": {"conn": "b-conn"}, "nodes": {
 "b-root": {"id": "b-root", "type": 8, "required": {"network": "b-network"}},
 "b-network": {"id": "b-network", "type": 8, "required": {"conns": "b-conns"}},
 "b-conns": {"id": "b-conns", "type": 7, "element_type": "conn",
   "validators": [{"validator": "uniqueness", "parameters": ["name"],
                   "paths": ["\\(\\d+\\)\\.name"]}]},
 "b-conn": {"id": "b-conn", "type": 8,
   "required": {"id": "b-id", "name": "b-name", "mode": "b-mode", "mtu": "b-mtu",
                "enabled": "b-enabled"},
   "optional": {"priority": "b-priority", "description": "b-description", "vlan": "b-vlan"},
   "conditionals": ["b-if-static"]},
 "b-id": {"id": "b-id", "type": 2, "min": 0},
 "b-name": {"id": "b-name", "type": 4, "min_length": 1, "max_length": 15,
   "regex": "^[a-z0-9]+$"},
 "b-mode": {"id": "b-mode", "type": 4, "allowed": ["static", "dhcp"]},
 "b-mtu": {"id": "b-mtu", "type": 2, "min": 576, "max": 9000, "default": 1500},
 "b-enabled": {"id": "b-enabled", "type": 1, "default": true},
 "b-priority": {"id": "b-priority", "type": 2, "min": 0, "max": 7},
 "b-description": {"id": "b-description", "type": 4, "min_length": 0, "max_length": 255},
 "b-vlan": {"id": "b-vlan", "type": 2, "min": 1, "max": 4094},
 "b-if-static": {"id": "b-if-static", "type": 10,
   "expression": [".mode", "==", {"type": "string", "value": "static", "id": "v-static"}],
   "required": {"address": "b-address", "netmask": "b-netmask"}},
 "b-address": {"id": "b-address", "type": 4,
   "regex": "^(([0-9]|[1-9][0-9]|1[0-9][0-9]|2[0-4][0-9]|25[0-5])\\.){3}([0-9]|[1-9][0-9]|1[0-9][0-9]|2[0-4][0-9]|25[0-5])$"},
 "b-netmask": {"id": "b-netmask", "type": 2, "min": 1, "max": 32}}})";

// ---- the library's side ------------------------------------------------

struct ours {
    cfg *ctx = cfg_create_new_config(nullptr);
    cfg_schema *schema = ctx->schema;

    ours()
    {
        // The client's hooks, as a connected program's context has them;
        // every element is held, so nothing is fetched.
        ctx->get_by_id = client_cfg_get_by_id;
        ctx->get_by_ids = client_cfg_get_by_ids;
        json_t *doc = json_loads(schema_document, 0, nullptr);
        cfg_apply_schema(ctx, json_object_get(doc, "nodes"), json_object_get(doc, "types"),
                         json_object_get(doc, "root"));
        json_decref(doc);
    }
    ~ours()
    {
        cfg_free_config(&ctx);
        cfg_free_schema(nullptr, &schema);
    }
    ours(const ours &) = delete;
    ours &operator=(const ours &) = delete;

    // json_loads of the answer and json_to_elem of each element, releasing
    // each element's JSON once loaded as the client does with an answer;
    // the times of both steps.
    void load(const std::string &answer, double &parse_ms, double &decode_ms)
    {
        auto start = clock_type::now();
        json_t *doc = json_loads(answer.c_str(), 0, nullptr);
        parse_ms = ms_since(start);
        start = clock_type::now();
        json_t *data = json_object_get(doc, "data");
        for (size_t i = 0; i < json_array_size(data); i++) {
            json_to_elem(ctx, json_array_get(data, i));
            json_array_set_new(data, i, json_null());
        }
        decode_ms = ms_since(start);
        json_decref(doc);
    }
    // The least that any changed-data validation costs: a walk over every
    // index entry reading its element's flags, in ms.
    double flag_walk_ms() const
    {
        auto start = clock_type::now();
        size_t flagged = 0;
        for (cfg_index_entry *e = ctx->elements; e != nullptr;
             e = static_cast<cfg_index_entry *>(e->hh.next))
            flagged += e->element->flags != 0;
        double spent = ms_since(start);
        return flagged == SIZE_MAX ? 0 : spent; // keeps the walk from being optimised away
    }
    void clear_flags()
    {
        for (cfg_index_entry *e = ctx->elements; e != nullptr;
             e = static_cast<cfg_index_entry *>(e->hh.next))
            e->element->flags &= ~(CFG_FLAG_NEW | CFG_FLAG_CHANGED | CFG_FLAG_DELETED);
    }
    bool edit_mode(unsigned index)
    {
        cfg_element *map = cfg_simple_get_by_path(ctx, "network.conns[%u]", index);
        cfg_element *mode = cfg_simple_get_by_path(ctx, "network.conns[%u].mode", index);
        return cfg_set_string(ctx, mode, "static") != nullptr &&
               cfg_map_set_string(ctx, map, "address", "172.16.0.1") != nullptr &&
               cfg_map_set_int(ctx, map, "netmask", 16) != nullptr;
    }
    bool rename(unsigned index)
    {
        cfg_element *name = cfg_simple_get_by_path(ctx, "network.conns[%u].name", index);
        return cfg_set_string(ctx, name, ("renamed" + std::to_string(index)).c_str()) != nullptr;
    }
};

// The heap held by the context's elements, split into the records the
// interface lays out (element heads, index entries, links, values) and the
// trigger tables that validation keeps; the rest of what the context holds
// is the library's private bookkeeping.
struct heap_split {
    size_t elements = 0, public_bytes = 0, validation_bytes = 0;
};

size_t links_bytes(cfg_link *head)
{
    size_t bytes = 0;
    for (cfg_link *n = head; n != nullptr; n = n->next) {
        auto *link = static_cast<cfg_parent_link *>(n->data);
        bytes += block(n) + block(link) + (link->type == CFG_TYPE_MAP ? block(link->name) : 0);
    }
    return bytes;
}

size_t element_bytes(const cfg_element *e)
{
    size_t bytes = sizeof(cfg_element) + sizeof(cfg_index_entry) + links_bytes(e->parents) +
                   block(e->future_parent);
    switch (e->type) {
    case CFG_TYPE_STRING:
    case CFG_TYPE_REFERENCE: return bytes + block(e->value.string_value);
    case CFG_TYPE_BLOB: return bytes + block(e->value.blob.data);
    case CFG_TYPE_LIST:
        return bytes + links_bytes(e->value.list.members) +
               links_bytes(e->value.list.future_members);
    case CFG_TYPE_MAP: return bytes + links_bytes(e->value.map.members);
    default: return bytes;
    }
}

template <typename R> size_t trigger_bytes(R *table, cfg_link *R::*list, bool owns_data)
{
    size_t bytes = 0;
    for (R *r = table; r != nullptr; r = static_cast<R *>(r->hh.next)) {
        bytes += block(r);
        for (cfg_link *n = r->*list; n != nullptr; n = n->next)
            bytes += block(n) + (owns_data ? block(n->data) : 0);
    }
    return bytes;
}

heap_split split_heap(cfg *ctx)
{
    heap_split split;
    for (cfg_index_entry *e = ctx->elements; e != nullptr;
         e = static_cast<cfg_index_entry *>(e->hh.next)) {
        split.elements++;
        split.public_bytes += element_bytes(e->element);
    }
    split.validation_bytes =
        trigger_bytes(ctx->uuid_triggers, &cfg_uuid_trigger::dependents, true) +
        trigger_bytes(ctx->path_triggers, &cfg_path_trigger::dependents, true) +
        trigger_bytes(ctx->pattern_triggers, &cfg_pattern_trigger::dependents, true) +
        trigger_bytes(ctx->reverse_triggers, &cfg_reverse_trigger::triggered_by, true);
    return split;
}

// ---- libyang's side ----------------------------------------------------

struct theirs {
    ly_ctx *ctx = nullptr;
    lyd_node *tree = nullptr;

    theirs()
    {
        ly_log_options(LY_LOSTORE_LAST);
        ly_ctx_new(nullptr, 0, &ctx);
        std::ifstream in(std::string(ZR_SOURCE_DIR) + "/bench/peers/zr-bench-appliance.yang");
        std::string module((std::istreambuf_iterator<char>(in)), {});
        if (lys_parse_mem(ctx, module.c_str(), LYS_IN_YANG, nullptr) != LY_SUCCESS)
            fprintf(stderr, "the YANG module does not load: %s\n", ly_errmsg(ctx));
    }
    ~theirs()
    {
        lyd_free_all(tree);
        ly_ctx_destroy(ctx);
    }
    theirs(const theirs &) = delete;
    theirs &operator=(const theirs &) = delete;

    bool parse(const std::string &text, bool validate)
    {
        lyd_free_all(tree);
        tree = nullptr;
        return lyd_parse_data_mem(ctx, text.c_str(), LYD_JSON,
                                  LYD_PARSE_STRICT | (validate ? 0 : LYD_PARSE_ONLY),
                                  validate ? LYD_VALIDATE_PRESENT : 0, &tree) == LY_SUCCESS;
    }
    bool validate() { return lyd_validate_all(&tree, ctx, LYD_VALIDATE_PRESENT, nullptr) == LY_SUCCESS; }
    lyd_node *leaf(unsigned index, const char *name)
    {
        std::string path = "/zr-bench-appliance:network/conns[id='" + std::to_string(index) +
                           "']/" + name;
        lyd_node *match = nullptr;
        lyd_find_path(tree, path.c_str(), 0, &match);
        return match;
    }
    bool edit_mode(unsigned index)
    {
        std::string entry =
            "/zr-bench-appliance:network/conns[id='" + std::to_string(index) + "']/";
        return lyd_change_term(leaf(index, "mode"), "static") == LY_SUCCESS &&
               lyd_new_path(tree, ctx, (entry + "address").c_str(), "172.16.0.1", 0, nullptr) ==
                   LY_SUCCESS &&
               lyd_new_path(tree, ctx, (entry + "netmask").c_str(), "16", 0, nullptr) ==
                   LY_SUCCESS;
    }
    bool rename(unsigned index)
    {
        return lyd_change_term(leaf(index, "name"),
                               ("renamed" + std::to_string(index)).c_str()) == LY_SUCCESS;
    }
};

void quiet_log(int, const char *, const char *, int, const char *, void *) {}

// ---- verdicts, then timings --------------------------------------------

bool check_verdicts()
{
    const std::pair<fault, const char *> cases[] = {
        {fault::none, "valid data"},          {fault::bad_range, "mtu out of range"},
        {fault::bad_pattern, "bad name"},     {fault::bad_enum, "bad mode"},
        {fault::duplicate_name, "duplicate"}, {fault::address_on_dhcp, "address on dhcp"},
    };
    bool agree = true;
    for (const auto &[planted, what] : cases) {
        std::vector<entry> entries = make_entries(1000, planted);
        ours o;
        double parse_ms, decode_ms;
        o.load(daemon_answer(entries), parse_ms, decode_ms);
        bool our_verdict = cfg_validate_data(o.ctx) == 1;
        theirs t;
        bool their_verdict = t.parse(yang_json(entries), true);
        bool expected = planted == fault::none;
        printf("verdict %-16s ours %-8s libyang %s\n", what, our_verdict ? "accepts" : "refuses",
               their_verdict ? "accepts" : "refuses");
        agree = agree && our_verdict == expected && their_verdict == expected;
    }
    return agree;
}

struct row {
    const char *step;
    double ours, theirs;
};

void print_rows(unsigned n, const std::vector<row> &rows)
{
    printf("\nn = %u entries (times: this thread's CPU time)\n%-44s %12s %12s %8s\n", n, "step",
           "libzrconfig", "libyang", "ratio");
    for (const row &r : rows)
        printf("%-44s %12.2f %12.2f %7.2fx\n", r.step, r.ours, r.theirs,
               r.theirs > 0 ? r.ours / r.theirs : 0.0);
}

// What one side measured; each side runs in a child process of its own, so
// that neither finds the heap as the other left it.
struct ours_measured {
    double parse = 0, decode = 0, full = 0, mode_after_full = 0, rename = 0, mode_clean = 0,
           heap = 0, flag_walk = 0;
    heap_split loaded, split; // after load, after full validation
    size_t loaded_bytes = 0, heap_bytes = 0;
    bool ok = false;
};
struct theirs_measured {
    double parse = 0, full = 0, mode = 0, rename = 0, parse_validate = 0, heap = 0;
    bool ok = false;
};

// Runs measure in a child process and returns what it wrote back; a child
// that fails leaves the value as made.
template <typename T, typename Measure> T in_child(Measure measure)
{
    T result{};
    int pipe_fds[2];
    if (pipe(pipe_fds) != 0)
        return result;
    pid_t pid = fork();
    if (pid == 0) {
        close(pipe_fds[0]);
        T measured = measure();
        ssize_t written = write(pipe_fds[1], &measured, sizeof measured);
        _exit(written == static_cast<ssize_t>(sizeof measured) ? 0 : 1);
    }
    close(pipe_fds[1]);
    if (pid > 0) {
        if (read(pipe_fds[0], &result, sizeof result) != static_cast<ssize_t>(sizeof result))
            result = T{};
        waitpid(pid, nullptr, 0);
    }
    close(pipe_fds[0]);
    return result;
}

ours_measured measure_ours(unsigned n, const std::string &answer, unsigned edited,
                           unsigned renamed)
{
    ours_measured m;
    size_t heap_before = heap_in_use();
    ours o;
    o.load(answer, m.parse, m.decode);
    m.loaded_bytes = heap_in_use() - heap_before;
    m.loaded = split_heap(o.ctx);
    auto start = clock_type::now();
    m.ok = cfg_validate_data(o.ctx);
    m.full = ms_since(start);
    m.heap_bytes = heap_in_use() - heap_before;
    m.heap = static_cast<double>(m.heap_bytes) / n;
    m.split = split_heap(o.ctx);
    start = clock_type::now();
    m.ok = o.edit_mode(edited) && cfg_validate_changed_data(o.ctx) && m.ok;
    m.mode_after_full = ms_since(start);
    o.clear_flags();
    start = clock_type::now();
    m.ok = o.rename(renamed) && cfg_validate_changed_data(o.ctx) && m.ok;
    m.rename = ms_since(start);
    o.clear_flags();
    start = clock_type::now();
    m.ok = o.edit_mode(edited + 2) && cfg_validate_changed_data(o.ctx) && m.ok;
    m.mode_clean = ms_since(start);
    m.flag_walk = o.flag_walk_ms();
    return m;
}

theirs_measured measure_theirs(unsigned n, const std::string &yang, unsigned edited,
                               unsigned renamed)
{
    theirs_measured m;
    size_t heap_before = heap_in_use();
    theirs t;
    auto start = clock_type::now();
    m.ok = t.parse(yang, false);
    m.parse = ms_since(start);
    start = clock_type::now();
    m.ok = t.validate() && m.ok;
    m.full = ms_since(start);
    m.heap = static_cast<double>(heap_in_use() - heap_before) / n;
    start = clock_type::now();
    m.ok = t.edit_mode(edited) && t.validate() && m.ok;
    m.mode = ms_since(start);
    start = clock_type::now();
    m.ok = t.rename(renamed) && t.validate() && m.ok;
    m.rename = ms_since(start);
    theirs t2;
    start = clock_type::now();
    m.ok = t2.parse(yang, true) && m.ok;
    m.parse_validate = ms_since(start);
    return m;
}

// The median of field over the runs; the first run's record otherwise
// (heap figures, which do not vary).
template <typename T>
T medians(const std::vector<T> &runs, std::initializer_list<double T::*> fields)
{
    T result = runs.front();
    for (double T::*field : fields) {
        std::vector<double> values;
        for (const T &r : runs)
            values.push_back(r.*field);
        std::sort(values.begin(), values.end());
        const size_t middle = values.size() / 2;
        result.*field = values.size() % 2 == 1 ? values[middle]
                                               : (values[middle - 1] + values[middle]) / 2;
    }
    for (const T &r : runs)
        result.ok = result.ok && r.ok;
    return result;
}

// Each side runs repeat times, the two sides in turn, so that a change in
// the machine's pace meets both; every time printed is a median.
void run(unsigned n, unsigned repeat)
{
    std::vector<entry> entries = make_entries(n, fault::none);
    const std::string answer = daemon_answer(entries), yang = yang_json(entries);
    const unsigned edited = n / 2 + 1, renamed = n / 3;
    std::vector<ours_measured> our_runs;
    std::vector<theirs_measured> their_runs;
    for (unsigned r = 0; r < repeat; r++) {
        our_runs.push_back(in_child<ours_measured>(
            [&] { return measure_ours(n, answer, edited, renamed); }));
        their_runs.push_back(in_child<theirs_measured>(
            [&] { return measure_theirs(n, yang, edited, renamed); }));
    }
    const ours_measured o =
        medians(our_runs, {&ours_measured::parse, &ours_measured::decode, &ours_measured::full,
                           &ours_measured::mode_after_full, &ours_measured::rename,
                           &ours_measured::mode_clean, &ours_measured::flag_walk});
    const theirs_measured t =
        medians(their_runs, {&theirs_measured::parse, &theirs_measured::full,
                             &theirs_measured::mode, &theirs_measured::rename,
                             &theirs_measured::parse_validate});

    print_rows(n, {
        {"load, ms (ours: json_loads + json_to_elem)", o.parse + o.decode, t.parse},
        {"  of which json_loads / json_to_elem, ms", o.parse, o.decode},
        {"full validation, ms", o.full, t.full},
        {"full validation vs parse + validate, ms", o.full, t.parse_validate},
        {"mode edit + revalidate, flags clean, ms", o.mode_clean, t.mode},
        {"mode edit + revalidate, after full, ms", o.mode_after_full, t.mode},
        {"rename + revalidate, ms", o.rename, t.rename},
        {"heap after load and validation, B/entry", o.heap, t.heap},
    });
    // What loading left beside the public records is the private bookkeeping
    // of the tree, taken at the same rate for the elements validation added;
    // the rest of what validation added beside its records and trigger
    // tables is its private state (memos, tallies, lists' records of changes).
    const heap_split &split = o.split;
    auto per_element = [&](double bytes) {
        return split.elements > 0 ? bytes / static_cast<double>(split.elements) : 0.0;
    };
    const double bookkeeping =
        o.loaded.elements > 0
            ? static_cast<double>(o.loaded_bytes - o.loaded.public_bytes) / o.loaded.elements *
                  static_cast<double>(split.elements)
            : 0.0;
    const double validation_private = static_cast<double>(o.heap_bytes - split.public_bytes -
                                                          split.validation_bytes) -
                                      bookkeeping;
    printf("ours per element (%zu elements): %.0f B public records, %.0f B private"
           " bookkeeping, %.0f B validation state (%.0f B trigger tables, %.0f B private)\n",
           split.elements, per_element(static_cast<double>(split.public_bytes)),
           per_element(bookkeeping),
           per_element(static_cast<double>(split.validation_bytes) + validation_private),
           per_element(static_cast<double>(split.validation_bytes)),
           per_element(validation_private));
    printf("ours: the walk over every index entry's flags, which every changed-data"
           " validation makes, %.2f ms\n",
           o.flag_walk);
    if (!o.ok || !t.ok)
        printf("warning: a step failed (ours %s, libyang %s)\n", o.ok ? "ok" : "FAILED",
               t.ok ? "ok" : "FAILED");
}

} // namespace

int main(int argc, char **argv)
{
    // The default sinks take lines up to notice; so does this one.
    zrlog_set_handler(quiet_log, nullptr);
    zrlog_set_handler_ceiling(LOG_NOTICE);
    mallopt(M_TRIM_THRESHOLD, -1);
    if (!check_verdicts()) {
        printf("the two disagree on what is valid; no timings\n");
        return 1;
    }
    std::vector<unsigned> sizes;
    unsigned repeat = 3;
    for (int i = 1; i < argc; i++) {
        if (strncmp(argv[i], "--repeat=", 9) == 0)
            repeat = std::max(1u, static_cast<unsigned>(strtoul(argv[i] + 9, nullptr, 10)));
        else
            sizes.push_back(static_cast<unsigned>(strtoul(argv[i], nullptr, 10)));
    }
    if (sizes.empty())
        sizes = {1000, 10000, 100000};
    printf("each time below: the median of %u runs, ours and libyang's in turn\n", repeat);
    for (unsigned n : sizes)
        run(n, repeat);
    return 0;
}
