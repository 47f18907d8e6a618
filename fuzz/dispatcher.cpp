// Whole request objects into the daemon's dispatcher, for one session of a
// daemon whose store lives in a temporary directory made once per process
// and created from the example appliance. Subscriptions are left out: they
// would run programs.
#include "support.h"

#include "server.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

struct daemon_state {
    std::string dir;
    zrd::options opts;
    std::unique_ptr<zrd::store> db;
    std::unique_ptr<zrd::model> model;
    std::unique_ptr<zrd::server> server;
    zrd::session session;

    daemon_state()
    {
        char pattern[] = "/dev/shm/zrfuzz-XXXXXX";
        char fallback[] = "/tmp/zrfuzz-XXXXXX";
        const char *made = mkdtemp(pattern);
        dir = made != nullptr ? made : mkdtemp(fallback);
        opts.db_path = dir + "/config.db";
        std::string error;
        db = zrd::store::open(opts.db_path, error);
        model = std::make_unique<zrd::model>(*db);
        zrfuzz::json_handle config(json_load_file(ZRFUZZ_EXAMPLES "/config.json", 0, nullptr));
        if (!model->create(zrfuzz::schema_document(), config.get(), error)) {
            fprintf(stderr, "fuzz: the daemon model does not build: %s\n", error.c_str());
            abort();
        }
        server = std::make_unique<zrd::server>(opts, *model, *db);
        session.id = 1;
    }
    ~daemon_state()
    {
        server.reset();
        model.reset();
        db.reset();
        for (const char *suffix : {"", "-wal", "-shm"})
            unlink((opts.db_path + suffix).c_str());
        rmdir(dir.c_str());
    }
};

daemon_state &daemon()
{
    static daemon_state state;
    return state;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    zrfuzz::json_handle request = zrfuzz::parse(data, size);
    if (request == nullptr)
        return 0;
    const char *method = json_string_value(json_object_get(request.get(), "method"));
    if (method != nullptr && strcmp(method, "subscribe") == 0)
        return 0;
    daemon_state &d = daemon();
    bool end = false;
    json_decref(d.server->handle(d.session, request.get(), end));
    return 0;
}
