// The named validators and their elementary checks, on small trees and on
// keys, certificates, hashes, zones and accounts of the running system.
#include "context.h"
#include "test_material.h"

#include <crypt.h>
#include <pwd.h>
#include <unistd.h>

using namespace zrtest;

namespace {

// A context with a root map, helpers to grow a tree, and a runner that goes
// through the validator table.
struct Validators : tree_context, testing::Test {
    cfg *c = ctx();
    cfg_element *root = cfg_load_map(c, "root-1");

    cfg_element *map(cfg_element *p, const char *k = nullptr) { return put(p, k, cfg_new_map(c)); }
    cfg_element *list(cfg_element *p, const char *k) { return put(p, k, cfg_new_list(c)); }
    cfg_element *text(const std::string &value) { return cfg_new_string(c, value.c_str()); }
    cfg_element *set(cfg_element *map, const char *key, const char *value)
    {
        return cfg_map_set_string(c, map, key, value);
    }
    int run(const char *name, cfg_element *element, texts params = {})
    {
        std::vector<char *> argv;
        for (std::string &p : params)
            argv.push_back(p.data());
        return get_validator(name)(c, element, argv.data(), static_cast<int>(argv.size()));
    }
    texts messages() const { return messages_of(c); }
};

} // namespace

TEST_F(Validators, TableLookupAndSilentMismatches)
{
    for (const char *unknown : {"Uniqueness", "unique", ""})
        EXPECT_EQ(get_validator(unknown), nullptr) << unknown;

    // Wrong element types and parameter counts reject without a message.
    for (const cfg_validator_def *row = validator_lut; row->name != nullptr; row++)
        for (int count : {0, 1, 2, 3})
            EXPECT_EQ(run(row->name, cfg_new_bool(c, 1), texts(count, "x")), 0) << row->name;
    cfg_element *net = map(root, "net");
    set(net, "ip", "10.0.0.1");
    set(net, "mask", "255.255.255.0");
    EXPECT_EQ(run("networkvalidity", net, {"ip"}), 0);
    EXPECT_EQ(run("networkvalidity", net, {"ip", "gateway"}), 0);
    EXPECT_EQ(run("networkaddress", text("10.0.0.1")), 0);
    EXPECT_EQ(run("ssl_cert", net, {"a", "b", "c", "d"}), 0);
    EXPECT_EQ(messages(), texts{});
    EXPECT_EQ(run("networkvalidity", net, {"ip", "mask"}), 1);
}

TEST_F(Validators, ElementaryChecksOfAddressesAndNames)
{
    const struct {
        int (*check)(const char *);
        const char *text;
        int expected;
    } cases[] = {
        {validate_ipv4address, "192.168.1.1", 1},      {validate_ipv4address, "300.1.1.1", 0},
        {validate_ipv6address, "::ffff:1.2.3.4", 1},   {validate_ipv6address, "1.2.3.4", 0},
        {validate_macaddress, "00:1A:2b:3C:4d:5E", 1}, {validate_macaddress, "00:1A:2b:3C:4d:5E:", 0},
        {validate_dnsname, "-..a", 1},                 {validate_dnsname, "10.0.0.1", 0},
        {validate_dnsname, "host_1", 0},               {validate_dnsname, "h\xc3\xa9.example", 0},
    };
    for (const auto &row : cases)
        EXPECT_EQ(row.check(row.text), row.expected) << row.text;
}

TEST_F(Validators, SshKeys)
{
    const test_material &m = material();
    ASSERT_TRUE(m.complete);
    for (const auto &[type, line] : m.ssh_public) {
        EXPECT_EQ(validate_ssh_key(line.c_str()), 1) << line;
        EXPECT_EQ(validate_ssh_key(line.substr(0, line.rfind(' ')).c_str()), 1) << line;
    }
    for (const std::string &accepted : texts{m.ssh_cert, m.key, m.rsa_key, "ssh-rsa AB== c",
                                             "ssh-dss AAAAB3NzaC1kc3M= c"})
        EXPECT_EQ(validate_ssh_key(accepted.c_str()), 1) << accepted;
    for (const std::string &refused :
         texts{m.openssh_key, m.certificate, "ssh-rsa", "ssh-rsa\tAB", "ssh-rsa AB===",
               "ssh-rsa AB-C", "ecdsa-sha2-nistp512 AB", " ssh-rsa AB", ""})
        EXPECT_EQ(validate_ssh_key(refused.c_str()), 0) << refused;

    const std::string &line = m.ssh_public.at("ssh-ed25519");
    EXPECT_EQ(run("ssh_key", cfg_new_blob(c, line.data(), line.size())), 1);
    EXPECT_EQ(run("ssh_key", text(line)), 0);
    EXPECT_EQ(messages(), texts{});
}

