// BER element memory: creation, the growth rule, copying in and out,
// resetting for reading, the handle's settings copied into new elements,
// and memory exhaustion in every allocating function.
#include "alloc_faults.h"
#include "ber_test_support.h"
#include "core/ldap_error.h"
#include "message/ldap_message.h"
#include "core/ldap_init_guard.h"
#include "session/ldap_init.h"
#include "session/ldap_unbind.h"

#include <gtest/gtest.h>

#include <string>

using zldap_test::BerPtr;
using zldap_test::Bytes;
using zldap_test::Written;

namespace {

TEST(BerAlloc, NewElementIsEmptyAndWritable)
{
    BerPtr ber(fber_alloc());
    ASSERT_TRUE(ber);
    EXPECT_EQ(ber->ber_ptr, ber->ber_buf);
    EXPECT_EQ(ber->ber_end - ber->ber_buf, 6144);
    EXPECT_EQ(ber->ber_tag, LBER_DEFAULT);
    EXPECT_EQ(ber->ber_options, 0x80);
    EXPECT_EQ(ber->ber_sos->sos_count, 0u);
    EXPECT_EQ(ber->ber_len, 0u);
    EXPECT_EQ(ber->ber_rwptr, nullptr);
    EXPECT_EQ(ber->ber_no_xlate, nullptr);
    EXPECT_EQ(ber->ber_version, nullptr);
}

TEST(BerAlloc, NegativeCapacityCountsAsZero)
{
    BerPtr ber(fber_alloc_t(-1));
    ASSERT_TRUE(ber);
    EXPECT_EQ(ber->ber_end, ber->ber_buf);
}

// New capacity = used + max(used, needed), taken whenever the write would
// reach the end.
TEST(BerGrowth, AtLeastDoublesTheUsedBytes)
{
    BerPtr ber(fber_alloc_t(10));
    char *inline_buffer = ber->ber_buf;
    ASSERT_EQ(fber_write(ber.get(), "12345678", 8), 8);
    EXPECT_EQ(ber->ber_buf, inline_buffer);
    ASSERT_EQ(fber_write(ber.get(), "abcd", 4), 4);
    EXPECT_NE(ber->ber_buf, inline_buffer);
    EXPECT_EQ(ber->ber_end - ber->ber_buf, 16);
    ASSERT_EQ(fber_write(ber.get(), "0123456789012345678901234567890123456789", 40), 40);
    EXPECT_EQ(ber->ber_end - ber->ber_buf, 12 + 40);
    std::string expected = "12345678abcd0123456789012345678901234567890123456789";
    EXPECT_EQ(Written(ber.get()), Bytes(expected.begin(), expected.end()));
}

TEST(BerWrite, RefusesMissingBytes)
{
    BerPtr ber(fber_alloc());
    EXPECT_EQ(fber_write(ber.get(), nullptr, 3), -1);
    EXPECT_EQ(fber_write(nullptr, "abc", 3), -1);
    EXPECT_EQ(fber_write(ber.get(), nullptr, 0), 0);
    EXPECT_EQ(ber->ber_ptr, ber->ber_buf);
}

TEST(BerReset, SwitchesBetweenWritingAndReading)
{
    BerPtr ber(fber_alloc());
    ASSERT_EQ(fber_write(ber.get(), "abc", 3), 3);
    ber->ber_rwptr = ber->ber_buf + 1;
    fber_reset(ber.get(), 1);
    EXPECT_EQ(ber->ber_ptr, ber->ber_buf);
    EXPECT_EQ(ber->ber_end, ber->ber_buf + 3);
    EXPECT_EQ(ber->ber_rwptr, nullptr);
    ber->ber_rwptr = ber->ber_buf;
    fber_reset(ber.get(), 0);
    EXPECT_EQ(ber->ber_ptr, ber->ber_end);
    EXPECT_EQ(ber->ber_rwptr, nullptr);
}

TEST(BerInit2, CopiesTheValueForReading)
{
    EXPECT_EQ(fber_init2(nullptr), nullptr);
    for (size_t size : {size_t{0}, size_t{5}, size_t{6144}, size_t{20000}}) {
        SCOPED_TRACE(size);
        std::string value(size, 'k');
        struct berval bv = {value.size(), value.data()};
        BerPtr ber(fber_init2(&bv));
        ASSERT_TRUE(ber);
        EXPECT_EQ(ber->ber_ptr, ber->ber_buf);
        ASSERT_EQ(static_cast<size_t>(ber->ber_end - ber->ber_buf), size);
        EXPECT_EQ(std::string(ber->ber_buf, ber->ber_end), value);
        EXPECT_NE(ber->ber_buf, value.data());
    }
}

TEST(BerFlatten, CopiesTheWrittenBytesWithANul)
{
    BerPtr ber(fber_alloc());
    ASSERT_EQ(fber_printf(ber.get(), "{s}", "ab"), 0);
    struct berval *bv = nullptr;
    ASSERT_EQ(fber_flatten(ber.get(), &bv), 0);
    ASSERT_EQ(bv->bv_len, 10u);
    EXPECT_EQ(Bytes(bv->bv_val, bv->bv_val + bv->bv_len), Written(ber.get()));
    EXPECT_EQ(bv->bv_val[10], '\0');
    ber_bvfree(bv);

    ASSERT_EQ(fber_flatten(nullptr, &bv), 0);
    EXPECT_EQ(bv->bv_len, 0u);
    EXPECT_EQ(bv->bv_val, nullptr);
    ber_bvfree(bv);
    EXPECT_EQ(fber_flatten(ber.get(), nullptr), -1);
}

TEST(BerFree, ReleasesAnyShapeOfElementAndIgnoresNull)
{
    fber_free(nullptr);
    ber_bvfree(nullptr);
    ber_bvecfree(nullptr);
    BerElement *grown = fber_alloc_t(0);
    ASSERT_EQ(fber_write(grown, "abc", 3), 3);
    fber_free(grown);
    auto **vec = static_cast<struct berval **>(zldap::mem_calloc(3, sizeof(struct berval *)));
    for (int i = 0; i < 2; i++) {
        vec[i] = static_cast<struct berval *>(zldap::mem_calloc(1, sizeof(struct berval)));
        vec[i]->bv_val = zldap::mem_strdup("value");
    }
    ber_bvecfree(vec); // the sanitizer build reports anything left behind
}

class NewLdapBer : public testing::Test {
protected:
    void SetUp() override
    {
        ld_ = ldap_init("localhost", 389);
        ASSERT_NE(ld_, nullptr);
    }
    void TearDown() override { ldap_unbind(ld_); }
    LDAP *ld_ = nullptr;
};

TEST_F(NewLdapBer, CopiesTheHandleSettingsAtCreation)
{
    ld_->ld_version = 3;
    ld_->ld_no_xlate = 0;
    BerPtr writer(new_ldap_ber(ld_, 0));
    BerPtr reader(new_ldap_ber(ld_, 1));
    ASSERT_TRUE(writer && reader);
    ld_->ld_version = 2;
    ld_->ld_no_xlate = 1;
    for (BerElement *ber : {writer.get(), reader.get()}) {
        ASSERT_TRUE(ber->ber_version && ber->ber_no_xlate);
        EXPECT_EQ(*ber->ber_version, 3);
        EXPECT_EQ(*ber->ber_no_xlate, 0u);
    }
    EXPECT_EQ(writer->ber_end - writer->ber_buf, 6144);
    EXPECT_EQ(reader->ber_end - reader->ber_buf, 0);
    EXPECT_EQ(new_ldap_ber(nullptr, 0), nullptr);
}

// A new handle says "do not translate", so its requests carry strings
// byte for byte: encoding them allocates nothing.
TEST_F(NewLdapBer, DefaultHandleWritesStringsUnchanged)
{
    BerPtr ber(new_ldap_ber(ld_, 0));
    ASSERT_TRUE(ber);
    EXPECT_EQ(*ber->ber_no_xlate, 1u);
    EXPECT_EQ(*ber->ber_version, 3);
    zldap::mem_tracking_start(0);
    EXPECT_EQ(fber_printf(ber.get(), "{s}", "caf\xC3\xA9"), 0);
    EXPECT_EQ(zldap::mem_tracking_stop().allocations, 0);
}

TEST_F(NewLdapBer, MemoryFailureRecordsNoMemoryOnTheHandle)
{
    // The thread's error record exists before the walk, so recording the
    // failure allocates nothing that the handle keeps.
    ldap_set_error_direct(ld_, LDAP_OTHER, nullptr, nullptr);
    for (int reading : {0, 1}) {
        zldap_test::ExpectEachAllocationFailure({
            [&]() {
                ldap_set_error_direct(ld_, LDAP_SUCCESS, nullptr, nullptr);
                BerElement *ber = new_ldap_ber(ld_, reading);
                fber_free(ber);
                return ber ? LDAP_SUCCESS : ldap_get_errno_direct(ld_);
            },
            LDAP_NO_MEMORY,
            nullptr,
        });
    }
}

TEST(BerMemory, CopyingInAndOutFailsCleanly)
{
    std::string value(7000, 'c');
    struct berval bv = {value.size(), value.data()};
    zldap_test::ExpectEachAllocationFailure({
        [&]() {
            BerElement *ber = fber_init2(&bv);
            fber_free(ber);
            return ber ? 0 : -1;
        },
        -1,
        nullptr,
    });
    BerPtr ber(fber_alloc());
    ASSERT_EQ(fber_printf(ber.get(), "{s}", "flattened"), 0);
    zldap_test::ExpectEachAllocationFailure({
        [&]() {
            struct berval *out = reinterpret_cast<struct berval *>(1);
            int rc = fber_flatten(ber.get(), &out);
            if (rc != 0 && out != nullptr)
                rc = 1; // a failure must leave no value behind
            ber_bvfree(out);
            return rc;
        },
        -1,
        nullptr,
    });
    zldap_test::ExpectEachAllocationFailure({
        [&]() {
            BerElement *small = fber_alloc_t(4);
            long rc = small ? fber_write(small, value.data(), value.size()) : -1;
            fber_free(small);
            return rc < 0 ? -1 : 0;
        },
        -1,
        nullptr,
    });
}

} // namespace
