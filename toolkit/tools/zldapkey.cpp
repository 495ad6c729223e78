// zldapkey - makes and maintains the key database of secure connections:
// trusted CA certificates and client keys with their certificates under
// labels, in a password-protected PKCS#12 file, and its stash file.
// Every change is written to a temporary file and renamed over the
// database, so a failure leaves the old file as it was.
#include "key_database.h"
#include "outside_keys.h"
#include "stash_file.h"

#include <openssl/pem.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <getopt.h>
#include <map>
#include <string>
#include <unistd.h>

namespace {

using namespace zor;

// Exit codes.
enum Exit {
    kOk = 0,
    kUsage = 1,
    kFile = 2,     // missing, unreadable or unwritable file
    kPassword = 3, // wrong password
    kLabel = 4,    // duplicate, unknown or malformed label
    kFormat = 5,   // damaged database or unreadable key or certificate
    kStash = 6,    // stash file readable by group or others
};

constexpr const char *kHelp =
    "usage: zldapkey COMMAND --db FILE [options]\n"
    "\n"
    "Commands:\n"
    "  create   make a new, empty key database (refuses an existing file)\n"
    "  add      add a trusted CA certificate (PEM or DER): --label L --cert FILE\n"
    "  import   add a client key with its certificate under --label L, from\n"
    "           --p12 FILE [--p12-pw TEXT] or --key FILE --cert FILE [--key-pw TEXT]\n"
    "  list     print each entry: label, kind, subject and expiry\n"
    "  delete   remove the entry --label L\n"
    "  chpw     change the password to --new-pw TEXT (or --new-pw-file FILE)\n"
    "  stash    write the stash file (the database name ending in .sth)\n"
    "\n"
    "The database password: --pw TEXT, --pw-file FILE (its first line) or\n"
    "--stashed (read from the stash file). create and chpw take --stash to\n"
    "write the stash file as well.\n"
    "\n"
    "Exit codes: 0 success, 1 usage, 2 file missing or not readable/writable,\n"
    "3 wrong password, 4 label (or key) duplicate, label unknown or malformed,\n"
    "5 damaged or unreadable input, 6 stash file readable by group or others.\n";

struct Options {
    std::string command, db, label, cert, key, p12;
    std::map<std::string, std::string> passwords; // by option name
    bool stashed = false, stash = false;
};

int fail(const std::string &what, KdbStatus status)
{
    std::fprintf(stderr, "zldapkey: %s: %s\n", what.c_str(), kdb_status_text(status));
    switch (status) {
    case KdbStatus::missing_file:
    case KdbStatus::io_error:
        return kFile;
    case KdbStatus::bad_password:
        return kPassword;
    case KdbStatus::duplicate_label:
    case KdbStatus::duplicate_key:
    case KdbStatus::no_such_label:
    case KdbStatus::bad_label:
        return kLabel;
    case KdbStatus::loose_permissions:
        return kStash;
    default:
        return kFormat;
    }
}

int usage(const char *message)
{
    std::fprintf(stderr, "zldapkey: %s (zldapkey --help tells more)\n", message);
    return kUsage;
}

// A password from --NAME TEXT or the first line of --NAME-file FILE.
KdbStatus password_option(const Options &o, const std::string &name, std::string &out)
{
    auto text = o.passwords.find(name);
    if (text != o.passwords.end()) {
        out = text->second;
        return KdbStatus::ok;
    }
    auto file = o.passwords.find(name + "-file");
    if (file == o.passwords.end()) {
        out.clear();
        return KdbStatus::ok;
    }
    KdbStatus status = read_whole_file(file->second, out);
    if (status == KdbStatus::ok)
        out = out.substr(0, out.find('\n'));
    return status;
}

int database_password(const Options &o, std::string &password)
{
    std::string source = o.stashed ? stash_file_name(o.db) : "password file";
    KdbStatus status = o.stashed ? read_stash_file(source, password) : password_option(o, "pw", password);
    if (status != KdbStatus::ok)
        return fail(source, status);
    if (password.empty())
        return usage("the database password is missing (--pw, --pw-file or --stashed)");
    return kOk;
}

int open_database(const Options &o, std::string &password, KeyDatabase &db)
{
    int rc = database_password(o, password);
    if (rc != kOk)
        return rc;
    KdbStatus status = read_key_database(o.db, password, db);
    return status == KdbStatus::ok ? kOk : fail(o.db, status);
}

int save(const Options &o, const std::string &password, const KeyDatabase &db)
{
    KdbStatus status = write_key_database(o.db, password, db);
    return status == KdbStatus::ok ? kOk : fail(o.db, status);
}

int write_stash(const Options &o, const std::string &password)
{
    std::string name = stash_file_name(o.db);
    KdbStatus status = write_stash_file(name, password);
    if (status != KdbStatus::ok)
        return fail(name, status);
    std::printf("stash file written: %s\n", name.c_str());
    return kOk;
}

int read_input(const std::string &path, std::string &bytes)
{
    KdbStatus status = read_whole_file(path, bytes);
    return status == KdbStatus::ok ? kOk : fail(path, status);
}

int create(const Options &o)
{
    std::string password;
    int rc = database_password(o, password);
    if (rc != kOk)
        return rc;
    if (access(o.db.c_str(), F_OK) == 0) {
        std::fprintf(stderr, "zldapkey: %s: the file already exists\n", o.db.c_str());
        return kFile;
    }
    rc = save(o, password, KeyDatabase());
    return rc == kOk && o.stash ? write_stash(o, password) : rc;
}

int add(const Options &o)
{
    if (o.label.empty() || o.cert.empty())
        return usage("add needs --label and --cert");
    std::string password, bytes;
    KeyDatabase db;
    int rc = open_database(o, password, db);
    if (rc == kOk)
        rc = read_input(o.cert, bytes);
    if (rc != kOk)
        return rc;
    X509Ptr cert;
    KdbStatus status = parse_certificate(bytes, cert);
    if (status != KdbStatus::ok)
        return fail(o.cert, status);
    status = db.add_trusted(o.label, std::move(cert));
    return status == KdbStatus::ok ? save(o, password, db) : fail(o.label, status);
}

int read_key_pair(const Options &o, PkeyPtr &key, X509Ptr &cert)
{
    std::string bytes, secret;
    bool pkcs12 = !o.p12.empty();
    if (pkcs12 == !o.key.empty() || (!pkcs12 && o.cert.empty()))
        return usage("import needs --p12 FILE, or --key FILE and --cert FILE");
    KdbStatus status = password_option(o, pkcs12 ? "p12-pw" : "key-pw", secret);
    int rc = status == KdbStatus::ok ? read_input(pkcs12 ? o.p12 : o.key, bytes) : fail("password file", status);
    if (rc != kOk)
        return rc;
    status = pkcs12 ? parse_pkcs12_key(bytes, secret, key, cert) : parse_pem_key(bytes, secret, key);
    if (status != KdbStatus::ok)
        return fail(pkcs12 ? o.p12 : o.key, status);
    if (pkcs12)
        return kOk;
    rc = read_input(o.cert, bytes);
    if (rc != kOk)
        return rc;
    status = parse_certificate(bytes, cert);
    return status == KdbStatus::ok ? kOk : fail(o.cert, status);
}

int import(const Options &o)
{
    if (o.label.empty())
        return usage("import needs --label");
    PkeyPtr key;
    X509Ptr cert;
    int rc = read_key_pair(o, key, cert);
    std::string password;
    KeyDatabase db;
    if (rc == kOk)
        rc = open_database(o, password, db);
    if (rc != kOk)
        return rc;
    KdbStatus status = db.add_key(o.label, std::move(key), std::move(cert));
    return status == KdbStatus::ok ? save(o, password, db) : fail(o.label, status);
}

std::string subject_of(X509 *cert)
{
    BioPtr bio(BIO_new(BIO_s_mem()));
    char *text = nullptr;
    if (!bio || X509_NAME_print_ex(bio.get(), X509_get_subject_name(cert), 0, XN_FLAG_RFC2253) < 0)
        return "?";
    long length = BIO_get_mem_data(bio.get(), &text);
    return std::string(text, length > 0 ? static_cast<size_t>(length) : 0);
}

std::string expiry_of(X509 *cert)
{
    struct tm tm {};
    char text[32];
    if (!ASN1_TIME_to_tm(X509_get0_notAfter(cert), &tm) || !std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm))
        return "?";
    return text;
}