TEST_F(Validators, PasswordsAgainstFixedSaltCrypt)
{
    auto des_hash = [](const char *clear, const char *salt) {
        crypt_data scratch{};
        return std::string(crypt_r(clear, salt, &scratch));
    };
    const std::string hash = des_hash("s3cret", "Qz");
    EXPECT_EQ(validate_password("s3cret", hash.c_str()), 1);
    EXPECT_EQ(validate_password("s3cret", des_hash("s3cret", "Ab").c_str()), 0);
    EXPECT_EQ(validate_password(nullptr, hash.c_str()), 1);

    cfg_element *user = map(root, "user");
    set(user, "hash", hash.c_str());
    EXPECT_EQ(run("password", user, {"clear", "hash"}), 1);
    set(user, "clear", "s3cret");
    EXPECT_EQ(run("password", user, {"clear", "hash"}), 1);
    set(user, "clear", "guess");
    EXPECT_EQ(run("password", user, {"clear", "hash"}), 0);
    EXPECT_EQ(messages(), texts{"Plaintext and hashed passwords do not match"});
}

TEST_F(Validators, CertificateKeyPairsAndCommonName)
{
    const test_material &m = material();
    ASSERT_TRUE(m.complete);
    const char *cert = m.certificate.c_str(), *key = m.key.c_str();
    const struct {
        const char *certificate, *key, *common_name;
        int expected;
    } cases[] = {
        {cert, key, "device.example", 1},        {cert, key, "device.exampl", 0},
        {cert, m.other_key.c_str(), nullptr, 0}, {cert, "garbage", nullptr, 0},
        {nullptr, nullptr, "x", 1},              {cert, nullptr, nullptr, 0},
    };
    for (const auto &row : cases)
        EXPECT_EQ(validate_ssl_cert(row.certificate, row.key, row.common_name), row.expected)
            << (row.common_name ? row.common_name : "-");

    cfg_element *tls = map(root, "tls");
    cfg_map_set_blob(c, tls, "cert", m.certificate.data(), m.certificate.size());
    cfg_map_set_blob(c, tls, "key", m.key.data(), m.key.size());
    set(tls, "cn", "device.example");
    EXPECT_EQ(run("ssl_cert", tls, {"cert", "key", "cn"}), 1);
    set(tls, "cn", "other.example");
    EXPECT_EQ(run("ssl_cert", tls, {"cert", "key"}), 1);
    EXPECT_EQ(run("ssl_cert", tls, {"cert", "key", "cn"}), 0);
    EXPECT_EQ(messages(), texts{"Certificate / Key combination failed validation"});
}

TEST_F(Validators, NetworkReservedAddressesAndAcceptedForms)
{
    auto validity = [&](const char *address, const char *mask) {
        cfg_element *iface = map(root, "iface");
        set(iface, "ip", address);
        set(iface, "mask", mask);
        return run("networkvalidity", iface, {"ip", "mask"});
    };
    EXPECT_EQ(validity("192.168.1.7", "255.255.255.0"), 1);
    EXPECT_EQ(validity("10.0.0.0", "255.255.255.254"), 1); // a /31 has no reserved ends
    EXPECT_EQ(run("networkaddress", text("host-1.example"), {"ipv4", "dnsname"}), 1);
    EXPECT_EQ(messages(), texts{});

    EXPECT_EQ(validity("192.168.1.0", "255.255.255.0"), 0);
    EXPECT_EQ(validity("10.255.255.255", "255.0.0.0"), 0);
    EXPECT_EQ(run("networkaddress", text("300.1.1.1"), {"ipv4", "dnsname"}), 0);
    EXPECT_EQ(messages(), (texts{"'192.168.1.0' is not a valid network address",
                                 "'10.255.255.255' is not a valid network address",
                                 "'300.1.1.1' is not a valid network address"}));
}

