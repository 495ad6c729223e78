// zldapmodify - applies LDIF change records (add, delete, modify, modrdn)
// to a directory. Built only on the exported functions of libzor8ldap_64.so.
#include "ldif.h"
#include "zor8ldap.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

void usage()
{
    std::fprintf(stderr, "usage: zldapmodify [-H url | -h host -p port] [-D binddn -w password] [-f file]\n");
}

// LDAPMod records over a record's strings, which must outlive them.
class Mods {
public:
    void Add(int op, const std::string &type, const ldif::Values &values)
    {
        auto &vals = bvals_.emplace_back();
        for (const std::string &v : values)
            vals.push_back(berval{v.size(), const_cast<char *>(v.data())});
        auto &ptrs = pointers_.emplace_back();
        for (berval &bv : vals)
            ptrs.push_back(&bv);
        ptrs.push_back(nullptr);
        auto mod = std::make_unique<LDAPMod>();
        mod->mod_op = op | LDAP_MOD_BVALUES;
        mod->mod_type = const_cast<char *>(type.c_str());
        mod->mod_bvalues = ptrs.data();
        mods_.push_back(std::move(mod));
    }
    LDAPMod **Array()
    {
        array_.clear();
        for (auto &m : mods_)
            array_.push_back(m.get());
        array_.push_back(nullptr);
        return array_.data();
    }

private:
    std::vector<std::vector<berval>> bvals_;
    std::vector<std::vector<berval *>> pointers_;
    std::vector<std::unique_ptr<LDAPMod>> mods_;
    std::vector<LDAPMod *> array_;
};

int apply(LDAP *ld, const ldif::ChangeRecord &r)
{
    Mods mods;
    if (r.changetype == "add") {
        for (const auto &[type, values] : r.attributes)
            mods.Add(LDAP_MOD_ADD, type, values);
        std::printf("adding new entry \"%s\"\n", r.dn.c_str());
        return zor_ldap_add_s(ld, r.dn.c_str(), mods.Array());
    }
    if (r.changetype == "delete") {
        std::printf("deleting entry \"%s\"\n", r.dn.c_str());
        return zor_ldap_delete_s(ld, r.dn.c_str());
    }
    if (r.changetype == "modrdn") {
        std::printf("renaming entry \"%s\"\n", r.dn.c_str());
        return zor_ldap_modrdn_s(ld, r.dn.c_str(), r.newrdn.c_str(), r.deleteoldrdn ? 1 : 0);
    }
    for (const ldif::Modification &m : r.modifications)
        mods.Add(m.op == "add" ? LDAP_MOD_ADD : m.op == "delete" ? LDAP_MOD_DELETE : LDAP_MOD_REPLACE, m.type,
                 m.values);
    std::printf("modifying entry \"%s\"\n", r.dn.c_str());
    return zor_ldap_modify_s(ld, r.dn.c_str(), mods.Array());
}

} // namespace

int main(int argc, char **argv)
{
    std::string url, host = "localhost", binddn, password, file;
    int port = LDAP_PORT;
    for (int opt; (opt = getopt(argc, argv, "H:h:p:D:w:f:")) != -1;) {
        switch (opt) {
        case 'H': url = optarg; break;
        case 'h': host = optarg; break;
        case 'p': port = std::atoi(optarg); break;
        case 'D': binddn = optarg; break;
        case 'w': password = optarg; break;
        case 'f': file = optarg; break;
        default: usage(); return LDAP_PARAM_ERROR;
        }
    }
    std::string text;
    if (file.empty()) {
        text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    } else {
        std::ifstream in(file);
        if (!in) {
            std::fprintf(stderr, "zldapmodify: cannot read %s\n", file.c_str());
            return LDAP_PARAM_ERROR;
        }
        std::ostringstream all;
        all << in.rdbuf();
        text = all.str();
    }
    std::vector<ldif::ChangeRecord> records;
    std::string error;
    if (!ldif::read_changes(text, &records, &error)) {
        std::fprintf(stderr, "zldapmodify: %s\n", error.c_str());
        return LDAP_PARAM_ERROR;
    }
    LDAP *ld = url.empty() ? zor_ldap_init(host.c_str(), port) : zor_ldap_init(url.c_str(), 0);
    if (!ld) {
        std::fprintf(stderr, "zldapmodify: cannot make a session\n");
        return LDAP_PARAM_ERROR;
    }
    int rc = binddn.empty() ? 0 : zor_ldap_simple_bind_s(ld, binddn.c_str(), password.c_str());
    if (rc != 0)
        std::fprintf(stderr, "zldapmodify: bind: %s (%d)\n", zor_ldap_err2string(rc), rc);
    for (size_t i = 0; rc == 0 && i < records.size(); i++) {
        rc = apply(ld, records[i]);
        if (rc != 0)
            std::fprintf(stderr, "zldapmodify: %s: %s (%d)\n", records[i].dn.c_str(), zor_ldap_err2string(rc), rc);
    }
    zor_ldap_unbind(ld);
    return rc;
}
