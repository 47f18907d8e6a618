// Keys and certificates made with the openssl and ssh-keygen commands, once
// per test process, in a temporary directory removed right afterwards.
#pragma once

#include <map>
#include <string>

namespace zrtest {

struct test_material {
    std::string certificate; // self-signed EC certificate, common name "device.example"
    std::string key;         // its private key (PEM, PKCS#8)
    std::string other_key;   // an EC key that does not match it
    std::string rsa_key;     // a traditional PEM RSA private key
    std::string openssh_key; // a private key in OpenSSH's own format
    std::string ssh_cert;    // an ed25519 user certificate line
    std::map<std::string, std::string> ssh_public; // key type -> public key line
    bool complete = false;   // every command succeeded
};

const test_material &material();

} // namespace zrtest