TEST_F(Validators, UniquenessReportsOneDuplicate)
{
    cfg_element *names = list(root, "names");
    put(names, nullptr, text("b"));
    put(names, nullptr, text("a"));
    cfg_append_future_listelem(c, names, text("b"));
    EXPECT_EQ(run("uniqueness", names, {"name"}), 0);

    // Map items give the text at the path; items without one are left out.
    cfg_element *users = list(root, "users");
    auto add_user = [&](const char *login) {
        cfg_element *user = map(users);
        if (login != nullptr)
            set(map(user, "login"), "name", login);
    };
    for (const char *login : std::initializer_list<const char *>{"ann", nullptr, "bob", nullptr})
        add_user(login);
    EXPECT_EQ(run("uniqueness", users, {"login.name"}), 1);
    add_user("ann");
    EXPECT_EQ(run("uniqueness", users, {"login.name"}), 0);

    // A plain key over more maps than are looked up at once: a member that
    // is no string, or is missing, gives no text.
    cfg_element *hosts = list(root, "hosts");
    for (int i = 0; i < 40; i++) {
        cfg_element *host = map(hosts);
        if (i % 7 == 3)
            cfg_map_set_int(c, host, "name", 5);
        else if (i % 7 != 5)
            set(host, "name", ("h" + std::to_string(i)).c_str());
    }
    EXPECT_EQ(run("uniqueness", hosts, {"name"}), 1);
    set(map(hosts), "name", "h32");
    EXPECT_EQ(run("uniqueness", hosts, {"name"}), 0);
    EXPECT_EQ(messages(), (texts{"Duplicate 'name' fields with value 'b'",
                                 "Duplicate 'login.name' fields with value 'ann'",
                                 "Duplicate 'name' fields with value 'h32'"}));
}

TEST_F(Validators, TagsAndTemplates)
{
    // A tag reference names the tag's meta.id, two containers below the tag.
    cfg_element *tags = list(root, "tags");
    auto tag = [&](const char *name) {
        cfg_element *tag = map(tags);
        set(tag, "name", name);
        return set(map(tag, "meta"), "id", name);
    };
    auto references = [&](std::initializer_list<cfg_element *> targets) {
        cfg_element *list = cfg_new_list(c);
        for (cfg_element *target : targets)
            put(list, nullptr, cfg_new_reference(c, target->uuid));
        return list;
    };
    cfg_element *red = tag("red"), *blue = tag("blue"), *red_again = tag("red");
    // References whose chain ends early never count, not even as equals.
    EXPECT_EQ(run("tag_uniqueness", references({red, tags, tags, blue}), {"name"}), 1);
    EXPECT_EQ(run("deny_tag_name", references({blue, tags}), {"red"}), 1);

    cfg_element *templates = list(root, "templates");
    auto add_template = [&](const char *type) {
        cfg_element *item = map(templates);
        set(item, "template_type", type);
        set(item, "name", "x");
    };
    add_template("firewall");
    add_template("vpn");
    EXPECT_EQ(run("template_uniqueness", templates, {"name"}), 1);
    EXPECT_EQ(messages(), texts{});

    EXPECT_EQ(run("tag_uniqueness", references({red, blue, red_again}), {"name"}), 0);
    EXPECT_EQ(run("deny_tag_name", references({blue, red}), {"red"}), 0);
    add_template("vpn");
    EXPECT_EQ(run("template_uniqueness", templates, {"name"}), 0);
    EXPECT_EQ(messages(), (texts{"Duplicate 'name' fields with value 'red'",
                                 "Can not use a tag with name 'red' in this context",
                                 "Duplicate 'name' fields with value 'x'"}));
}

TEST_F(Validators, DhcpConnectionsPerInterface)
{
    cfg_element *net = map(map(root, "system"), "net");
    cfg_element *ifaces = list(net, "ifaces");
    cfg_element *eth0 = map(ifaces), *eth1 = map(ifaces);
    cfg_element *conns = list(net, "conns");
    auto connection = [&](const char *mode, cfg_element *iface) {
        cfg_element *conn = map(conns);
        if (mode != nullptr)
            set(conn, "mode", mode);
        if (iface != nullptr)
            cfg_map_set_reference(c, conn, "physif", iface->uuid);
        return conn;
    };
    cfg_element *first = connection("dhcp", eth0), *fixed = connection("static", eth0);
    EXPECT_EQ(run("dhcp_unique", first), 1);
    EXPECT_EQ(run("dhcp_unique", connection("dhcp", eth1)), 1);
    EXPECT_EQ(run("dhcp_unique", connection(nullptr, eth1)), 0); // no mode: silent
    EXPECT_EQ(messages(), texts{});

    EXPECT_EQ(run("dhcp_unique", connection("dhcp", eth0)), 0);
    EXPECT_EQ(run("dhcp_unique", fixed), 1);
    EXPECT_EQ(messages(),
              texts{"Cannot have more than one DHCP connection per physical interface."});
}

