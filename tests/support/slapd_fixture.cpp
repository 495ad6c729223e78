// slapd_fixture.cpp - configuration, data, start and stop of the test slapd.
#include "slapd_fixture.h"

#include "child_process.h"
#include "ldif.h"
#include "loopback.h"

#include <cstdio>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace zldap_test {

namespace {

constexpr const char *kSlapd = "/usr/sbin/slapd";
constexpr const char *kSlapadd = "/usr/sbin/slapadd";

std::string Config(const std::string &dir, const SlapdData &data)
{
    std::ostringstream c;
    c << "include /etc/ldap/schema/core.schema\n"
         "include /etc/ldap/schema/cosine.schema\n"
         "include /etc/ldap/schema/inetorgperson.schema\n"
      << "pidfile " << dir << "/slapd.pid\n"
      << "modulepath /usr/lib/ldap\nmoduleload back_mdb\n";
    for (const std::string &overlay : data.overlays)
        c << "moduleload " << overlay << "\n";
    if (!data.authz_policy.empty())
        c << "authz-policy " << data.authz_policy << "\n";
    if (data.sasl)
        c << "sasl-auxprops slapd\nsasl-secprops none\n"
          << "authz-regexp \"uid=([^,]*),cn=.*,cn=auth\" \"uid=$1," << Slapd::kPeople << "\"\n";
    if (!data.tls_cert.empty()) {
        const std::string &pki = TestPki();
        c << "TLSCACertificateFile " << pki << "/ca.pem\nTLSCertificateFile " << pki << "/" << data.tls_cert
          << ".pem\nTLSCertificateKeyFile " << pki << "/" << data.tls_cert << ".key\n"
          << (data.tls_verify_client ? "TLSVerifyClient demand\n" : "")
          << (data.tls_ciphers.empty() ? "" : "TLSCipherSuite " + data.tls_ciphers + "\n");
    }
    c << "sizelimit unlimited\n"
         "database mdb\nmaxsize 268435456\n"
      << "suffix \"" << Slapd::kBase << "\"\n"
      << "rootdn \"" << Slapd::kRootDn << "\"\n"
      << "rootpw " << Slapd::kRootPassword << "\n"
      << "directory " << dir << "/db\n"
      // Users may change their own password (the password modify operation).
      << "access to attrs=userPassword by self write by * auth\n"
      << "access to * by dn.exact=\"" << Slapd::kRootDn << "\" write by * read\n";
    for (const std::string &overlay : data.overlays)
        c << "overlay " << overlay << "\n";
    c << data.overlay_config;
    return c.str();
}

std::string Data(const SlapdData &data)
{
    std::ostringstream l;
    l << "dn: dc=example,dc=com\nobjectClass: dcObject\nobjectClass: organization\no: Example\ndc: example\n\n"
         "dn: ou=people,dc=example,dc=com\nobjectClass: organizationalUnit\nou: people\n\n"
         "dn: ou=special,dc=example,dc=com\nobjectClass: organizationalUnit\nou: special\n\n"
         "dn: ou=scratch,dc=example,dc=com\nobjectClass: organizationalUnit\nou: scratch\n\n";
    for (int i = 0; i < data.people; i++) {
        char uid[16];
        std::snprintf(uid, sizeof uid, "user%03d", i);
        l << "dn: uid=" << uid << ",ou=people,dc=example,dc=com\n"
          << "objectClass: inetOrgPerson\nuid: " << uid << "\ncn: User " << i << "\nsn: Number" << i << "\n"
          << "mail: " << uid << "@example.com\nmail: " << uid << "@mail.example.com\n"
          << "telephoneNumber: +1 555 " << 1000 + i << "\n";
        if (i % 10 == 0) {
            std::string photo("\x89PNG\0\0\x01\x02", 8);
            photo += std::string(1, static_cast<char>(i % 256)) + std::string("\0end", 4);
            l << "jpegPhoto:: " << ldif::base64_encode(photo) << "\n";
        }
        l << "\n";
    }
    // Entries whose names need escaping in a DN: the DN as stored, its cn.
    const std::pair<const char *, const char *> escaped[] = {
        {"Smith\\, John", "Smith, John"}, {"a\\+b", "a+b"}, {"\\\"quoted\\\"", "\"quoted\""},
        {"back\\\\slash", "back\\slash"}, {"\\#hash", "#hash"}, {"J\xC3\xBCrgen", "J\xC3\xBCrgen"}};
    for (const auto &[rdn, cn] : escaped)
        l << "dn:: " << ldif::base64_encode("cn=" + std::string(rdn) + ",ou=special,dc=example,dc=com")
          << "\ncn:: " << ldif::base64_encode(cn) << "\nobjectClass: person\nsn: special\n\n";
    if (data.bulk > 0) {
        l << "dn: ou=bulk,dc=example,dc=com\nobjectClass: organizationalUnit\nou: bulk\n\n";
        for (int i = 0; i < data.bulk; i++)
            l << "dn: cn=bulk" << i << ",ou=bulk,dc=example,dc=com\nobjectClass: person\ncn: bulk" << i
              << "\nsn: Bulk\ndescription: entry " << i << " of the large subtree\ntelephoneNumber: " << i << "\n\n";
    }
    if (data.sasl)
        l << "dn: " << Slapd::kSaslUser << "\nobjectClass: inetOrgPerson\nuid: sasl\ncn: SASL\nsn: SASL\nuserPassword: "
          << Slapd::kSaslPassword << "\nauthzTo: dn.exact:uid=user000," << Slapd::kPeople << "\n\n";
    l << data.ldif;
    return l.str();
}

} // namespace

