// ldap_charset_locale.cpp - the process's locale and local code page: which
// code page strings are translated from and to, where it comes from
// (a caller's name, the library's charset names, LDAP_CODEPAGE, or the
// locale's code set), and the public functions that set them.
#include "xlate/ldap_charset.h"
#include "xlate/ldap_charset_internal.h"

#include "base/environment.h"
#include "base/ldap_lock.h"
#include "base/memory.h"
#include "base/trace.h"

#include <cerrno>
#include <clocale>
#include <cstring>
#include <langinfo.h>
#include <pthread.h>

#define LDAP_MODULE "libraries/libldap/ldap_charset"

namespace zldap::charset {
namespace {

// setlocale and nl_langinfo work on process-wide state that the C library
// does not protect: this lock serialises them.
pthread_mutex_t g_charset_lock = PTHREAD_MUTEX_INITIALIZER;

char *g_locale_name; // owned; NULL until ldap_set_locale succeeds
char *g_codepage;    // owned; NULL until settled

// A code set name longer than this is not one the converters know.
constexpr size_t kMaxCodesetName = 32;

struct CharsetRow {
    const char *charset;
    const char *codepage;
};

const CharsetRow kCharsets[] = {
    {"ISO-8859-1", "ISO88591"}, {"ISO-8859-2", "ISO88592"}, {"ISO-8859-5", "ISO88595"},
    {"ISO-8859-6", "ISO88596"}, {"ISO-8859-7", "ISO88597"}, {"ISO-8859-8", "ISO88598"},
    {"ISO-8859-9", "ISO88599"}, {"ISO-8859-15", "ISO885915"}, {"ORN437", "437"},
    {"ORN850", "850"},          {"ORN852", "852"},           {"ORN857", "857"},
    {"ORN862", "862"},          {"ORN864", "864"},           {"ORN866", "866"},
    {"ORN869", "869"},          {"TIS-620", "TIS620"},       {"ORN1250", "1250"},
    {"ORN1251", "1251"},        {"ORN1253", "1253"},         {"ORN1254", "1254"},
    {"ORN1255", "1255"},        {"ORN1256", "1256"},         {"EUC-JP", "EUCJP"},
    {"EUC-KR", "EUCKR"},        {"EUC-CN", "EUCCN"},         {"EUC-TW", "EUCTW"},
    {"Shift-JIS", "SJIS"},      {"GBK", "GBK"},              {"Big5", "BIG5"},
    {"KSC", "949"},             {"GB18030", "GB18030"},      {"ORN-1252", "1252"},
};

void drop_codepage()
{
    mem_free(g_codepage);
    g_codepage = nullptr;
}

// The code set of the current locale as a new string. 0, 89 when the
// locale names none that fits, 90 or 129.
int ldap_nl_langinfo(char **codeset)
{
    *codeset = nullptr;
    if (LDAP_MUTEX_LOCK(&g_charset_lock) != 0)
        return LDAP_LOCK_ERROR;
    const char *name = nl_langinfo(CODESET);
    int rc = LDAP_PARAM_ERROR;
    if (name && *name && std::strlen(name) <= kMaxCodesetName) {
        *codeset = mem_strdup(name);
        rc = *codeset ? LDAP_SUCCESS : LDAP_NO_MEMORY;
    }
    LDAP_MUTEX_UNLOCK(&g_charset_lock);
    return rc;
}

// The code page named by the environment or, failing that, by the locale.
int codepage_from_environment(char **value)
{
    int rc = getenv_copy("LDAP_CODEPAGE", value);
    if (rc != LDAP_SUCCESS)
        return rc;
    if (*value) {
        LDAP_TRACE(TRC_XLATE,
                   "ldap_set_iconv_local_codepage: Using                set in environment variable LDAP_CODEPAGE : "
                   "%s\n",
                   *value);
        return LDAP_SUCCESS;
    }
    rc = ldap_nl_langinfo(value);
    if (rc == LDAP_SUCCESS)
        LDAP_TRACE(TRC_XLATE, "ldap_set_iconv_local_codepage: Using codepage returned by ldap_nl_langinfo : %s\n",
                   *value);
    return rc == LDAP_NO_MEMORY ? rc : rc == LDAP_SUCCESS ? LDAP_SUCCESS : LDAP_PARAM_ERROR;
}

} // namespace

const char *locale_name() { return g_locale_name; }
const char *local_codepage() { return g_codepage; }

int getenv_copy(const char *name, char **value)
{
    *value = ldap_getenv(name);
    return *value || ldap_chkenv(name) == 0 ? LDAP_SUCCESS : LDAP_NO_MEMORY;
}

int set_locale_direct(const char *locale)
{
    LDAP_TRACE(TRC_XLATE, "ldap_set_locale: locale = %s\n", trace_str(locale));
    if (LDAP_MUTEX_LOCK(&g_charset_lock) != 0)
        return LDAP_LOCK_ERROR;
    const char *wanted = locale ? locale : "";
    LDAP_TRACE(TRC_XLATE, "ldap_set_locale: Calling setlocale(LC_ALL, \"%s\")                            \n", wanted);
    const char *name = setlocale(LC_ALL, wanted);
    char *copy = name ? mem_strdup(name) : nullptr;
    if (copy) {
        mem_free(g_locale_name);
        g_locale_name = copy;
    } else if (!name) {
        LDAP_TRACE(TRC_ERROR, "ldap_set_locale: setlocale returned error,             errno = %d\n", errno);
    }
    LDAP_MUTEX_UNLOCK(&g_charset_lock);
    if (!copy)
        return name ? LDAP_NO_MEMORY : LDAP_LOCAL_ERROR;
    // A named locale brings its own code page; the environment's keeps a
    // code page the caller chose.
    if (!locale || *locale)
        drop_codepage();
    return set_codepage_direct(nullptr);
}

int set_codepage_direct(const char *codepage)
{
    LDAP_TRACE(TRC_XLATE, "ldap_set_iconv_local_codepage: codepage = %s\n", trace_str(codepage));
    char *value = nullptr;
    if (codepage) {
        value = mem_strdup(codepage);
        if (!value)
            return LDAP_NO_MEMORY;
        if (g_codepage && !*codepage) {
            LDAP_TRACE(TRC_ERROR, "ldap_set_iconv_local_codepage: Error:                   Empty codepage string\n");
            mem_free(value);
            request_reopen_all();
            return LDAP_PARAM_ERROR;
        }
        drop_codepage();
    } else {
        int rc = codepage_from_environment(&value);
        if (rc != LDAP_SUCCESS) {
            if (rc != LDAP_NO_MEMORY)
                request_reopen_all();
            return rc;
        }
    }
    // Without a name, a code page that is already set stays.
    if (!g_codepage) {
        g_codepage = ldap_get_iconv_compliant_codepage(value);
        if (!g_codepage) {
            LDAP_TRACE(TRC_ERROR, "ldap_set_iconv_local_codepage: Error in                "
                                  "ldap_get_iconv_compliant_codepage - returned NULL\n");
            mem_free(value);
            return LDAP_NO_MEMORY;
        }
    }
    mem_free(value);
    request_reopen_all();
    return LDAP_SUCCESS;
}

int set_charset_direct(const char *charset)
{
    LDAP_TRACE(TRC_XLATE, "ldap_set_iconv_local_charset : charset = %s\n", trace_str(charset));
    if (!g_locale_name)
        set_locale_direct("");
    if (!charset)
        return LDAP_PARAM_ERROR;
    for (const CharsetRow &row : kCharsets)
        if (std::strcmp(row.charset, charset) == 0)
            return set_codepage_direct(row.codepage);
    return LDAP_PARAM_ERROR;
}

} // namespace zldap::charset