TEST_F(Validators, RolesAndPasswordPresence)
{
    cfg_element *roles = list(root, "roles");
    cfg_element *admin = map(roles), *viewer = map(roles), *nameless = map(roles);
    set(admin, "rolename", "SummitAdmin");
    set(viewer, "rolename", "Viewer");
    auto group = [&](const char *mode, const char *holder, const char *key, cfg_element *role) {
        cfg_element *g = cfg_new_map(c);
        set(g, "mode", mode);
        cfg_map_set_reference(c, map(g, holder), key, role->uuid);
        return run("mode_roles", g);
    };
    EXPECT_EQ(group("global", "global_roles", "ref", admin), 1);
    EXPECT_EQ(group("smart_group", "smart_group", "roles_ref", viewer), 1);
    EXPECT_EQ(group("smart_group", "smart_group", "roles_ref", admin), 0);
    EXPECT_EQ(group("local", "global_roles", "ref", admin), 0);
    EXPECT_EQ(group("global", "global_roles", "ref", nameless), 0);
    EXPECT_EQ(group("global", "global_roles", "ref", viewer), 0);
    EXPECT_EQ(messages(),
              (texts{"'SummitAdmin' is not a valid role for this group mode (smart_group).",
                     "'Viewer' is not a valid role for this group mode (global)."}));

    const std::string found = "If no_password is set to true, the hashed_password must be deleted.";
    const std::string missing = "If no_password is set to false, the hashed_password must be set.";
    const struct {
        int no_password; // -1 absent
        const char *hash;
        std::string message; // empty when accepted
    } cases[] = {{1, nullptr, ""},     {1, "", found},  {0, "x", ""},  {0, "", missing},
                 {0, nullptr, missing}, {-1, "x", ""}, {-1, nullptr, missing}};
    for (const auto &row : cases) {
        cfg_free_message_stack(c);
        cfg_element *user = cfg_new_map(c);
        if (row.no_password >= 0)
            cfg_map_set_bool(c, user, "no_password", row.no_password);
        if (row.hash != nullptr)
            set(user, "hashed_password", row.hash);
        EXPECT_EQ(run("no_password", user), row.message.empty() ? 1 : 0);
        EXPECT_EQ(messages(), row.message.empty() ? texts{} : texts{row.message});
    }
}

TEST_F(Validators, ConditionTreeText)
{
    const char *tree = R"({"type":3,"fieldname":"a","oper":1,"datatype":2,"value":1})";
    EXPECT_EQ(run("condition", text(tree)), 1);
    EXPECT_EQ(run("condition", text("[1]")), 0);
    EXPECT_EQ(messages(), texts{"Query string is not a valid condition tree"});
}

// Needs the time zone database (tzdata).
TEST_F(Validators, TimezoneLooksInTheZoneDatabase)
{
    if (access("/usr/share/zoneinfo/Europe/Berlin", R_OK) != 0)
        GTEST_SKIP() << "no time zone database (tzdata) on this machine";
    for (const char *zone : {"Europe/Berlin", "Europe"})
        EXPECT_EQ(run("timezone", text(zone)), 1) << zone;
    EXPECT_EQ(run("timezone", text("Mars/Olympus")), 0);
    EXPECT_EQ(run("timezone", text("Europe/" + std::string(300, 'x'))), 0);
    EXPECT_EQ(messages(), texts{});
}

// Needs a system account: a user id from 1 to 999.
TEST_F(Validators, UsernameNotSystemRefusesLowUserIds)
{
    std::string system_account;
    setpwent();
    for (passwd *e = getpwent(); e != nullptr && system_account.empty(); e = getpwent())
        if (e->pw_uid > 0 && e->pw_uid <= 999)
            system_account = e->pw_name;
    endpwent();
    if (system_account.empty())
        GTEST_SKIP() << "no account with a user id from 1 to 999 on this machine";
    EXPECT_EQ(run("username_not_system", text("root")), 1);
    EXPECT_EQ(run("username_not_system", text(system_account)), 0) << system_account;
    EXPECT_EQ(run("username_not_system", text("zr-no-such-user-4711")), 1);
    EXPECT_EQ(messages(), texts{});
}
