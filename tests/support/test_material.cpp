#include "test_material.h"
#include "temp_dir.h"

#include <cstdlib>

namespace zrtest {

namespace {

namespace fs = std::filesystem;

// Only key types every current OpenSSH makes: newer releases cannot make DSA
// keys, so the DSA line the validators accept is a fixed text in their test.
const char generate[] =
    "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes"
    " -keyout key.pem -out cert.pem -subj /CN=device.example -days 2"
    " && openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:prime256v1 -out other.pem"
    " && openssl genrsa -traditional -out rsa.pem 2048"
    " && for k in rsa:2048 ed25519:256 ecdsa:256 ecdsa:384 ecdsa:521; do"
    " ssh-keygen -q -N '' -C user@host -t ${k%:*} -b ${k#*:} -f ssh-$k || exit 1; done"
    " && ssh-keygen -q -s ssh-ecdsa:256 -I test -n user ssh-ed25519:256.pub";

// The file's text; public key lines lose their newline.
std::string read_text(const fs::path &file)
{
    std::string out = read_file(file);
    if (file.extension() == ".pub" && !out.empty() && out.back() == '\n')
        out.pop_back();
    return out;
}

test_material generate_in(const fs::path &dir)
{
    test_material m;
    std::string command = "cd '" + dir.string() + "' && (" + generate + ") >/dev/null 2>&1";
    m.complete = std::system(command.c_str()) == 0;
    m.certificate = read_text(dir / "cert.pem");
    m.key = read_text(dir / "key.pem");
    m.other_key = read_text(dir / "other.pem");
    m.rsa_key = read_text(dir / "rsa.pem");
    m.openssh_key = read_text(dir / "ssh-ed25519:256");
    m.ssh_cert = read_text(dir / "ssh-ed25519:256-cert.pub");
    for (const fs::directory_entry &entry : fs::directory_iterator(dir)) {
        std::string line = read_text(entry.path());
        if (entry.path().extension() == ".pub" && line.find("-cert-") == std::string::npos)
            m.ssh_public[line.substr(0, line.find(' '))] = line;
    }
    return m;
}

} // namespace

const test_material &material()
{
    static const test_material made = [] {
        temp_dir dir;
        return dir.path().empty() ? test_material{} : generate_in(dir.path());
    }();
    return made;
}

} // namespace zrtest