int list(const Options &o)
{
    std::string password;
    KeyDatabase db;
    int rc = open_database(o, password, db);
    if (rc != kOk)
        return rc;
    for (const KdbEntry &e : db.entries())
        std::printf("%s\t%s\t%s\texpires %s\n", e.label.c_str(), e.key ? "key" : "trusted", subject_of(e.cert.get()).c_str(),
                    expiry_of(e.cert.get()).c_str());
    return kOk;
}

int remove(const Options &o)
{
    if (o.label.empty())
        return usage("delete needs --label");
    std::string password;
    KeyDatabase db;
    int rc = open_database(o, password, db);
    if (rc != kOk)
        return rc;
    KdbStatus status = db.remove(o.label);
    return status == KdbStatus::ok ? save(o, password, db) : fail(o.label, status);
}

int change_password(const Options &o)
{
    std::string password, fresh;
    KeyDatabase db;
    int rc = open_database(o, password, db);
    if (rc != kOk)
        return rc;
    KdbStatus status = password_option(o, "new-pw", fresh);
    if (status != KdbStatus::ok)
        return fail("new password file", status);
    if (fresh.empty())
        return usage("chpw needs --new-pw or --new-pw-file");
    rc = save(o, fresh, db);
    // A stash file holding the old password would no longer open the
    // database: it is rewritten when asked for, or when it exists.
    if (rc == kOk && (o.stash || access(stash_file_name(o.db).c_str(), F_OK) == 0))
        rc = write_stash(o, fresh);
    return rc;
}

