// Paths: walking them, printf-style access, map readers by path, rendering an
// element's path from its parent links, writing Blob elements to files, and
// the text dump.
#define ZR_SOURCE "src/simple"
#include "internal.h"
#include "common.h"
#include "data.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <libgen.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

bool is_type(const cfg_element *element, unsigned int type)
{
    return element != nullptr && element->type == type;
}

cfg_parent_link *record_of(cfg_link *node)
{
    return static_cast<cfg_parent_link *>(node->data);
}

using step_result = std::pair<cfg_element *, const char *>;

// "(uuid)...": the element with that uuid and the rest after ")".
step_result step_by_uuid(cfg *context, const char *rest)
{
    const char *close = strchr(rest, ')');
    if (close == nullptr)
        return {nullptr, nullptr};
    std::string uuid(rest + 1, close);
    return {cfg_get_by_id(context, uuid.c_str()), close + 1};
}

// "[n]..." on a list: the member at position n (below 0 counts as 0).
step_result step_by_position(cfg *context, cfg_element *list, const char *rest)
{
    if (rest[0] != '[')
        return {nullptr, nullptr};
    const char *close = strchr(rest, ']');
    if (close == nullptr)
        return {nullptr, nullptr};
    long position = strtol(std::string(rest + 1, close).c_str(), nullptr, 10);
    if (position < 0)
        position = 0;
    if (position > INT32_MAX)
        return {nullptr, nullptr};
    return {zr::list_member(context, list, static_cast<size_t>(position)), close + 1};
}

// "key..." on a map: dots before the key are skipped; a "." after it is
// consumed, a "[" is left for the next step.
step_result step_by_key(cfg *context, cfg_element *map, const char *rest)
{
    if (rest[0] == '[')
        return {nullptr, nullptr};
    while (*rest == '.')
        rest++;
    size_t length = strcspn(rest, ".[");
    std::string key(rest, length);
    rest += length;
    if (*rest == '.')
        rest++;
    const char *uuid = cfg_get_mapelem(map, key.c_str());
    if (uuid == nullptr)
        return {nullptr, nullptr};
    return {cfg_get_by_id(context, uuid), rest};
}

} // namespace

extern "C" cfg_element *cfg_get_child_by_path(cfg *context, cfg_element *start,
                                              const char *path)
{
    if (context == nullptr || start == nullptr || path == nullptr)
        return nullptr;
    std::string copy(path);
    cfg_element *current = start;
    const char *rest = copy.c_str();
    while (current != nullptr) {
        if (rest[0] == '\0' || strcmp(rest, ".") == 0)
            return current;
        step_result step;
        if (rest[0] == '(')
            step = step_by_uuid(context, rest);
        else if (current->type == CFG_TYPE_LIST)
            step = step_by_position(context, current, rest);
        else if (current->type == CFG_TYPE_MAP)
            step = step_by_key(context, current, rest);
        else
            return nullptr;
        current = step.first;
        rest = step.second;
        if (current != nullptr && rest[0] == '\0')
            return current;
    }
    return nullptr;
}

extern "C" cfg_element *cfg_get_by_path(cfg *context, const char *path)
{
    if (path != nullptr && path[0] == '\0')
        return cfg_root(context);
    return cfg_get_child_by_path(context, cfg_root(context), path);
}

// ---- printf-style access ----

namespace {

// The formatted-path buffer shared by every context of the process.
struct path_buffer {
    char *text = nullptr;
    size_t size = 0;
    ~path_buffer() { free(text); }
};
path_buffer formatted_path;

// Grows the buffer to hold needed bytes: rounded down to 128, plus 128.
bool grow_path_buffer(size_t needed)
{
    if (needed <= formatted_path.size)
        return true;
    size_t size = needed / 128 * 128 + 128;
    auto *text = static_cast<char *>(realloc(formatted_path.text, size));
    if (text == nullptr)
        return false;
    memset(text + formatted_path.size, 0, size - formatted_path.size);
    formatted_path.text = text;
    formatted_path.size = size;
    return true;
}

} // namespace

