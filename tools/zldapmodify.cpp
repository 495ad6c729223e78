// zldapmodify - applies LDIF change records (add, delete, modify, modrdn)
// to a directory. Built on the exported zor_ functions (and the SASL bind,
// see CMakeLists.txt).
#include "ldif.h"
#include "session.h"

#include <cstdio>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char *kProgram = "zldapmodify";

int usage()
{
    std::fprintf(stderr, "usage: zldapmodify [-H ldap://host:port | -h host -p port] [-D binddn -w password]\n"
                         "                   [-Y mechanism [-U authcid] [-X authzid] [-R realm] [-w password]]\n"
                         "                   [-t timeout] [-o nettimeout=seconds] [-f file]\n");
    return LDAP_PARAM_ERROR;
}

// A whole file's bytes; false when it can't be read (a directory, say).
bool read_file(const std::string &path, std::string *bytes)
{
    std::FILE *file = std::fopen(path.c_str(), "rb");
    if (!file)
        return false;
    bytes->clear();
    char buffer[65536];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, file)) > 0;)
        bytes->append(buffer, n);
    bool read = !std::ferror(file);
    std::fclose(file);
    return read;
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

// A record's controls as the library's records, over the record's strings,
// which must outlive them.
class Controls {
public:
    explicit Controls(const std::vector<ldif::Control> &controls)
    {
        for (const ldif::Control &c : controls) {
            LDAPControl &control = controls_.emplace_back();
            control.ldctl_oid = const_cast<char *>(c.oid.c_str());
            control.ldctl_iscritical = c.critical ? 1 : 0;
            if (c.value)
                control.ldctl_value = berval{c.value->size(), const_cast<char *>(c.value->data())};
        }
        for (LDAPControl &control : controls_)
            pointers_.push_back(&control);
        pointers_.push_back(nullptr);
    }
    // NULL when there are none, which clears the session's controls.
    LDAPControl **Array() { return controls_.empty() ? nullptr : pointers_.data(); }

private:
    std::vector<LDAPControl> controls_;
    std::vector<LDAPControl *> pointers_;
};

// What the exported family can't do is refused before anything is sent:
// its rename has no new superior.
bool supported(const std::vector<ldif::ChangeRecord> &records, std::string *error)
{
    for (const ldif::ChangeRecord &r : records) {
        if (r.newsuperior) {
            *error = "line " + std::to_string(r.newsuperior_line) +
                     ": newsuperior: moving an entry under a new superior is not available in this tool";
            return false;
        }
    }
    return true;
}

// The record's operation, with its controls as the session's server
// controls, which every operation of the exported family sends; bounded
// by seconds (0: no bound).
int apply(LDAP *ld, const ldif::ChangeRecord &r, int seconds)
{
    Controls controls(r.controls);
    if (int rc = zor_ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, controls.Array()); rc != LDAP_SUCCESS)
        return rc;
    Mods mods;
    for (const auto &[type, values] : r.attributes)
        mods.Add(LDAP_MOD_ADD, type, values);
    for (const ldif::Modification &m : r.modifications)
        mods.Add(m.op == "add" ? LDAP_MOD_ADD : m.op == "delete" ? LDAP_MOD_DELETE : LDAP_MOD_REPLACE, m.type,
                 m.values);
    const char *action = r.changetype == "add"      ? "adding new entry"
                         : r.changetype == "delete" ? "deleting entry"
                         : r.changetype == "modrdn" ? "renaming entry"
                                                    : "modifying entry";
    std::printf("%s \"%s\"\n", action, r.dn.c_str());
    tool::Deadline deadline(kProgram, r.dn, seconds);
    if (r.changetype == "add")
        return zor_ldap_add_s(ld, r.dn.c_str(), mods.Array());
    if (r.changetype == "delete")
        return zor_ldap_delete_s(ld, r.dn.c_str());
    if (r.changetype == "modrdn")
        return zor_ldap_modrdn_s(ld, r.dn.c_str(), r.newrdn.c_str(), r.deleteoldrdn ? 1 : 0);
    return zor_ldap_modify_s(ld, r.dn.c_str(), mods.Array());
}

} // namespace

// Exits with the result code of the first record that fails, or 0.
int main(int argc, char **argv)
{
    tool::SessionOptions session;
    std::string file, error;
    std::string letters = std::string(tool::kSessionLetters) + "f:";
    for (int opt; (opt = getopt(argc, argv, letters.c_str())) != -1;) {
        if (opt == 'f')
            file = optarg;
        else if (int rc = tool::take_session_option(opt, optarg, &session, &error); rc != LDAP_SUCCESS)
            return error.empty() ? usage() : tool::complain(kProgram, error, rc);
    }
    if (optind < argc)
        return usage();
    std::string text;
    if (file.empty())
        text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    else if (!read_file(file, &text))
        return tool::complain(kProgram, "cannot read " + file, LDAP_PARAM_ERROR);
    std::vector<ldif::ChangeRecord> records;
    if (!ldif::read_changes(text, read_file, &records, &error))
        return tool::complain(kProgram, error, LDAP_PARAM_ERROR);
    if (!supported(records, &error))
        return tool::complain(kProgram, error, LDAP_NOT_SUPPORTED);
    int rc = LDAP_SUCCESS;
    LDAP *ld = tool::open_session(kProgram, session, &rc);
    if (!ld)
        return rc;
    for (size_t i = 0; rc == LDAP_SUCCESS && i < records.size(); i++) {
        rc = apply(ld, records[i], session.call_seconds());
        // The rename reports failures before a result as -1.
        if (rc == -1)
            rc = zor_ldap_get_errno(ld);
        if (rc != LDAP_SUCCESS)
            tool::report(kProgram, records[i].dn, rc);
    }
    zor_ldap_unbind(ld);
    return rc;
}
