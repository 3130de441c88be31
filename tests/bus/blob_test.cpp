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

TEST(Blob, WhatCanNotBeIsRefused) {
    blob_buf buf{};
    blob_buf_init(&buf, 0);
    const uint32_t word = 0;
    EXPECT_EQ(blob_put(&buf, 1, &word, BLOB_ATTR_LEN_MASK + 1), nullptr);
    EXPECT_EQ(blob_new(&buf, 1, BLOB_ATTR_LEN_MASK), nullptr);
    EXPECT_EQ(blob_put_raw(&buf, &word, 3), nullptr) << "shorter than its own word";
    EXPECT_EQ(blob_put_raw(&buf, nullptr, 4), nullptr);
    EXPECT_FALSE(blob_buf_grow(&buf, -1));
    EXPECT_EQ(blobmsg_add_field(&buf, BLOBMSG_TYPE_UNSPEC, "n", &word, BLOB_ATTR_LEN_MASK + 1), -1);
    const std::string name(65536, 'n');
    EXPECT_EQ(blobmsg_add_u8(&buf, name.c_str(), 1), -1);
    EXPECT_EQ(blobmsg_open_table(&buf, name.c_str()), nullptr);
    EXPECT_EQ(blob_len(buf.head), 0U);
    EXPECT_EQ(blobmsg_add_u8(&buf, name.c_str() + 1, 1), 0) << "the longest name";
    blob_buf_free(&buf);
}

TEST(Blob, RawAttributesArePutAsTheyAreUntilMemoryIsShort) {
    blob_buf buf{};
    blob_buf_init(&buf, 0);
    const Bytes raw = from_hex("01000005aa");
    const auto *put = blob_put_raw(&buf, raw.data(), 5);
    ASSERT_NE(put, nullptr);
    EXPECT_EQ(to_hex(Bytes(reinterpret_cast<const char *>(put), 8)), "01000005aa000000");
    buf.grow = [](blob_buf *, int) { return false; };
    const Bytes most = from_hex("01ffffff") + Bytes(BLOB_ATTR_LEN_MASK - 4, '\0');
    EXPECT_EQ(blob_put_raw(&buf, most.data(), BLOB_ATTR_LEN_MASK), nullptr);
    EXPECT_EQ(blob_len(buf.head), 8U);
    blob_buf_free(&buf);
}

TEST(Blob, AttributesAreEqualInTypeLengthAndContent) {
    const auto attr = [](const Bytes &bytes) {
        return reinterpret_cast<const blob_attr *>(bytes.data());
    };
    const Bytes a = from_hex("0100000800000001"), b = from_hex("0100000800000002"),
                c = from_hex("01000004");
    EXPECT_TRUE(blob_attr_equal(attr(a), attr(Bytes(a))));
    EXPECT_FALSE(blob_attr_equal(attr(a), attr(b)));
    EXPECT_FALSE(blob_attr_equal(attr(a), attr(c)));
    EXPECT_FALSE(blob_attr_equal(nullptr, attr(a)));
    EXPECT_TRUE(blob_attr_equal(nullptr, nullptr));
}

TEST(Blob, AnAttributeIsCopiedWithItsName) {
    blob_buf from{}, to{};
    blobmsg_buf_init(&from);
    blobmsg_buf_init(&to);
    blobmsg_add_string(&from, "name", "web");
    ASSERT_EQ(blobmsg_add_blob(&to, static_cast<blob_attr *>(blob_data(from.head))), 0);
    EXPECT_TRUE(blob_attr_equal(from.head, to.head));
    blob_buf_free(&from);
    blob_buf_free(&to);
}

TEST(Blob, WhatHasNoNameIsAllValue) {
    const Bytes bytes = from_hex("0300000678000000");
    const auto *attr = reinterpret_cast<const blob_attr *>(bytes.data());
    EXPECT_STREQ(blobmsg_name(attr), "");
    EXPECT_EQ(blobmsg_data(attr), bytes.data() + 4);
    EXPECT_EQ(blobmsg_len(attr), 2);
    EXPECT_EQ(blobmsg_data(nullptr), nullptr);
    EXPECT_EQ(blobmsg_len(nullptr), 0);
}

TEST(Blob, ACheckedAttributeIsWholeAndHasANameWhereOneIsAsked) {
    const auto valid = [](const char *hex, bool name, size_t less = 0) {
        const Bytes bytes = from_hex(hex);
        return blobmsg_check_attr_len(reinterpret_cast<const blob_attr *>(bytes.data()), name,
                                      bytes.size() - less);
    };
    EXPECT_TRUE(valid(kS, true));
    EXPECT_FALSE(valid(kS, true, 3)) << "longer than what there is";
    EXPECT_FALSE(valid(kS, true, 9)) << "not even a word";
    EXPECT_FALSE(valid("0300000378000000", false)) << "shorter than its word";
    EXPECT_FALSE(valid("8300000600000000", false)) << "no room for a name";
    EXPECT_TRUE(valid("8300000a0000000078000000", false));
    EXPECT_FALSE(valid("8300000a0000000078000000", true)) << "an empty name";
    EXPECT_TRUE(valid("0300000678000000", false));
    EXPECT_FALSE(valid("0300000678000000", true)) << "no name";
}

TEST(Blob, ANameBeyond255CharactersIsNeverFound) {
    for (size_t length : {255U, 256U}) {
        const std::string name(length, 'n');
        blob_buf buf{};
        blobmsg_buf_init(&buf);
        blobmsg_add_u8(&buf, name.c_str(), 1);
        const blobmsg_policy policy = {.name = name.c_str(), .type = BLOBMSG_TYPE_INT8};
        blob_attr *found;
        EXPECT_EQ(blobmsg_parse(&policy, 1, &found, blob_data(buf.head),
                                static_cast<unsigned>(blob_len(buf.head))),
                  0);
        EXPECT_EQ(found != nullptr, length == 255);
        blob_buf_free(&buf);
    }
}

} // namespace
