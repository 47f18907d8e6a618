// The table of named custom validators with the elementary checks they are
// built from.
#define ZR_SOURCE "src/validators"
#include "internal.h"
#include "common.h"
#include "data.h"
#include "memo.h"
#include "text_tally.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <cstring>
#include <crypt.h>
#include <memory>
#include <new>
#include <optional>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <pcre.h>
#include <pwd.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace {
namespace custom {

using zr::cstr_ptr;

// Runs a validator body; an allocation failure inside it rejects the input
// instead of leaving through the C interface.
template <typename Body> int guarded(Body &&body) noexcept
{
    try {
        return body();
    } catch (...) {
        return 0;
    }
}

bool is_type(const cfg_element *element, unsigned int type)
{
    return element != nullptr && element->type == type;
}

// True when between min and max parameters were given, none of them NULL.
bool params_fit(char **params, int count, int min, int max)
{
    if (count < min || count > max || (count > 0 && params == nullptr))
        return false;
    for (int i = 0; i < count; i++)
        if (params[i] == nullptr)
            return false;
    return true;
}

// The string at path below start, or NULL when there is none.
cstr_ptr string_at(cfg *context, cfg_element *start, const char *path)
{
    char *text = nullptr;
    if (start == nullptr || !cfg_map_get_string(context, start, path, &text)) {
        free(text);
        return nullptr;
    }
    return cstr_ptr(text);
}

// The target uuid of the reference at path below start, or NULL.
cstr_ptr reference_at(cfg *context, cfg_element *start, const char *path)
{
    char *uuid = nullptr;
    if (start == nullptr || !cfg_map_get_reference(context, start, path, &uuid)) {
        free(uuid);
        return nullptr;
    }
    return cstr_ptr(uuid);
}

// The blob at path below start as zero-terminated text, or NULL.
cstr_ptr blob_text_at(cfg *context, cfg_element *start, const char *path)
{
    void *data = nullptr;
    if (!cfg_map_get_blob(context, start, path, &data, nullptr)) {
        free(data);
        return nullptr;
    }
    return cstr_ptr(static_cast<char *>(data));
}

bool texts_equal(const char *a, const char *b)
{
    return a != nullptr && b != nullptr && strcmp(a, b) == 0;
}

// The id fields of a list's member links, committed members first, then
// (with_future) the future ones. The links own them: a lookup that may load
// data can free them, so callers that look up through other hooks than the
// library's own take copies (member_uuids).
std::vector<const char *> member_id_fields(cfg_element *list, bool with_future = true)
{
    std::vector<const char *> uuids;
    auto collect = [&](cfg_link *head) {
        for (cfg_link *n = head; n != nullptr; n = n->next)
            uuids.push_back(static_cast<cfg_parent_link *>(n->data)->uuid);
    };
    collect(list->value.list.members);
    if (with_future)
        collect(list->value.list.future_members);
    return uuids;
}

std::vector<std::string> member_uuids(cfg_element *list, bool with_future = true)
{
    std::vector<const char *> fields = member_id_fields(list, with_future);
    return {fields.begin(), fields.end()};
}

// Whether a connection runs DHCP on the physical interface physif.
bool is_dhcp_on(cfg *context, cfg_element *connection, const char *physif)
{
    cstr_ptr mode = string_at(context, connection, "mode");
    cstr_ptr other = reference_at(context, connection, "physif");
    return texts_equal(mode.get(), "dhcp") && texts_equal(other.get(), physif);
}

// Follows a reference to its target and from there two containers up: the
// record a tag reference stands for. NULL when the chain breaks.
cfg_element *tag_record(cfg *context, cfg_element *item)
{
    if (!is_type(item, CFG_TYPE_REFERENCE) || item->value.string_value == nullptr)
        return nullptr;
    cfg_element *target = cfg_get_by_id(context, item->value.string_value);
    cfg_element *parent = target != nullptr ? cfg_get_parent_elem(context, target) : nullptr;
    return parent != nullptr ? cfg_get_parent_elem(context, parent) : nullptr;
}

// Sorts texts and reports the first pair of equal neighbours as a duplicate
// of field in list (one message at most). shown picks the reported part of
// the duplicated text. Returns 1 when all texts differ.
template <typename Shown>
int report_first_duplicate(cfg *context, cfg_element *list, const char *field,
                           std::vector<std::string> &texts, Shown shown)
{
    std::sort(texts.begin(), texts.end());
    auto duplicate = std::adjacent_find(texts.begin(), texts.end());
    if (duplicate == texts.end())
        return 1;
    cfg_message_add_duplicate(context, field, shown(*duplicate).c_str(), list->uuid);
    ZR_LOG(LOG_DEBUG, "validator_uniqueness failed\n");
    return 0;
}

std::string whole_text(const std::string &text)
{
    return text;
}

// The IPv4 address of text in host order; 0 when it does not convert.
uint32_t ipv4_bits(const char *text)
{
    in_addr address{};
    inet_pton(AF_INET, text, &address);
    return ntohl(address.s_addr);
}

// Compiles a process-wide pattern; NULL when it does not compile.
pcre *compile_pattern(const char *pattern)
{
    const char *error = nullptr;
    int offset = 0;
    return pcre_compile(pattern, 0, &error, &offset, nullptr);
}

bool pattern_matches(pcre *pattern, const char *text)
{
    size_t length = strlen(text);
    if (pattern == nullptr || length > INT_MAX)
        return false;
    return pcre_exec(pattern, nullptr, text, static_cast<int>(length), 0, 0, nullptr, 0) >= 0;
}

const char mac_pattern[] = "^([0-9A-Fa-f]{2}:){5}([0-9A-Fa-f]{2})$";

const char ssh_key_pattern[] =
    "^(ssh-dss|ssh-rsa|ssh-ed25519|ecdsa-sha2-nistp(256|384|521))"
    "(-cert-v01@openssh\\.com)? [A-Za-z0-9+/]+={0,2}( |$)";

template <auto release> struct openssl_deleter {
    template <typename T> void operator()(T *object) const { release(object); }
};
using bio_ptr = std::unique_ptr<BIO, openssl_deleter<BIO_free_all>>;
using x509_ptr = std::unique_ptr<X509, openssl_deleter<X509_free>>;
using pkey_ptr = std::unique_ptr<EVP_PKEY, openssl_deleter<EVP_PKEY_free>>;
using ssl_ctx_ptr = std::unique_ptr<SSL_CTX, openssl_deleter<SSL_CTX_free>>;

// Keys are never decrypted: a library must not prompt on a terminal.
int refuse_pass_phrase(char *, int, int, void *)
{
    return -1;
}

// Leaves the thread's OpenSSL error queue as the caller had it.
struct openssl_error_mark {
    openssl_error_mark() { ERR_set_mark(); }
    ~openssl_error_mark() { ERR_pop_to_mark(); }
};

bool bio_append(BIO *bio, const char *text)
{
    size_t length = strlen(text);
    if (length > INT_MAX)
        return false;
    return length == 0 || BIO_write(bio, text, static_cast<int>(length)) == static_cast<int>(length);
}

pkey_ptr read_private_key(BIO *bio)
{
    return pkey_ptr(PEM_read_bio_PrivateKey(bio, nullptr, refuse_pass_phrase, nullptr));
}

// Whether a server context accepts the certificate and key as one pair.
bool pair_is_consistent(X509 *certificate, EVP_PKEY *key)
{
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
    ssl_ctx_ptr server(SSL_CTX_new(TLS_server_method()));
    return server != nullptr && SSL_CTX_use_certificate(server.get(), certificate) == 1 &&
           SSL_CTX_use_PrivateKey(server.get(), key) == 1 &&
           SSL_CTX_check_private_key(server.get()) == 1;
}

bool common_name_is(X509 *certificate, const char *expected)
{
    char name[256];
    X509_NAME *subject = X509_get_subject_name(certificate);
    if (subject == nullptr ||
        X509_NAME_get_text_by_NID(subject, NID_commonName, name, sizeof name) < 0)
        return false;
    return strcmp(name, expected) == 0;
}

// ASCII classes, whatever locale the process runs in.
bool is_ascii_letter(unsigned char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool is_ascii_digit(unsigned char c)
{
    return c >= '0' && c <= '9';
}

// Looks a user up, growing the buffer while it is too small. 0, or the
// lookup's error number; *uid is set when the user exists.
int lookup_user(const char *name, bool *found, uid_t *uid)
{
    long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(hint > 0 ? static_cast<size_t>(hint) : 1024);
    constexpr size_t largest_buffer = 1 << 24;
    passwd entry{};
    passwd *result = nullptr;
    int error;
    while ((error = getpwnam_r(name, &entry, buffer.data(), buffer.size(), &result)) == ERANGE &&
           buffer.size() < largest_buffer)
        buffer.resize(buffer.size() * 2);
    *found = error == 0 && result != nullptr;
    if (*found)
        *uid = result->pw_uid;
    return error;
}

} // namespace custom
} // namespace