extern "C" cfg_element *cfg_simple_get_by_path_va(cfg *context, char **path_out,
                                                  const char *format, va_list args)
{
    if (path_out != nullptr)
        *path_out = nullptr;
    if (format == nullptr)
        return nullptr;
    va_list measure;
    va_copy(measure, args);
    int length = vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (length < 0) {
        cfg_message_add_unexpected(context, "src/simple", 48);
        return nullptr;
    }
    if (!grow_path_buffer(static_cast<size_t>(length) + 1)) {
        cfg_message_add_unexpected(context, "src/simple", 55);
        return nullptr;
    }
    if (vsnprintf(formatted_path.text, formatted_path.size, format, args) < 0) {
        cfg_message_add_unexpected(context, "src/simple", 61);
        return nullptr;
    }
    if (path_out != nullptr)
        *path_out = formatted_path.text;
    cfg_element *element = cfg_get_by_path(context, formatted_path.text);
    if (element == nullptr)
        cfg_message_add_path_not_found(context, formatted_path.text);
    return element;
}

extern "C" cfg_element *cfg_simple_get_by_path(cfg *context, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    cfg_element *element = cfg_simple_get_by_path_va(context, nullptr, format, args);
    va_end(args);
    return element;
}

namespace {

// Finds the element and reads it with read; a missing path is reported once
// more on top of the report of the lookup.
template <typename Read>
int simple_value(cfg *context, const char *format, va_list args, Read read)
{
    char *path = nullptr;
    cfg_element *element = cfg_simple_get_by_path_va(context, &path, format, args);
    if (element == nullptr) {
        if (path != nullptr)
            cfg_message_add_path_not_found(context, path);
        return 0;
    }
    return read(element);
}

} // namespace

extern "C" int cfg_simple_string_value_by_path(cfg *context, char **out, const char *format,
                                               ...)
{
    va_list args;
    va_start(args, format);
    int found = simple_value(context, format, args,
                             [&](cfg_element *e) { return cfg_string_value(e, out); });
    va_end(args);
    return found;
}

extern "C" int cfg_simple_bool_value_by_path(cfg *context, int *out, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    int found = simple_value(context, format, args,
                             [&](cfg_element *e) { return cfg_bool_value(e, out); });
    va_end(args);
    return found;
}

extern "C" int cfg_simple_int_value_by_path(cfg *context, int *out, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    int found = simple_value(context, format, args,
                             [&](cfg_element *e) { return cfg_int_value(e, out); });
    va_end(args);
    return found;
}

extern "C" cfg_element *cfg_simple_get_listelem(cfg *context, cfg_element *list,
                                                unsigned int index)
{
    if (list == nullptr || index > INT32_MAX)
        return nullptr;
    return zr::list_member(context, list, index);
}

extern "C" cfg_element *cfg_simple_get_mapelem(cfg *context, cfg_element *map,
                                               const char *key)
{
    if (map == nullptr)
        return nullptr;
    const char *uuid = cfg_get_mapelem(map, key);
    return uuid != nullptr ? cfg_get_by_id(context, uuid) : nullptr;
}

// ---- Map readers by path ----

namespace {

// Reads the element at path below start with read; when there is none, *out
// is cleared and 0 is returned.
template <typename T>
int map_get(cfg *context, cfg_element *start, const char *path, T *out,
            int (*read)(cfg_element *, T *))
{
    cfg_element *element =
        path != nullptr ? cfg_get_child_by_path(context, start, path) : nullptr;
    if (element == nullptr) {
        if (out != nullptr)
            *out = T{};
        return 0;
    }
    return read(element, out);
}

} // namespace

extern "C" int cfg_map_get_string(cfg *context, cfg_element *start, const char *path,
                                  char **out)
{
    return map_get(context, start, path, out, cfg_string_value);
}

extern "C" int cfg_map_get_bool(cfg *context, cfg_element *start, const char *path, int *out)
{
    return map_get(context, start, path, out, cfg_bool_value);
}

extern "C" int cfg_map_get_reference(cfg *context, cfg_element *start, const char *path,
                                     char **out)
{
    return map_get(context, start, path, out, cfg_reference_value);
}

extern "C" int cfg_map_get_int(cfg *context, cfg_element *start, const char *path, int *out)
{
    return map_get(context, start, path, out, cfg_int_value);
}