using namespace zldap::charset;

// The public setters share ldap_xlate_mutex with the translations, so a
// code page never changes under a converter being opened or used.
int ldap_set_locale(const char *locale)
{
    ldap_lock_xlate_mutex();
    int rc = set_locale_direct(locale);
    ldap_unlock_xlate_mutex();
    return rc;
}

int ldap_set_iconv_local_codepage(const char *codepage)
{
    ldap_lock_xlate_mutex();
    int rc = set_codepage_direct(codepage);
    ldap_unlock_xlate_mutex();
    return rc;
}

int ldap_set_iconv_local_charset(const char *charset)
{
    ldap_lock_xlate_mutex();
    int rc = set_charset_direct(charset);
    ldap_unlock_xlate_mutex();
    return rc;
}

char *ldap_get_iconv_compliant_codepage(const char *codepage)
{
    if (!codepage || !*codepage) {
        LDAP_TRACE(TRC_XLATE, "ldap_get_iconv_compliant_codepage: replacing             NULL or empty codepage "
                              "with ISO-8859-1(default)\n");
        codepage = "ISO8859-1";
    }
    char *copy = zldap::mem_strdup(codepage);
    LDAP_TRACE(TRC_XLATE, "ldap_get_iconv_compliant_codepage(): %s\n", trace_str(copy));
    return copy;
}

char *ldap_get_default_locale_path(void)
{
    char *path = zldap::mem_strdup("/usr/lib/nls/loc");
    LDAP_TRACE(TRC_XLATE, "ldap_get_default_locale_path: path = %s\n", trace_str(path));
    return path;
}
