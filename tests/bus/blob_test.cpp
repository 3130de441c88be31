// Named attributes: what parsing takes, skips and refuses.

#include "exchange.h"

#include <libubus.h>

#include <gtest/gtest.h>

namespace {

const blobmsg_policy kPolicy[] = {
    {.name = "s", .type = BLOBMSG_TYPE_STRING}, {.name = "b", .type = BLOBMSG_TYPE_INT8},
    {.name = "u", .type = BLOBMSG_TYPE_UNSPEC}, {.name = nullptr, .type = BLOBMSG_TYPE_STRING},
    {.name = "s", .type = BLOBMSG_TYPE_INT32},
};

class Parse : public testing::Test {
  protected:
    int parse(const std::string &hex) {
        bytes_ = from_hex(hex);
        for (auto &entry : tb)
            entry = reinterpret_cast<blob_attr *>(1); // to be cleared
        return blobmsg_parse(kPolicy, 5, tb, bytes_.data(), static_cast<unsigned>(bytes_.size()));
    }
    blob_attr *tb[5];
    Bytes bytes_;
};

// "s" = "x", "b" = 1, "u" = 2 in 16 bits
constexpr const char *kS = "8300000a0001730078000000";
constexpr const char *kB = "870000090001620001000000";
constexpr const char *kU = "8600000a0001750000020000";

TEST_F(Parse, EachEntryOnItsOwn) {
    EXPECT_EQ(parse(std::string(kS) + kB + kU), 0);
    EXPECT_STREQ(blobmsg_get_string(tb[0]), "x");
    EXPECT_EQ(blobmsg_get_u8(tb[1]), 1);
    EXPECT_EQ(blobmsg_get_u16(tb[2]), 2);
    EXPECT_EQ(tb[3], nullptr);
    EXPECT_EQ(tb[4], nullptr);
}

TEST_F(Parse, NoData) {
    for (auto &entry : tb)
        entry = reinterpret_cast<blob_attr *>(1);
    EXPECT_EQ(blobmsg_parse(kPolicy, 5, tb, nullptr, 10), -22);
    EXPECT_EQ(tb[0], nullptr);
    EXPECT_EQ(parse(""), -22);
}

TEST_F(Parse, AnotherTypeIsAbsent) {
    EXPECT_EQ(parse("8500000c0001620000000001"), 0); // b as 32 bits
    EXPECT_EQ(tb[1], nullptr);
    EXPECT_EQ(parse("8500000c0001730000000007"), 0); // s as 32 bits: the second entry of the name
    EXPECT_EQ(tb[0], nullptr);
    EXPECT_EQ(blobmsg_get_u32(tb[4]), 7U);
}

TEST_F(Parse, TheFirstOfAMatchingTypeWins) {
    EXPECT_EQ(parse(std::string(kS) + "8300000a0001730079000000"), 0);
    EXPECT_STREQ(blobmsg_get_string(tb[0]), "x");
}

TEST_F(Parse, AMalformedAttributeEndsItAndWhatWasFoundStays) {
    for (const char *bad : {"8700000a0001620001010000",    // 8 bits in two bytes
                            "830000080001730000000000",    // a string of no bytes
                            "8300000a0001730078780000",    // no terminator
                            "890000080001730000000000",    // a type above the last
                            "00000002",                    // a length below its word's
                            "8300000a00ff730078000000",    // a name beyond the attribute
                            "8300000a0001737878000000",    // no NUL behind the name
                            "8800000c0001640000000000"}) { // a double of four bytes
        EXPECT_EQ(parse(std::string(kB) + bad + kS), -1) << bad;
        EXPECT_NE(tb[1], nullptr) << bad;
        EXPECT_EQ(tb[0], nullptr) << bad;
    }
}

TEST_F(Parse, ACutOrALengthOfNothingEndsItInSilence) {
    EXPECT_EQ(parse(std::string(kB) + std::string(kS).substr(0, 20)), 0);
    EXPECT_EQ(tb[0], nullptr);
    EXPECT_EQ(parse(std::string(kB) + "00000000" + kS), 0);
    EXPECT_NE(tb[1], nullptr);
    EXPECT_EQ(tb[0], nullptr);
}

TEST_F(Parse, NamelessAttributesAreSkipped) {
    EXPECT_EQ(parse(std::string("0300000678000000") + kS), 0);
    EXPECT_NE(tb[0], nullptr);
}

TEST_F(Parse, NamesMatchWholly) {
    EXPECT_EQ(parse("8300000a0001530078000000"), 0); // S
    EXPECT_EQ(tb[0], nullptr);
}

TEST(Blob, EverythingThatIsPutIsReadBack) {
    blob_buf buf{};
    blobmsg_buf_init(&buf);
    const std::string longer(5000, 'y');
    void *table = blobmsg_open_table(&buf, "t");
    for (int i = 0; i < 500; i++)
        blobmsg_add_u64(&buf, "n", static_cast<uint64_t>(i));
    blobmsg_close_table(&buf, table);
    blobmsg_add_string(&buf, "s", longer.c_str());
    blobmsg_add_double(&buf, "d", 1.5);
    const blobmsg_policy policy[] = {
        {.name = "t", .type = BLOBMSG_TYPE_TABLE},
        {.name = "s", .type = BLOBMSG_TYPE_STRING},
        {.name = "d", .type = BLOBMSG_TYPE_DOUBLE},
    };
    blob_attr *tb[3];
    EXPECT_EQ(blobmsg_parse(policy, 3, tb, blob_data(buf.head),
                            static_cast<unsigned>(blob_len(buf.head))),
              0);
    ASSERT_NE(tb[0], nullptr);
    blob_attr *attr;
    size_t left;
    uint64_t next = 0;
    blobmsg_for_each_attr(attr, tb[0], left) EXPECT_EQ(blobmsg_get_u64(attr), next++);
    EXPECT_EQ(next, 500U);
    EXPECT_EQ(longer, blobmsg_get_string(tb[1]));
    EXPECT_NE(tb[2], nullptr);
    blob_attr *copy = blob_memdup(buf.head);
    EXPECT_TRUE(blob_attr_equal(copy, buf.head));
    EXPECT_FALSE(blob_attr_equal(copy, nullptr));
    free(copy);
    blob_buf_free(&buf);
}

TEST(Blob, AMessageBeyondItsLimitIsRefusedAndStaysWhole) {
    blob_buf buf{};
    blobmsg_buf_init(&buf);
    const std::string big(6 * 1024 * 1024, 'x');
    EXPECT_EQ(blobmsg_add_string(&buf, "a", big.c_str()), 0);
    EXPECT_EQ(blobmsg_add_string(&buf, "b", big.c_str()), 0);
    EXPECT_EQ(blobmsg_add_string(&buf, "c", big.c_str()), -1);
    EXPECT_EQ(blobmsg_add_u8(&buf, "d", 1), 0);
    blob_buf_free(&buf);
}

TEST(Blob, ABufferThatGotNoMemoryTakesNothing) {
    blob_buf buf{};
    buf.grow = [](blob_buf *, int) { return false; };
    EXPECT_NE(blobmsg_buf_init(&buf), 0);
    EXPECT_EQ(blob_put_u32(&buf, 1, 2), nullptr);
    EXPECT_EQ(blob_nest_start(&buf, 1), nullptr);
    EXPECT_EQ(blobmsg_open_table(&buf, "table"), nullptr);
    EXPECT_NE(blobmsg_add_string(&buf, "name", "web"), 0);
    blobmsg_close_table(&buf, nullptr);
    EXPECT_EQ(buf.head, nullptr);
    blob_buf_free(&buf);
}

} // namespace