extern "C" int cfg_map_get_blob(cfg *context, cfg_element *start, const char *path,
                                void **out, size_t *size)
{
    cfg_element *element =
        path != nullptr ? cfg_get_child_by_path(context, start, path) : nullptr;
    if (element == nullptr) {
        if (out != nullptr)
            *out = nullptr;
        if (size != nullptr)
            *size = 0;
        return 0;
    }
    return cfg_blob_value(element, out, size);
}

// ---- Rendering paths ----

extern "C" cfg_parent_link *cfg_get_most_solid_parent_link(cfg_element *element)
{
    if (element == nullptr)
        return nullptr;
    cfg_parent_link *candidate = nullptr;
    for (cfg_link *n = element->parents; n != nullptr; n = n->next) {
        cfg_parent_link *link = record_of(n);
        bool held_by_map = candidate != nullptr && candidate->type == CFG_TYPE_MAP;
        if (link->type == CFG_TYPE_MAP || (link->type == CFG_TYPE_LIST && !held_by_map) ||
            (link->type == CFG_TYPE_REFERENCE && candidate == nullptr))
            candidate = link;
    }
    if (candidate != nullptr && candidate->type != CFG_TYPE_REFERENCE)
        return candidate;
    return element->future_parent != nullptr ? element->future_parent : candidate;
}

namespace {

// The stable number of a list member: the trailing digits of an id made by
// the daemon, or the position + 100000000 for an id made here ("{...}").
long static_number(const char *uuid, unsigned int position)
{
    if (uuid[0] == '{')
        return static_cast<long>(position) + 100000000L;
    size_t end = strlen(uuid);
    size_t start = end;
    while (start > 0 && uuid[start - 1] >= '0' && uuid[start - 1] <= '9')
        start--;
    return strtol(uuid + start, nullptr, 10);
}

} // namespace

extern "C" int cfg_get_path_basename_from_link(cfg *, const char *uuid,
                                               cfg_parent_link *link, unsigned int flags,
                                               char *out, size_t size)
{
    if (uuid == nullptr)
        return 0;
    bool bare_index = flags & CFG_PATH_BARE_INDEX;
    if (link == nullptr || link->type == CFG_TYPE_REFERENCE) {
        bool bare = flags & CFG_PATH_BARE_UUID;
        return snprintf(out, size, "%s%s%s", bare ? "" : "(", uuid, bare ? "" : ")");
    }
    if (link->type == CFG_TYPE_MAP)
        return snprintf(out, size, "%s", link->name != nullptr ? link->name : "");
    if (!(flags & CFG_PATH_STATIC))
        return snprintf(out, size, "%s%d%s", bare_index ? "" : "[",
                        static_cast<int>(link->index), bare_index ? "" : "]");
    return snprintf(out, size, "%s%ld%s", bare_index ? "" : "(",
                    static_number(uuid, link->index), bare_index ? "" : ")");
}

extern "C" int cfg_get_path_basename_from_parent(cfg *context, cfg_element *element,
                                                 const char *parent_uuid, unsigned int flags,
                                                 char *out, size_t size)
{
    if (element == nullptr || parent_uuid == nullptr || out == nullptr)
        return 0;
    for (cfg_link *n = element->parents; n != nullptr; n = n->next)
        if (strcmp(record_of(n)->uuid, parent_uuid) == 0)
            return cfg_get_path_basename_from_link(context, element->uuid, record_of(n), flags,
                                                   out, size);
    return 0;
}

extern "C" int cfg_get_path_basename(cfg *context, cfg_element *element, unsigned int flags,
                                     char *out, size_t size)
{
    if (element == nullptr || out == nullptr)
        return 0;
    return cfg_get_path_basename_from_link(context, element->uuid,
                                           cfg_get_most_solid_parent_link(element), flags, out,
                                           size);
}

