// zldapmodify (and zldapadd) - applies LDIF change records (add, delete,
// modify, modrdn) to a directory, with the options and messages of
// ldapmodify. Built on the published interface of the static library
// (see CMakeLists.txt).
#include "ldif.h"
#include "session.h"
#include "zor8ldap_api.h"

#include <cstdio>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

// zldapadd is this program built with ZLDAP_ADD_BY_DEFAULT: records
// without a changetype are adds, as with ldapmodify -a.
#ifdef ZLDAP_ADD_BY_DEFAULT
constexpr bool kAddByDefault = true;
constexpr const char *kProgram = "zldapadd";
#else
constexpr bool kAddByDefault = false;
constexpr const char *kProgram = "zldapmodify";
#endif

namespace {

const std::string kUsage = std::string("usage: ") + kProgram +
                           " [options]\n"
                           "  applies the LDIF change records read from standard input or from -f file\n"
                           "  -a         records without a changetype are adds (" +
                           (kAddByDefault ? "always, in zldapadd" : "the default of zldapadd") +
                           "); else they are modifies\n";

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

// The controls of the command line followed by a record's own, over the
// record's strings, which must outlive them.
class Controls {
public:
    Controls(LDAPControl **general, const std::vector<ldif::Control> &controls)
    {
        for (const ldif::Control &c : controls) {
            LDAPControl &control = controls_.emplace_back();
            control.ldctl_oid = const_cast<char *>(c.oid.c_str());
            control.ldctl_iscritical = c.critical ? 1 : 0;
            if (c.value)
                control.ldctl_value = berval{c.value->size(), const_cast<char *>(c.value->data())};
        }
        for (LDAPControl **g = general; g && *g; g++)
            pointers_.push_back(*g);
        for (LDAPControl &control : controls_)
            pointers_.push_back(&control);
        pointers_.push_back(nullptr);
    }
    // NULL when there are none.
    LDAPControl **Array() { return pointers_.size() == 1 ? nullptr : pointers_.data(); }

private:
    std::vector<LDAPControl> controls_;
    std::vector<LDAPControl *> pointers_;
};

// What ldapmodify prints before a record's operation.
const char *action(const ldif::ChangeRecord &r)
{
    return r.changetype == "add"      ? "adding new entry"
           : r.changetype == "delete" ? "deleting entry"
           : r.changetype == "modrdn" ? "modifying rdn of entry"
                                      : "modifying entry";
}

// The record's operation with the controls; bounded by seconds (0: no
// bound). The result code, reported as ldapmodify reports it.
int apply(LDAP *ld, const ldif::ChangeRecord &r, LDAPControl **general, int seconds)
{
    Controls controls(general, r.controls);
    Mods mods;
    for (const auto &[type, values] : r.attributes)
        mods.Add(LDAP_MOD_ADD, type, values);
    for (const ldif::Modification &m : r.modifications)
        mods.Add(m.op == "add" ? LDAP_MOD_ADD : m.op == "delete" ? LDAP_MOD_DELETE : LDAP_MOD_REPLACE, m.type,
                 m.values);
    tool::Deadline deadline(kProgram, r.dn, seconds);
    const char *dn = r.dn.c_str();
    if (r.changetype == "add")
        return tool::report_result(ld, "ldap_add", ldap_add_ext_s(ld, dn, mods.Array(), controls.Array(), nullptr));
    if (r.changetype == "delete")
        return tool::report_result(ld, "ldap_delete", ldap_delete_ext_s(ld, dn, controls.Array(), nullptr));
    if (r.changetype == "modrdn")
        return tool::report_result(ld, "ldap_rename",
                                   ldap_rename_s(ld, dn, r.newrdn.c_str(), r.newsuperior ? r.newsuperior->c_str() : nullptr,
                                                 r.deleteoldrdn ? 1 : 0, controls.Array(), nullptr));
    return tool::report_result(ld, "ldap_modify", ldap_modify_ext_s(ld, dn, mods.Array(), controls.Array(), nullptr));
}

} // namespace

// Exits with the result code of the last record that failed, or 0.
int main(int argc, char **argv)
{
    tool::SessionOptions session{.program = kProgram};
    bool add_by_default = kAddByDefault;
    auto take = [&](int, const char *, std::string *) { return add_by_default = true; };
    if (int rc = tool::read_command_line(argc, argv, kUsage.c_str(), "a", take, &session); rc >= 0)
        return rc;
    if (optind < argc)
        return tool::usage_error(kUsage.c_str());
    std::string error;
    std::string text;
    if (session.file.empty())
        text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    else if (!read_file(session.file, &text))
        return tool::complain(kProgram, "cannot read " + session.file, LDAP_PARAM_ERROR);
    std::vector<ldif::ChangeRecord> records;
    if (!ldif::read_changes(text, read_file, &records, &error, add_by_default))
        return tool::complain(kProgram, error, LDAP_PARAM_ERROR);
    if (session.dry_run) {
        for (const ldif::ChangeRecord &r : records)
            std::printf("!%s \"%s\"\n\n", action(r), r.dn.c_str());
        return LDAP_SUCCESS;
    }
    int rc = LDAP_SUCCESS;
    tool::ControlList general;
    LDAP *ld = tool::open_session(session, &general, &rc);
    if (!ld)
        return rc;
    int last_failure = LDAP_SUCCESS;
    for (size_t i = 0; i < records.size() && (last_failure == LDAP_SUCCESS || session.continuous); i++) {
        std::printf("%s \"%s\"\n", action(records[i]), records[i].dn.c_str());
        if (rc = apply(ld, records[i], general.Array(), session.call_seconds()); rc != LDAP_SUCCESS)
            last_failure = rc;
        std::printf("\n");
        std::fflush(stdout);
    }
    ldap_unbind(ld);
    return last_failure;
}
