// user_info_test.cpp - the user information file: items of several users,
// the protected password and its decoy words, both file layouts, damaged
// files and the file's permissions. Every test names its own file in a
// temporary directory; the default path is only computed, never written.
#include "dns/user_info.h"

#include "base/memory.h"
#include "ber_test_support.h"
#include "fresh_process.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <fstream>
#include <pwd.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using zldap_test::Bytes;
using zldap_test::Hex;
using zldap_test::Join;
using zldap_test::Text;

std::string Me() { return getpwuid(getuid())->pw_name; }

// A record in the file layout; `extra` bytes go before each item length
// (4 in the older layout). Items: domain, text, password; nullptr absent.
Bytes RecordBytes(const std::string &name, std::vector<const char *> items, int extra = 0)
{
    Bytes out = Join({{static_cast<unsigned char>(name.size())}, Text(name)});
    for (const char *item : items) {
        if (!item) {
            out.push_back(0);
            continue;
        }
        size_t n = std::strlen(item);
        out.push_back(1);
        out.insert(out.end(), static_cast<size_t>(extra), 0xEE);
        out.insert(out.end(), {0, 0, static_cast<unsigned char>(n >> 8), static_cast<unsigned char>(n)});
        out.insert(out.end(), item, item + n);
    }
    return out;
}

void WriteBytes(const std::string &path, const Bytes &bytes)
{
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char *>(bytes.data()),
                                               static_cast<std::streamsize>(bytes.size()));
}

Bytes ReadBytes(const std::string &path)
{
    std::string s = zldap_test::ReadFile(path);
    return Bytes(s.begin(), s.end());
}

// The item of a kind, or the code.
std::string Get(const std::string &path, int kind)
{
    char *data = nullptr;
    int length = 0;
    int rc = ldap_user_info_lookup(path.c_str(), kind, &data, &length);
    std::string out = rc == 0 ? std::string(data, static_cast<size_t>(length)) : "rc " + std::to_string(rc);
    ldap_memfree(data);
    return out;
}

std::string Password(const std::string &path, const char *key)
{
    char *data = nullptr;
    int length = 0;
    int rc = ldap_get_user_info_password(key, &data, &length, path.c_str());
    std::string out = rc == 0 ? std::string(data, static_cast<size_t>(length)) : "rc " + std::to_string(rc);
    ldap_memfree(data);
    return out;
}