extern "C" cfg_element **cfg_get_path_elements(cfg *context, cfg_element *element,
                                               unsigned int *count, int to_top)
{
    if (element == nullptr)
        return nullptr;
    std::vector<cfg_element *> chain{element};
    for (cfg_element *current = element;;) {
        cfg_parent_link *link = cfg_get_most_solid_parent_link(current);
        if (link == nullptr)
            break;
        cfg_element *ancestor = cfg_get_by_id(context, link->uuid);
        if (ancestor == nullptr || (!to_top && strcmp(ancestor->uuid, zr::root_uuid) == 0))
            break;
        for (cfg_element *seen : chain)
            if (seen == ancestor)
                return nullptr;
        chain.push_back(ancestor);
        current = ancestor;
    }
    auto **array = static_cast<cfg_element **>(malloc(chain.size() * sizeof(cfg_element *)));
    if (array == nullptr)
        return nullptr;
    std::copy(chain.begin(), chain.end(), array);
    if (count != nullptr)
        *count = static_cast<unsigned int>(chain.size());
    return array;
}

extern "C" char *cfg_get_canonical_path(cfg *context, cfg_element *element,
                                        unsigned int flags, const char *separator)
{
    unsigned int count = 0;
    zr::cstr_ptr holder;
    cfg_element **chain = cfg_get_path_elements(context, element, &count, 0);
    if (chain == nullptr)
        return nullptr;
    holder.reset(reinterpret_cast<char *>(chain));
    std::string path;
    for (unsigned int i = count; i-- > 0;) {
        char component[1024];
        int length = cfg_get_path_basename(context, chain[i], flags, component, sizeof component);
        if (length <= 0 || length > 1023)
            return nullptr;
        path += component;
        bool list_without_separator =
            chain[i]->type == CFG_TYPE_LIST && !(flags & CFG_PATH_BARE_INDEX);
        if (i > 0 && separator != nullptr && !list_without_separator)
            path += separator;
    }
    return strdup(path.c_str());
}

extern "C" int cfg_get_static_path(cfg *context, cfg_element *element, char **out)
{
    if (element == nullptr || out == nullptr)
        return 0;
    zr::cstr_ptr path(cfg_get_canonical_path(context, element, CFG_PATH_STATIC, "."));
    if (!path)
        return 0;
    if (element->uuid[0] != '{') {
        *out = path.release();
        return 1;
    }
    std::string full = std::string(element->uuid) + ":" + path.get();
    *out = strdup(full.c_str());
    return *out != nullptr ? 1 : 0;
}

// ---- Blob to file ----

namespace {

// The directory mode: the file mode with execute bits where it grants access.
mode_t directory_mode(mode_t mode)
{
    mode_t dir = mode;
    if (mode == 0 || (mode & S_IRWXU))
        dir |= S_IXUSR;
    if (mode & S_IRWXG)
        dir |= S_IXGRP;
    if (mode & S_IRWXO)
        dir |= S_IXOTH;
    return dir;
}

// True when the open file holds exactly the blob's bytes.
bool file_equals(int fd, const unsigned char *data, size_t size)
{
    unsigned char chunk[4096];
    size_t offset = 0;
    for (;;) {
        ssize_t got = read(fd, chunk, sizeof chunk);
        if (got < 0)
            return false;
        if (got == 0)
            return offset == size;
        auto length = static_cast<size_t>(got);
        if (length > size - offset)
            return false;
        ZR_ASSERT(offset + length <= size, "cmp_sz == file_r");
        if (memcmp(chunk, data + offset, length) != 0)
            return false;
        offset += length;
    }
}

bool write_whole(const char *file, mode_t mode, const unsigned char *data, size_t size)
{
    int fd = open(file, O_WRONLY | O_CREAT | O_TRUNC, mode);
    if (fd < 0)
        return false;
    size_t done = 0;
    while (done < size) {
        ssize_t n = write(fd, data + done, size - done);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            close(fd);
            return false;
        }
        done += static_cast<size_t>(n);
    }
    bool synced = fsync(fd) == 0;
    return close(fd) == 0 && synced;
}

bool make_parent_directory(const char *file, mode_t mode)
{
    char copy[4096];
    snprintf(copy, sizeof copy, "%s", file);
    return mkpath(dirname(copy), directory_mode(mode)) == 0;
}

} // namespace