int stash(const Options &o)
{
    std::string password;
    KeyDatabase db;
    int rc = open_database(o, password, db); // proves the password first
    return rc == kOk ? write_stash(o, password) : rc;
}

int parse(int argc, char **argv, Options &o)
{
    enum { kDb = 1000, kLabelOpt, kCert, kKey, kP12, kStashed, kStashOpt, kHelpOpt, kSecret };
    static const option long_options[] = {
        {"db", required_argument, nullptr, kDb},
        {"label", required_argument, nullptr, kLabelOpt},
        {"cert", required_argument, nullptr, kCert},
        {"key", required_argument, nullptr, kKey},
        {"p12", required_argument, nullptr, kP12},
        {"stashed", no_argument, nullptr, kStashed},
        {"stash", no_argument, nullptr, kStashOpt},
        {"help", no_argument, nullptr, kHelpOpt},
        {"pw", required_argument, nullptr, kSecret},
        {"pw-file", required_argument, nullptr, kSecret},
        {"new-pw", required_argument, nullptr, kSecret},
        {"new-pw-file", required_argument, nullptr, kSecret},
        {"p12-pw", required_argument, nullptr, kSecret},
        {"p12-pw-file", required_argument, nullptr, kSecret},
        {"key-pw", required_argument, nullptr, kSecret},
        {"key-pw-file", required_argument, nullptr, kSecret},
        {nullptr, 0, nullptr, 0},
    };
    int index = 0, c;
    opterr = 0;
    while ((c = getopt_long(argc, argv, "", long_options, &index)) != -1) {
        switch (c) {
        case kDb: o.db = optarg; break;
        case kLabelOpt: o.label = optarg; break;
        case kCert: o.cert = optarg; break;
        case kKey: o.key = optarg; break;
        case kP12: o.p12 = optarg; break;
        case kStashed: o.stashed = true; break;
        case kStashOpt: o.stash = true; break;
        case kHelpOpt: std::fputs(kHelp, stdout); return -1;
        case kSecret: o.passwords[long_options[index].name] = optarg; break;
        default: return usage("unknown option or missing value");
        }
    }
    if (optind + 1 != argc)
        return usage("one command is needed");
    o.command = argv[optind];
    return o.db.empty() ? usage("--db is needed") : kOk;
}

} // namespace

int main(int argc, char **argv)
{
    Options o;
    int rc = parse(argc, argv, o);
    if (rc != kOk)
        return rc < 0 ? kOk : rc;
    static const std::map<std::string, int (*)(const Options &)> commands = {
        {"create", create}, {"add", add},       {"import", import},        {"list", list},
        {"delete", remove}, {"chpw", change_password}, {"stash", stash},
    };
    auto command = commands.find(o.command);
    if (command == commands.end())
        return usage("unknown command");
    return command->second(o);
}