TEST(UserInfo, ItemsOfTheCurrentUserAmongOthers)
{
    zldap_test::TempDir dir;
    const std::string path = dir.file("ldap_user_info");
    EXPECT_EQ(Get(path, LDAP_USER_INFO_TEXT), "rc 32"); // no file yet
    // Two records of the current user: lookups read the first, updates
    // change the last; other users' records stay as they were.
    const Bytes alice = RecordBytes("alice", {"a.example", "alice text", nullptr});
    WriteBytes(path, Join({alice, RecordBytes(Me(), {"first.example", nullptr, nullptr}),
                           RecordBytes(Me(), {"second.example", nullptr, nullptr}),
                           RecordBytes("bob", {nullptr, "bob text", nullptr})}));
    EXPECT_EQ(Get(path, LDAP_USER_INFO_DOMAIN), "first.example");
    EXPECT_EQ(Get(path, LDAP_USER_INFO_TEXT), "rc 32");
    ASSERT_EQ(ldap_set_user_info_text("my text", path.c_str()), 0);
    ASSERT_EQ(ldap_set_user_info_domain(nullptr, path.c_str()), 0);
    EXPECT_EQ(ReadBytes(path), Join({alice, RecordBytes(Me(), {"first.example", nullptr, nullptr}),
                                     RecordBytes(Me(), {nullptr, "my text", nullptr}),
                                     RecordBytes("bob", {nullptr, "bob text", nullptr})}));
    // A record left without items is not written.
    ASSERT_EQ(ldap_user_info_update(path.c_str(), LDAP_USER_INFO_TEXT, nullptr, 0), 0);
    EXPECT_EQ(ReadBytes(path), Join({alice, RecordBytes(Me(), {"first.example", nullptr, nullptr}),
                                     RecordBytes("bob", {nullptr, "bob text", nullptr})}));

    char *text = nullptr;
    EXPECT_EQ(ldap_get_user_info_domain(&text, path.c_str()), 0);
    EXPECT_STREQ(text, "first.example");
    ldap_memfree(text);
    EXPECT_EQ(ldap_user_info_lookup(path.c_str(), 4, &text, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_user_info_lookup(path.c_str(), LDAP_USER_INFO_TEXT, nullptr, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_user_info_update(path.c_str(), 0, "x", 1), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_user_info_password(nullptr, &text, nullptr, path.c_str()), LDAP_PARAM_ERROR);
}

TEST(UserInfo, PasswordWithItsKeyElseADecoy)
{
    zldap_test::TempDir dir;
    const std::string path = dir.file("ldap_user_info");
    const std::string secret("pass\0word!", 10);
    ASSERT_EQ(ldap_set_user_info_password("key", secret.data(), 10, path.c_str()), 0);
    std::string blob = Get(path, LDAP_USER_INFO_PASSWORD);
    EXPECT_GE(blob.size(), 54u);
    EXPECT_LE(blob.size(), 1023u);
    EXPECT_EQ(blob.find("pass"), std::string::npos);
    EXPECT_EQ(Password(path, "key"), secret);
    // Another key gives a word, the same one every time.
    std::string decoy = Password(path, "KEY");
    EXPECT_NE(decoy, secret);
    EXPECT_EQ(decoy.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"),
              std::string::npos);
    EXPECT_EQ(Password(path, "KEY"), decoy);
    ASSERT_EQ(ldap_set_user_info_password("key", nullptr, 0, path.c_str()), 0);
    EXPECT_EQ(Password(path, "key"), "rc 32");
}

TEST(UserInfo, ProtectedBlobs)
{
    // Every seed gives a blob of 44 to 1023 bytes more than the data that
    // only its key opens; a changed byte anywhere gives a decoy.
    const uint8_t data[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 0};
    for (unsigned seed = 0; seed < 50; seed++) {
        uint8_t *blob = nullptr;
        size_t length = 0;
        ASSERT_EQ(zldap::user_info_protect("k\xC3\xA9y", data, sizeof data, seed, &blob, &length), 0);
        EXPECT_GE(length, 54u);
        EXPECT_LE(length, 1023u + 54u);
        for (size_t flip : {size_t{0}, size_t{21}, length / 2, length - 1}) {
            for (int pass = 0; pass < 2; pass++) { // as written, then with the byte changed
                char *out = nullptr;
                int out_length = 0;
                ASSERT_EQ(zldap::user_info_recover("k\xC3\xA9y", blob, length, &out, &out_length), 0);
                bool genuine = out_length == 10 && std::memcmp(out, data, sizeof data) == 0;
                EXPECT_EQ(genuine, pass == 0) << "seed " << seed << " byte " << flip;
                zldap::mem_free(out);
                blob[flip] ^= 0x40; // the second change restores it
            }
        }
        zldap::mem_free(blob);
    }
}

TEST(UserInfo, DecoyWords)
{
    const std::pair<uint64_t, const char *> rows[] = {
        {0, "Bbaba0"},     // five letters, capitalised, a digit
        {1, "Baker1"},     // the table's second word
        {7, "harbor"},     // neither capital nor digit
        {0x00010007, "bbeja"}, // the high half folded in: x = 0x10006
    };
    for (const auto &[seed, word] : rows) {
        char out[16];
        EXPECT_EQ(zldap::user_info_decoy_word(seed, out), std::strlen(word));
        EXPECT_STREQ(out, word) << seed;
    }
}

TEST(UserInfo, PasswordsNeedLibcrypto)
{
    ZLDAP_IN_FRESH_PROCESS({
        zldap::user_info_use_crypto_library("libzldap-no-such-crypto.so");
        zldap_test::TempDir dir;
        const std::string path = dir.file("ldap_user_info");
        ASSERT_EQ(ldap_user_info_update(path.c_str(), LDAP_USER_INFO_PASSWORD, std::string(60, 'x').c_str(), 60), 0);
        EXPECT_EQ(ldap_set_user_info_password("key", "secret", 6, path.c_str()), LDAP_NOT_SUPPORTED);
        EXPECT_EQ(Password(path, "key"), "rc 92");
    });
}

TEST(UserInfo, OlderLayoutIsRead)
{
    zldap_test::TempDir dir;
    const std::string path = dir.file("ldap_user_info");
    WriteBytes(path, Join({RecordBytes("alice", {"x", nullptr, "y"}, 4),
                           RecordBytes(Me(), {"old.example", "old text", nullptr}, 4)}));
    EXPECT_EQ(Get(path, LDAP_USER_INFO_DOMAIN), "old.example");
    EXPECT_EQ(Get(path, LDAP_USER_INFO_TEXT), "old text");
    // Rewritten in the current layout.
    ASSERT_EQ(ldap_set_user_info_domain("new.example", path.c_str()), 0);
    EXPECT_EQ(ReadBytes(path), Join({RecordBytes("alice", {"x", nullptr, "y"}),
                                     RecordBytes(Me(), {"new.example", "old text", nullptr})}));
}

TEST(UserInfo, DamagedFilesGive21AndStayUntouched)
{
    const Bytes good = RecordBytes(Me(), {"d.example", nullptr, nullptr});
    const Bytes rows[] = {
        Bytes(good.begin(), good.end() - 3),                 // cut inside an item
        Join({good, Hex("05 61 62")}),                       // a name past the end
        Join({good, RecordBytes("x", {nullptr, nullptr})}),  // a record without its last item
        Join({good, Hex("01 78 02")}),                       // presence neither 0 nor 1
        Join({good, Hex("01 78 01 00 01 00 00 00")}),        // a length of 65536
        Join({good, Hex("01 78 01 FF FF FF FF")}),           // a length far past the end
    };
    zldap_test::TempDir dir;
    const std::string path = dir.file("ldap_user_info");
    for (const Bytes &bytes : rows) {
        WriteBytes(path, bytes);
        EXPECT_EQ(Get(path, LDAP_USER_INFO_DOMAIN), "rc 21") << zldap_test::ToHex(bytes);
        EXPECT_EQ(ldap_set_user_info_text("t", path.c_str()), LDAP_INVALID_SYNTAX);
        EXPECT_EQ(ReadBytes(path), bytes);
    }
}

TEST(UserInfo, FileReadableByItsOwnerOnly)
{
    zldap_test::TempDir dir;
    const std::string path = dir.file("ldap_user_info");
    auto mode = [&] {
        struct stat st;
        return stat(path.c_str(), &st) == 0 ? st.st_mode & 0777 : 0u;
    };
    ASSERT_EQ(ldap_set_user_info_text("t", path.c_str()), 0);
    EXPECT_EQ(mode(), 0600u);
    chmod(path.c_str(), 0644);
    ASSERT_EQ(ldap_set_user_info_text("u", path.c_str()), 0);
    EXPECT_EQ(mode(), 0600u);
    EXPECT_EQ(ldap_set_user_info_text("t", dir.file("no/such/dir").c_str()), LDAP_UNWILLING_TO_PERFORM);
}

TEST(UserInfo, DefaultPathIsInTheAccountsHomeDirectory)
{
    char name[zldap::kUserNameMax + 1];
    char *path = nullptr;
    ASSERT_EQ(zldap::user_info_identity(name, &path), 0);
    EXPECT_EQ(name, Me());
    EXPECT_EQ(std::string(path), std::string(getpwuid(getuid())->pw_dir) + "/ldap_user_info");
    zldap::mem_free(path);
}

} // namespace
