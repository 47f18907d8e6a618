// Lists of many members: the cost per member of building one, loading it
// from element JSON and walking it by index should not grow with its length.
#include "zrconfig.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

cfg_element *local_lookup(cfg *context, const char *uuid)
{
    return cfg_find_by_id(context, uuid);
}

cfg *new_context()
{
    cfg *context = cfg_create_new_config(nullptr);
    context->get_by_id = local_lookup;
    return context;
}

void free_context(cfg *context)
{
    cfg_schema *schema = context->schema;
    cfg_free_config(&context);
    cfg_free_schema(nullptr, &schema);
}

// root-1 { rules: [ n integers ] }, made locally.
cfg_element *build_list(cfg *context, int64_t members)
{
    cfg_element *root = cfg_new_map_with_id(context, "root-1");
    cfg_element *list = cfg_new_list(context);
    cfg_add_mapelem(context, root, "rules", list);
    for (int64_t i = 0; i < members; i++)
        cfg_add_listelem(context, list, cfg_new_int(context, static_cast<int>(i)));
    return list;
}

// The element objects of a list and its members as the daemon sends them.
std::vector<json_t *> list_as_json(int64_t members)
{
    cfg *context = new_context();
    build_list(context, members);
    std::vector<json_t *> objects;
    for (cfg_index_entry *e = context->elements; e != nullptr;
         e = static_cast<cfg_index_entry *>(e->hh.next))
        objects.push_back(elem_to_json(e->element));
    free_context(context);
    return objects;
}

void per_member(benchmark::State &state)
{
    state.counters["per_member"] =
        benchmark::Counter(static_cast<double>(state.range(0)),
                           benchmark::Counter::kIsIterationInvariantRate |
                               benchmark::Counter::kInvert);
}

void BM_BuildList(benchmark::State &state)
{
    for (auto _ : state) {
        cfg *context = new_context();
        benchmark::DoNotOptimize(build_list(context, state.range(0)));
        state.PauseTiming();
        free_context(context);
        state.ResumeTiming();
    }
    per_member(state);
}

void BM_LoadListJson(benchmark::State &state)
{
    std::vector<json_t *> objects = list_as_json(state.range(0));
    for (auto _ : state) {
        cfg *context = new_context();
        for (json_t *object : objects)
            benchmark::DoNotOptimize(json_to_elem(context, object));
        state.PauseTiming();
        free_context(context);
        state.ResumeTiming();
    }
    for (json_t *object : objects)
        json_decref(object);
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
BENCHMARK(BM_LoadListJson)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WalkByIndex)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DeleteList)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IndexLookup)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