extern "C" const cfg_validator_def validator_lut[] = {
    {"networkvalidity", validator_network_validity},
    {"networkaddress", validator_networkaddress},
    {"uniqueness", validator_uniqueness},
    {"tag_uniqueness", validator_tag_uniqueness},
    {"template_uniqueness", validator_template_uniqueness},
    {"password", validator_password},
    {"ssl_cert", validator_ssl_cert},
    {"ssh_key", validator_ssh_key},
    {"condition", validator_condition},
    {"timezone", validator_timezone},
    {"deny_tag_name", validator_deny_tag_name},
    {"dhcp_unique", validator_dhcp_unique},
    {"ssh_url_delimiter", validator_ssh_delimiter},
    {"mode_roles", validator_mode_roles},
    {"username_not_system", validator_username_not_system},
    {"no_password", validator_no_password},
    {nullptr, nullptr},
};

extern "C" cfg_validator_fn get_validator(const char *name)
{
    if (name == nullptr)
        return nullptr;
    for (const cfg_validator_def *row = validator_lut; row->name != nullptr; row++)
        if (strcmp(row->name, name) == 0)
            return row->function;
    return nullptr;
}

// ---- Elementary checks ----

extern "C" int validate_ipv4address(const char *text)
{
    in_addr address;
    return text != nullptr && inet_pton(AF_INET, text, &address) == 1 ? 1 : 0;
}