const std::string &TestPki()
{
    static TempDir dir;
    static const std::string made = [] {
        std::string sh = "cd " + dir.path() +
                         " && ec='-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2'"
                         " && for c in ca other; do openssl req -x509 $ec -keyout $c.key -out $c.pem -subj /CN=$c-ca; done"
                         " && echo subjectAltName=IP:127.0.0.1,DNS:localhost > san"
                         " && mk() { openssl req $ec -keyout $1.key -out $1.csr -subj /CN=$1 && openssl x509 -req"
                         " -in $1.csr -CA $2.pem -CAkey $2.key -CAcreateserial -days $3 -extfile san -out $1.pem; }"
                         " && mk server ca 2 && mk expired ca -1 && mk stranger other 2 && mk client ca 2"
                         " && k=" ZLDAP_ZLDAPKEY " && $k create --db keys.kdb --pw pw --stash"
                         " && $k add --db keys.kdb --pw pw --label ca --cert ca.pem"
                         " && $k import --db keys.kdb --pw pw --label client --key client.key --cert client.pem";
        return std::system(("(" + sh + ") >" + dir.file("pki.log") + " 2>&1").c_str()) == 0 ? dir.path() : std::string("pki failed");
    }();
    return made;
}

std::string ReferralLdif(const std::string &dn, const std::string &url)
{
    return "dn: " + dn + "\nobjectClass: referral\nobjectClass: extensibleObject\nou: " + dn.substr(3, dn.find(',') - 3) +
           "\nref: " + url + "\n\n";
}

bool Slapd::Available() { return access(kSlapd, X_OK) == 0 && access(kSlapadd, X_OK) == 0; }

Slapd::Slapd(const SlapdData &data) : data_(data)
{
    if (Available() && Setup())
        Launch();
}

Slapd::~Slapd() { Stop(); }

bool Slapd::Setup()
{
    std::string dir = dir_.path();
    if (mkdir((dir + "/db").c_str(), 0700) != 0) {
        error_ = "cannot make the database directory";
        return false;
    }
    std::ofstream(dir + "/slapd.conf") << Config(dir, data_);
    std::ofstream(dir + "/data.ldif") << Data(data_);
    if (Run({kSlapadd, "-q", "-f", dir + "/slapd.conf", "-l", dir + "/data.ldif"}, dir + "/slapadd.log") != 0) {
        error_ = "slapadd failed: " + ReadFile(dir + "/slapadd.log");
        return false;
    }
    return true;
}

bool Slapd::Launch()
{
    std::string dir = dir_.path();
    for (int attempt = 0; attempt < 5 && pid_ < 0; attempt++) {
        port_ = data_.port ? data_.port : RefusedPort().port(); // free a moment ago; a retry covers a port taken since
        std::string listen = "ldap://127.0.0.1:" + std::to_string(port_) + "/";
        if (!data_.tls_cert.empty()) {
            ldaps_port_ = data_.ldaps_port ? data_.ldaps_port : RefusedPort().port();
            listen += " ldaps://127.0.0.1:" + std::to_string(ldaps_port_) + "/";
        }
        if (data_.sasl) {
            listen += " ldapi://";
            for (char c : socket_path())
                listen += c == '/' ? std::string("%2F") : std::string(1, c);
        }
        // -d keeps slapd in the foreground, so that this pid is the server's.
        pid_t pid = Spawn({kSlapd, "-f", dir + "/slapd.conf", "-h", listen, "-d", "0"}, dir + "/slapd.log");
        if (pid < 0)
            break;
        auto listening = [&] { return Connects(AF_INET, port_) && (!ldaps_port_ || Connects(AF_INET, ldaps_port_)); };
        if (AwaitReady(pid, listening)) {
            pid_ = pid;
            return true;
        }
    }
    error_ = "slapd did not start: " + ReadFile(dir + "/slapd.log");
    return false;
}

void Slapd::Stop() { StopChild(&pid_); }

Slapd &SharedSlapd()
{
    // Destroyed at exit, which stops the server by its pid.
    static Slapd server;
    return server;
}

} // namespace zldap_test
