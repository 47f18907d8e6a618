// Lists of many members: the cost per member of building one, loading it
// from element JSON, walking it by index and deleting it should not grow
// with its length. A list built here remembers its members, so the walks
// make no lookups; a loaded one resolves each member once, on its first walk.
#include "zrconfig.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <malloc.h>
#include <string>
#include <vector>

namespace {

cfg *new_context()
{
    cfg *context = cfg_create_new_config(nullptr);
    context->get_by_id = cfg_find_by_id; // a context without a daemon
    return context;
}

void free_context(cfg *context)
{
    cfg_schema *schema = context->schema;
    cfg_free_config(&context);
    cfg_free_schema(nullptr, &schema);
}

// Fresh uuids made once for the whole run: making one costs ~20 us, which
// would otherwise swamp the set-up of every case.
const char *member_uuid(size_t i)
{
    static std::vector<std::string> made;
    char uuid[CFG_UUID_SIZE];
    while (made.size() <= i) {
        gen_uuid(uuid);
        made.emplace_back(uuid);
    }
    return made[i].c_str();
}

// root-1 { rules: [ n integers ] }, made locally; the members get fresh
// uuids, or the run's premade ones when `premade` is set.
cfg_element *build_list(cfg *context, int64_t members, bool premade = true)
{
    cfg_element *root = cfg_new_map_with_id(context, "root-1");
    cfg_element *list = cfg_new_list(context);
    cfg_add_mapelem(context, root, "rules", list);
    for (int64_t i = 0; i < members; i++) {
        int value = static_cast<int>(i);
        cfg_element *member =
            premade ? cfg_new_int_with_id(context, value, member_uuid(static_cast<size_t>(i)))
                    : cfg_new_int(context, value);
        cfg_add_listelem(context, list, member);
    }
    return list;
}

// The daemon's answer text for a list: the element objects of the root,
// the list and its members.
std::string list_answer(int64_t members)
{
    cfg *context = new_context();
    build_list(context, members);
    json_t *data = json_array();
    for (cfg_index_entry *e = context->elements; e != nullptr;
         e = static_cast<cfg_index_entry *>(e->hh.next))
        json_array_append_new(data, elem_to_json(e->element));
    char *text = json_dumps(data, JSON_COMPACT);
    std::string answer(text);
    free(text);
    json_decref(data);
    free_context(context);
    return answer;
}

void load_all(cfg *context, json_t *data)
{
    size_t i;
    json_t *object;
    json_array_foreach(data, i, object)
        benchmark::DoNotOptimize(json_to_elem(context, object));
}

void per_member(benchmark::State &state)
{
    state.counters["per_member"] =
        benchmark::Counter(static_cast<double>(state.range(0)),
                           benchmark::Counter::kIsIterationInvariantRate |
                               benchmark::Counter::kInvert);
}

// Building as a client does, each member with a fresh uuid (most of the
// cost), and with the uuids given.
void build_case(benchmark::State &state, bool premade)
{
    member_uuid(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        cfg *context = new_context();
        benchmark::DoNotOptimize(build_list(context, state.range(0), premade));
        state.PauseTiming();
        free_context(context);
        state.ResumeTiming();
    }
    per_member(state);
}

void BM_BuildList(benchmark::State &state)
{
    build_case(state, false);
}

void BM_BuildListNamed(benchmark::State &state)
{
    build_case(state, true);
}

// json_to_elem alone, over the element objects of one decoded answer. At
// 10k members and more the decoded objects (about 1 KB each) no longer fit
// the caches, and reading them becomes most of the cost.
void BM_LoadListJson(benchmark::State &state)
{
    json_t *data = json_loads(list_answer(state.range(0)).c_str(), 0, nullptr);
    for (auto _ : state) {
        cfg *context = new_context();
        load_all(context, data);
        state.PauseTiming();
        free_context(context);
        state.ResumeTiming();
    }
    json_decref(data);
    per_member(state);
}

// Reference: only the reads json_to_elem makes of a decoded answer, without
// loading anything. What this costs per member is Jansson's and the
// caches', and it is part of the row above.
void read_fields(json_t *object)
{
    for (const char *key : {"type", "id", "value", "generation", "schema"})
        benchmark::DoNotOptimize(json_object_get(object, key));
    benchmark::DoNotOptimize(json_string_value(json_object_get(object, "id")));
    benchmark::DoNotOptimize(json_integer_value(json_object_get(object, "value")));
    size_t i;
    json_t *parent;
    json_array_foreach(json_object_get(object, "parents"), i, parent)
        for (const char *key : {"type", "list", "index"})
            benchmark::DoNotOptimize(json_object_get(parent, key));
}

void BM_ReadDecodedAnswer(benchmark::State &state)
{
    json_t *data = json_loads(list_answer(state.range(0)).c_str(), 0, nullptr);
    for (auto _ : state) {
        size_t i;
        json_t *object;
        json_array_foreach(data, i, object)
            read_fields(object);
    }
    json_decref(data);
    per_member(state);
}

// A whole list in one daemon answer, from its text to the loaded elements,
// as a client receives it: Jansson's decoding and release are timed too.
void BM_LoadListAnswer(benchmark::State &state)
{
    std::string answer = list_answer(state.range(0));
    for (auto _ : state) {
        cfg *context = new_context();
        json_t *data = json_loads(answer.c_str(), 0, nullptr);
        load_all(context, data);
        json_decref(data);
        state.PauseTiming();
        free_context(context);
        state.ResumeTiming();
    }
    per_member(state);
}

void BM_WalkByIndex(benchmark::State &state)
{
    cfg *context = new_context();
    int64_t members = state.range(0);
    build_list(context, members);
    char path[64];
    for (auto _ : state) {
        for (int64_t i = 0; i < members; i++) {
            snprintf(path, sizeof path, "rules[%lld]", static_cast<long long>(i));
            benchmark::DoNotOptimize(cfg_get_by_path(context, path));
        }
    }
    free_context(context);
    per_member(state);
}

// Deleting the list marks it and every member deleted, in one pass.
void BM_DeleteList(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        cfg *context = new_context();
        cfg_element *list = build_list(context, state.range(0));
        state.ResumeTiming();
        cfg_delete_element(context, list);
        state.PauseTiming();
        free_context(context);
        state.ResumeTiming();
    }
    per_member(state);
}

// Reference: the uuid index alone, looked up once per member in list order.
// Its cost per member grows with the working set as the records and the
// index leave the caches, and bounds what the walks above can reach.
void BM_IndexLookup(benchmark::State &state)
{
    cfg *context = new_context();
    cfg_element *list = build_list(context, state.range(0));
    std::vector<const char *> uuids;
    for (cfg_link *n = list->value.list.members; n != nullptr; n = n->next)
        uuids.push_back(static_cast<cfg_parent_link *>(n->data)->uuid);
    for (auto _ : state)
        for (const char *uuid : uuids)
            benchmark::DoNotOptimize(cfg_find_by_id(context, uuid));
    free_context(context);
    per_member(state);
}

} // namespace

BENCHMARK(BM_BuildList)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BuildListNamed)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadListJson)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadDecodedAnswer)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadListAnswer)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WalkByIndex)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DeleteList)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IndexLookup)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

// Freed memory stays with the process: otherwise glibc hands the top of the
// heap back after each case's release and the next case pays page faults
// that depend on where earlier cases left their memory.
int main(int argc, char **argv)
{
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