extern "C" int validate_ipv6address(const char *text)
{
    in6_addr address;
    return text != nullptr && inet_pton(AF_INET6, text, &address) == 1 ? 1 : 0;
}

extern "C" int validate_macaddress(const char *text)
{
    static pcre *const pattern = custom::compile_pattern(custom::mac_pattern);
    return text != nullptr && custom::pattern_matches(pattern, text) ? 1 : 0;
}

// Label lengths and hyphen placement are deliberately not checked.
extern "C" int validate_dnsname(const char *text)
{
    if (text == nullptr || text[0] == '\0')
        return 0;
    bool has_letter = false;
    for (const char *p = text; *p != '\0'; p++) {
        auto c = static_cast<unsigned char>(*p);
        if (custom::is_ascii_letter(c))
            has_letter = true;
        else if (!custom::is_ascii_digit(c) && c != '-' && c != '.')
            return 0;
    }
    return has_letter ? 1 : 0;
}

// An OpenSSH public key line, or else a PEM private key that parses.
extern "C" int validate_ssh_key(const char *text)
{
    static pcre *const pattern = custom::compile_pattern(custom::ssh_key_pattern);
    if (text == nullptr)
        return 0;
    if (custom::pattern_matches(pattern, text))
        return 1;
    size_t length = strlen(text);
    if (length > INT_MAX)
        return 0;
    custom::openssl_error_mark mark;
    custom::bio_ptr bio(BIO_new_mem_buf(text, static_cast<int>(length)));
    return bio != nullptr && custom::read_private_key(bio.get()) != nullptr ? 1 : 0;
}

extern "C" int validate_password(const char *clear, const char *hash)
{
    if (clear == nullptr || hash == nullptr)
        return 1;
    auto *scratch = zr::zalloc<crypt_data>();
    if (scratch == nullptr)
        return 0;
    const char *hashed = crypt_r(clear, "Qz", scratch);
    // A failed crypt gives NULL or a failure token starting with '*'.
    int same = hashed != nullptr && hashed[0] != '*' && strcmp(hashed, hash) == 0;
    free(scratch);
    return same;
}