extern "C" int cfg_simple_sync_blob_to_file(cfg *context, const char *path, const char *file,
                                            unsigned int mode)
{
    if (context == nullptr || path == nullptr || file == nullptr)
        return -1;
    cfg_element *blob = cfg_get_by_path(context, path);
    if (!is_type(blob, CFG_TYPE_BLOB))
        return -1;
    mode_t effective = mode != 0 ? mode : 0644;
    const unsigned char *data = blob->value.blob.data;
    size_t size = blob->value.blob.size;
    bool equal = false;
    int fd = open(file, O_RDONLY);
    if (fd < 0 && errno != ENOENT) {
        cfg_message_add_file_io(context);
        return -1;
    }
    if (fd < 0) {
        if (!make_parent_directory(file, effective)) {
            cfg_message_add_file_io(context);
            return -1;
        }
    } else {
        equal = file_equals(fd, data, size);
        close(fd);
        if (equal && chmod(file, effective) != 0)
            cfg_message_add_file_io(context);
    }
    if (!equal && !write_whole(file, effective, data, size)) {
        cfg_message_add_file_io(context);
        return -1;
    }
    // No chmod after creating: a restrictive umask shows up here as a failure.
    struct stat st;
    if (stat(file, &st) != 0 || (st.st_mode & 0777) != effective) {
        cfg_message_add_file_io(context);
        return -1;
    }
    return equal ? 0 : 1;
}

// ---- Text dump ----

namespace {

// List and map renderings are cut to what a 1024-byte buffer holds.
constexpr size_t container_text_limit = 1023;

const char *change_marker(unsigned int flags)
{
    if (flags & CFG_FLAG_NEW)
        return "A ";
    if (flags & CFG_FLAG_CHANGED)
        return "M ";
    if (flags & CFG_FLAG_DELETED)
        return "D ";
    return "  ";
}

std::string format_text(const char *format, ...)
{
    va_list args, measure;
    va_start(args, format);
    va_copy(measure, args);
    int length = vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0)
        vsnprintf(text.data(), text.size() + 1, format, args);
    va_end(args);
    return text;
}

std::string members_text(const cfg_element *element, bool keyed)
{
    std::string text = "(";
    for (cfg_link *n = element->value.list.members; n != nullptr; n = n->next) {
        cfg_parent_link *link = record_of(n);
        if (keyed)
            text += format_text("%s: %s, ", link->name != nullptr ? link->name : "", link->uuid);
        else
            text += format_text("%s, ", link->uuid);
        if (text.size() >= container_text_limit)
            break;
    }
    text += ")";
    if (text.size() > container_text_limit)
        text.resize(container_text_limit);
    return text;
}

// The label and value text of one element.
std::pair<const char *, std::string> describe(const cfg_element *element)
{
    const auto &v = element->value;
    switch (element->type) {
    case CFG_TYPE_BOOL:
        return {"Boolean", v.int_value ? "True" : "False"};
    case CFG_TYPE_INT:
        return {"Integer", format_text("%d", v.int_value)};
    case CFG_TYPE_FLOAT:
        return {"Float", format_text("%.3f", v.float_value)};
    case CFG_TYPE_STRING:
        return {"String", v.string_value != nullptr ? v.string_value : ""};
    case CFG_TYPE_BLOB: {
        // Bytes up to the first zero byte, never past the blob's end.
        const char *bytes = reinterpret_cast<const char *>(v.blob.data);
        size_t length = bytes != nullptr ? strnlen(bytes, v.blob.size) : 0;
        return {"Blob", std::string(bytes != nullptr ? bytes : "", length)};
    }
    case CFG_TYPE_REFERENCE:
        return {"Reference", v.string_value != nullptr ? v.string_value : ""};
    case CFG_TYPE_LIST:
        return {"List", members_text(element, false)};
    case CFG_TYPE_MAP:
        return {"Map", members_text(element, true)};
    default:
        return {"Unknown", "Unknown"};
    }
}

} // namespace

extern "C" char *cfg_to_string(cfg *context)
{
    std::string dump;
    if (context != nullptr) {
        for (cfg_index_entry *entry = context->elements; entry != nullptr;
             entry = static_cast<cfg_index_entry *>(entry->hh.next)) {
            const cfg_element *element = entry->element;
            auto [label, value] = describe(element);
            dump += change_marker(element->flags);
            dump += element->uuid;
            dump += ' ';
            dump += format_text("[%-10s]: ", label);
            dump += value;
            dump += '\n';
        }
    }
    return strdup(dump.c_str());
}