// The certificate and the key are read, in that order, through one memory
// stream; everything is released on every path.
extern "C" int validate_ssl_cert(const char *certificate, const char *key,
                                 const char *common_name)
{
    if (certificate == nullptr && key == nullptr)
        return 1;
    if (certificate == nullptr || key == nullptr)
        return 0;
    custom::openssl_error_mark mark;
    custom::bio_ptr bio(BIO_new(BIO_s_mem()));
    if (bio == nullptr || !custom::bio_append(bio.get(), certificate))
        return 0;
    custom::x509_ptr x509(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    if (x509 == nullptr || !custom::bio_append(bio.get(), key))
        return 0;
    custom::pkey_ptr pkey = custom::read_private_key(bio.get());
    if (pkey == nullptr || !custom::pair_is_consistent(x509.get(), pkey.get()))
        return 0;
    if (common_name != nullptr && !custom::common_name_is(x509.get(), common_name))
        return 0;
    return 1;
}

extern "C" int validate_group_role(const char *mode, const char *rolename)
{
    bool summit_admin = custom::texts_equal(rolename, "SummitAdmin");
    if (custom::texts_equal(mode, "global"))
        return summit_admin ? 1 : 0;
    if (custom::texts_equal(mode, "smart_group"))
        return summit_admin ? 0 : 1;
    return 1;
}

// ---- Validators ----

// An address equal to its network or broadcast address is refused, except
// under the point-to-point and host masks, which reserve none.
extern "C" int validator_network_validity(cfg *context, cfg_element *element, char **params,
                                          int params_count)
{
    if (!custom::params_fit(params, params_count, 2, 2) ||
        !custom::is_type(element, CFG_TYPE_MAP))
        return 0;
    zr::cstr_ptr address_text = custom::string_at(context, element, params[0]);
    zr::cstr_ptr mask_text = custom::string_at(context, element, params[1]);
    if (address_text == nullptr || mask_text == nullptr)
        return 0;
    uint32_t address = custom::ipv4_bits(address_text.get());
    uint32_t mask = custom::ipv4_bits(mask_text.get());
    uint32_t network = address & mask;
    uint32_t broadcast = network | ~mask;
    if (address != network && address != broadcast)
        return 1;
    if (mask == 0xFFFFFFFEu || mask == 0xFFFFFFFFu)
        return 1;
    cfg_message_add_invalid_networkaddress(context, address_text.get(), element->uuid);
    return 0;
}

// Accepts the first form named by the parameters that the value passes.
extern "C" int validator_networkaddress(cfg *context, cfg_element *element, char **params,
                                        int params_count)
{
    if (!custom::params_fit(params, params_count, 1, INT_MAX) ||
        !custom::is_type(element, CFG_TYPE_STRING) || element->value.string_value == nullptr)
        return 0;
    const char *value = element->value.string_value;
    for (int i = 0; i < params_count; i++) {
        const char *form = params[i];
        if ((strcmp(form, "ipv4") == 0 && validate_ipv4address(value)) ||
            (strcmp(form, "ipv6") == 0 && validate_ipv6address(value)) ||
            (strcmp(form, "dnsname") == 0 && validate_dnsname(value)))
            return 1;
    }
    cfg_message_add_invalid_networkaddress(context, value, element->uuid);
    return 0;
}

namespace {

// The text a list item gives for uniqueness: a string item its value, any
// other item the string at path below it; none when there is no such string.
std::optional<std::string> item_text(cfg *context, cfg_element *item, const char *path)
{
    if (custom::is_type(item, CFG_TYPE_STRING) && item->value.string_value != nullptr)
        return std::string(item->value.string_value);
    zr::cstr_ptr text = custom::string_at(context, item, path);
    if (text == nullptr)
        return std::nullopt;
    return std::string(text.get());
}

// True when path names one key of a map: no steps, positions or ids.
bool is_plain_key(const char *path)
{
    return path[0] != '\0' && path[strcspn(path, ".[(")] == '\0';
}

// The texts items give, as item_text gives them, for a context that looks
// up through the library's own hooks. Where a map item holds the key path
// names, the members are looked up a batch at a time, so that their cache
// misses overlap.
std::vector<std::optional<std::string>> local_item_texts(cfg *context,
                                                         const std::vector<cfg_element *> &items,
                                                         const char *path)
{
    constexpr size_t batch = 16;
    std::vector<std::optional<std::string>> texts(items.size());
    const bool by_key = is_plain_key(path);
    const char *ids[batch];
    size_t positions[batch];
    cfg_element *found[batch];
    for (size_t base = 0; base < items.size(); base += batch) {
        size_t n = 0;
        for (size_t i = base; i < std::min(base + batch, items.size()); i++) {
            const char *id = by_key && custom::is_type(items[i], CFG_TYPE_MAP)
                                 ? cfg_get_mapelem(items[i], path)
                                 : nullptr;
            if (id == nullptr) {
                texts[i] = item_text(context, items[i], path);
                continue;
            }
            ids[n] = id;
            positions[n++] = i;
        }
        zr::local_answers(context, ids, n, found);
        for (size_t k = 0; k < n; k++) {
            cfg_element *member = found[k] != nullptr ? found[k] : cfg_get_by_id(context, ids[k]);
            if (custom::is_type(member, CFG_TYPE_STRING) && member->value.string_value != nullptr)
                texts[positions[k]] = std::string(member->value.string_value);
        }
    }
    return texts;
}

// What validator_uniqueness knows of one list and path between validations
// is a zr::text_tally. A walk that looks again only at some members
// (zr::members_walked_again) knows every other member unchanged since the
// list was last accounted for, and every run that accounted for the list ran
// this validator on it after its walk; so the tally stays in step when it
// takes in those members' texts, provided it was last brought in step no
// earlier than the run before the list's last accounting (synced against
// the list's commits).
using zr::text_tally;

struct uniqueness_note : zr::list_note {
    std::unordered_map<std::string, text_tally> by_path;
};

uniqueness_note &uniqueness_note_of(cfg_element *list)
{
    std::unique_ptr<zr::list_note> &note = zr::list_note_of(list);
    if (dynamic_cast<uniqueness_note *>(note.get()) == nullptr)
        note = std::make_unique<uniqueness_note>();
    return static_cast<uniqueness_note &>(*note);
}

// True when the tally of list and path, brought in step with the members
// the running walk looked at again, shows every text given once. False
// when it cannot tell: the whole list is read then.
bool known_unique(cfg *context, cfg_element *list, const char *path)
{
    const std::vector<cfg_element *> *again = zr::members_walked_again(list);
    if (again == nullptr)
        return false;
    uniqueness_note &note = uniqueness_note_of(list);
    auto found = note.by_path.find(path);
    const uint64_t commits = zr::member_changes_of(list).commits;
    if (found == note.by_path.end() || !found->second.in_step_with(commits))
        return false;
    text_tally &tally = found->second;
    for (cfg_element *item : *again)
        tally.take(item->uuid, item_text(context, item, path));
    tally.synced(commits);
    return !tally.has_duplicates();
}

// Starts the tally of list and path afresh from every member's text (uuids
// and texts side by side; a member without text has none). Members listed
// twice cannot be tallied by member: the tally is dropped then. True when
// the new tally shows every text given once.
bool restart_tally(cfg_element *list, const char *path, const std::vector<const char *> &uuids,
                   const std::vector<std::optional<std::string>> &texts)
{
    uniqueness_note &note = uniqueness_note_of(list);
    note.by_path.erase(path);
    text_tally tally;
    tally.reserve(uuids.size());
    std::unordered_set<std::string_view> textless; // members that give no text
    for (size_t i = 0; i < uuids.size(); i++) {
        const bool first = texts[i] ? textless.count(uuids[i]) == 0 &&
                                          tally.take_new(uuids[i], *texts[i])
                                    : !tally.gives_text(uuids[i]) &&
                                          textless.insert(uuids[i]).second;
        if (!first)
            return false;
    }
    tally.synced(zr::member_changes_of(list).commits);
    bool unique = !tally.has_duplicates();
    note.by_path.emplace(path, std::move(tally));
    return unique;
}

} // namespace

// No two items of a list may give the same text: a string item its value,
// any other item the string at the path below it (items without one are
// left out). Under the library's own lookup hooks a tally of the texts is
// kept beside the list, so a walk that looked again at a few members reads
// only theirs.
extern "C" int validator_uniqueness(cfg *context, cfg_element *element, char **params,
                                    int params_count)
{
    ZR_LOG(LOG_DEBUG, "validator_uniqueness entry\n");
    if (!custom::params_fit(params, params_count, 1, 1) ||
        !custom::is_type(element, CFG_TYPE_LIST))
        return 0;
    return custom::guarded([&] {
        const bool local = zr::looks_up_locally(context);
        if (local && known_unique(context, element, params[0]))
            return 1;
        // The link records' own ids: a lookup through the library's hooks
        // changes no link, and the other hooks get copies.
        std::vector<const char *> uuids = custom::member_id_fields(element);
        std::vector<std::string> copies;
        if (uuids.size() < 2) {
            if (local)
                uniqueness_note_of(element).by_path.erase(params[0]);
            return 1;
        }
        std::vector<std::optional<std::string>> given;
        if (local) {
            // The list remembers what its members resolved to.
            unsigned int remembered = 0;
            cfg_list_size(element, &remembered);
            std::vector<cfg_element *> items;
            for (size_t i = 0; i < uuids.size(); i++)
                items.push_back(i < remembered ? zr::list_member(context, element, i)
                                               : cfg_get_by_id(context, uuids[i]));
            given = local_item_texts(context, items, params[0]);
        } else {
            copies.assign(uuids.begin(), uuids.end());
            for (const std::string &uuid : copies) {
                cfg_element *item = cfg_get_by_id(context, uuid.c_str());
                given.push_back(item_text(context, item, params[0]));
            }
        }
        // A tally that shows no text twice answers; otherwise the texts are
        // sorted for the first duplicate, which the message names.
        if (local && restart_tally(element, params[0], uuids, given))
            return 1;
        std::vector<std::string> texts;
        for (std::optional<std::string> &text : given)
            if (text)
                texts.push_back(std::move(*text));
        return custom::report_first_duplicate(context, element, params[0], texts,
                                              custom::whole_text);
    });
}

// No two tag references of a list may name tags with the same text at the
// path. A reference whose tag text cannot be resolved never counts as a
// duplicate, not even of another such reference.
extern "C" int validator_tag_uniqueness(cfg *context, cfg_element *element, char **params,
                                        int params_count)
{
    ZR_LOG(LOG_DEBUG, "validator_tag_uniqueness entry\n");
    if (!custom::params_fit(params, params_count, 1, 1) ||
        !custom::is_type(element, CFG_TYPE_LIST))
        return 0;
    return custom::guarded([&] {
        std::vector<std::string> texts;
        for (const std::string &uuid : custom::member_uuids(element)) {
            cfg_element *tag = custom::tag_record(context, cfg_get_by_id(context, uuid.c_str()));
            zr::cstr_ptr text = custom::string_at(context, tag, params[0]);
            if (text != nullptr)
                texts.emplace_back(text.get());
        }
        return custom::report_first_duplicate(context, element, params[0], texts,
                                              custom::whole_text);
    });
}

// Names under the key must be unique within each template type.
extern "C" int validator_template_uniqueness(cfg *context, cfg_element *element,
                                             char **params, int params_count)
{
    ZR_LOG(LOG_DEBUG, "validator_template_uniqueness entry\n");
    if (!custom::params_fit(params, params_count, 1, 1) ||
        !custom::is_type(element, CFG_TYPE_LIST))
        return 0;
    std::vector<std::string> texts;
    try {
        for (const std::string &uuid : custom::member_uuids(element)) {
            cfg_element *item = cfg_get_by_id(context, uuid.c_str());
            if (!custom::is_type(item, CFG_TYPE_MAP))
                continue;
            zr::cstr_ptr type = custom::string_at(context, item, "template_type");
            zr::cstr_ptr name = custom::string_at(context, item, params[0]);
            if (type != nullptr && name != nullptr)
                texts.push_back(std::string(type.get()) + "/" + name.get());
        }
    } catch (const std::bad_alloc &) {
        ZR_LOG(LOG_DEBUG, "Failed to allocate string");
        return 0;
    }
    return custom::guarded([&] {
        return custom::report_first_duplicate(
            context, element, params[0], texts,
            [](const std::string &text) { return text.substr(text.find('/') + 1); });
    });
}

// The clear text under the first key must hash to the text under the second.
extern "C" int validator_password(cfg *context, cfg_element *element, char **params,
                                  int params_count)
{
    if (!custom::params_fit(params, params_count, 2, 2) ||
        !custom::is_type(element, CFG_TYPE_MAP))
        return 0;
    zr::cstr_ptr clear = custom::string_at(context, element, params[0]);
    zr::cstr_ptr hash = custom::string_at(context, element, params[1]);
    if (validate_password(clear.get(), hash.get()))
        return 1;
    cfg_message_add_password_mismatch(context, element->uuid);
    return 0;
}

// The certificate and key blobs must form a pair (and, with a third key,
// carry the common name given under it).
extern "C" int validator_ssl_cert(cfg *context, cfg_element *element, char **params,
                                  int params_count)
{
    if (!custom::params_fit(params, params_count, 2, 3) ||
        !custom::is_type(element, CFG_TYPE_MAP))
        return 0;
    zr::cstr_ptr certificate = custom::blob_text_at(context, element, params[0]);
    zr::cstr_ptr key = custom::blob_text_at(context, element, params[1]);
    zr::cstr_ptr common_name;
    if (params_count == 3)
        common_name = custom::string_at(context, element, params[2]);
    if (validate_ssl_cert(certificate.get(), key.get(), common_name.get()))
        return 1;
    cfg_message_add_invalid_cert(context);
    return 0;
}

extern "C" int validator_ssh_key(cfg *, cfg_element *element, char **params, int params_count)
{
    if (!custom::params_fit(params, params_count, 0, 0))
        return 0;
    void *data = nullptr;
    if (!cfg_blob_value(element, &data, nullptr))
        return 0;
    zr::cstr_ptr text(static_cast<char *>(data));
    return validate_ssh_key(text.get());
}

// The value must be a search condition in its JSON form.
extern "C" int validator_condition(cfg *context, cfg_element *element, char **, int)
{
    if (!custom::is_type(element, CFG_TYPE_STRING) || element->value.string_value == nullptr)
        return 0;
    json_error_t error;
    cfg_condition *condition = json_dump_to_condition(element->value.string_value, &error);
    if (condition != nullptr) {
        cfg_free_conditions(condition);
        return 1;
    }
    cfg_message_add_invalid_query(context);
    return 0;
}

// The value must name an entry (file or directory) of the zone directory.
extern "C" int validator_timezone(cfg *, cfg_element *element, char **params, int params_count)
{
    ZR_LOG(LOG_DEBUG, "validator_timezone entry\n");
    if (!custom::params_fit(params, params_count, 0, 0) ||
        !custom::is_type(element, CFG_TYPE_STRING) || element->value.string_value == nullptr)
        return 0;
    char path[256];
    snprintf(path, sizeof path, "/usr/share/zoneinfo/%s", element->value.string_value);
    struct stat entry;
    if (stat(path, &entry) == 0)
        return 1;
    ZR_LOG(LOG_DEBUG, "Timezone path (%s) does not exist", path);
    return 0;
}

// No tag reference of the list may name a tag called params[0].
extern "C" int validator_deny_tag_name(cfg *context, cfg_element *element, char **params,
                                       int params_count)
{
    ZR_LOG(LOG_DEBUG, "deny_tag_name entry\n");
    if (!custom::params_fit(params, params_count, 1, 1) ||
        !custom::is_type(element, CFG_TYPE_LIST))
        return 0;
    return custom::guarded([&] {
        for (const std::string &uuid : custom::member_uuids(element)) {
            cfg_element *tag = custom::tag_record(context, cfg_get_by_id(context, uuid.c_str()));
            zr::cstr_ptr name = custom::string_at(context, tag, "name");
            if (custom::texts_equal(name.get(), params[0])) {
                cfg_message_add_bad_tag_name(context, params[0]);
                return 0;
            }
        }
        return 1;
    });
}

// At most one DHCP connection per physical interface among the committed
// connections of "system.net.conns" (the element is one of them).
extern "C" int validator_dhcp_unique(cfg *context, cfg_element *element, char **params,
                                     int params_count)
{
    if (!custom::params_fit(params, params_count, 0, 0) ||
        !custom::is_type(element, CFG_TYPE_MAP))
        return 0;
    zr::cstr_ptr mode = custom::string_at(context, element, "mode");
    if (mode == nullptr)
        return 0;
    if (strcmp(mode.get(), "dhcp") != 0)
        return 1;
    zr::cstr_ptr physif = custom::reference_at(context, element, "physif");
    if (physif == nullptr)
        return 0;
    cfg_element *connections = cfg_get_by_path(context, "system.net.conns");
    if (!custom::is_type(connections, CFG_TYPE_LIST))
        return 1;
    return custom::guarded([&] {
        int dhcp_count = 0;
        for (const std::string &uuid : custom::member_uuids(connections, false)) {
            cfg_element *connection = cfg_get_by_id(context, uuid.c_str());
            if (custom::is_dhcp_on(context, connection, physif.get()) && ++dhcp_count > 1) {
                cfg_message_add_dhcp_limit(context);
                return 0;
            }
        }
        return 1;
    });
}

// One printable byte that is not a blank, quote, '=' or '#'.
extern "C" int validator_ssh_delimiter(cfg *, cfg_element *element, char **params,
                                       int params_count)
{
    ZR_LOG(LOG_DEBUG, "validator_ssh_delimiter entry\n");
    if (!custom::params_fit(params, params_count, 0, 0) ||
        !custom::is_type(element, CFG_TYPE_STRING) || element->value.string_value == nullptr)
        return 0;
    const char *value = element->value.string_value;
    auto c = static_cast<unsigned char>(value[0]);
    if (c == '\0' || value[1] != '\0')
        return 0;
    bool printable = c >= 0x20 && c < 0x7F;
    return printable && strchr(" `'=\"#", c) == nullptr ? 1 : 0;
}

// The role that a group's mode points at must be allowed for that mode.
extern "C" int validator_mode_roles(cfg *context, cfg_element *element, char **, int)
{
    if (!custom::is_type(element, CFG_TYPE_MAP))
        return 0;
    zr::cstr_ptr mode = custom::string_at(context, element, "mode");
    const char *holder_key = nullptr, *reference_key = nullptr;
    if (custom::texts_equal(mode.get(), "global")) {
        holder_key = "global_roles";
        reference_key = "ref";
    } else if (custom::texts_equal(mode.get(), "smart_group")) {
        holder_key = "smart_group";
        reference_key = "roles_ref";
    } else {
        return 0;
    }
    cfg_element *holder = cfg_get_child_by_path(context, element, holder_key);
    zr::cstr_ptr role_uuid = custom::reference_at(context, holder, reference_key);
    cfg_element *role = role_uuid != nullptr ? cfg_get_by_id(context, role_uuid.get()) : nullptr;
    zr::cstr_ptr rolename = custom::string_at(context, role, "rolename");
    if (rolename == nullptr)
        return 0;
    if (validate_group_role(mode.get(), rolename.get()))
        return 1;
    cfg_message_add_invalid_role(context, rolename.get(), mode.get());
    return 0;
}

// Refuses names of existing system accounts (user id 999 or below), except
// "root".
extern "C" int validator_username_not_system(cfg *, cfg_element *element, char **params,
                                             int params_count)
{
    ZR_LOG(LOG_DEBUG, "validator_username_not_system entry\n");
    if (!custom::params_fit(params, params_count, 0, 0) ||
        !custom::is_type(element, CFG_TYPE_STRING) || element->value.string_value == nullptr)
        return 0;
    const char *name = element->value.string_value;
    if (strcmp(name, "root") == 0)
        return 1;
    return custom::guarded([&] {
        bool found = false;
        uid_t uid = 0;
        int error = custom::lookup_user(name, &found, &uid);
        if (error != 0) {
            ZR_LOG(LOG_ERR, "Error retrieving user data: %s\n", strerror(error));
            return 0;
        }
        return !found || uid > 999 ? 1 : 0;
    });
}

// "no_password" true forbids a stored hash; otherwise a non-empty one is
// required.
extern "C" int validator_no_password(cfg *context, cfg_element *element, char **, int)
{
    if (!custom::is_type(element, CFG_TYPE_MAP))
        return 0;
    zr::cstr_ptr hash = custom::string_at(context, element, "hashed_password");
    int no_password = 0;
    cfg_map_get_bool(context, element, "no_password", &no_password);
    if (no_password) {
        if (hash == nullptr)
            return 1;
        cfg_message_add_hashed_password_found(context);
        return 0;
    }
    if (hash != nullptr && hash.get()[0] != '\0')
        return 1;
    cfg_message_add_hashed_password_not_found(context);
    return 0;
}
