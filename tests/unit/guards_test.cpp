// Behaviour at the edges that no conversation shows: precedences, records from the hardware layer,
// names that are cut, JSON as a structure.

#include "acl_cursor.h"
#include "fixture.h"

#include "ipaclext.h"
#include "ipaclstd.h"
#include "obj_ipacl.h"
#include "platform/sys.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>

namespace {

class Guards : public ServiceTest {
  protected:
    Guards() {
        ipacl_insert("s", 1, 0, IPACL_STATUS_READY);
        ipacl_insert("e", 0, 0, IPACL_STATUS_READY);
        do_standard_end("s", "permit 10.0.0.1");
        do_extended_end("e", "permit ip interface vlan10 any");
    }
    ipacl_standard_rule &standard() { return *ipacl_config_find("s")->ipacl_s; }
    ipacl_extended_rule &extended() { return *ipacl_config_find("e")->ipacl_e; }

    // Sends a record as the hardware layer does; the reply's status.
    static int send(const char *name, int type, const void *record, size_t size) {
        blob_buf buf{};
        blobmsg_buf_init(&buf);
        blobmsg_add_string(&buf, "name", name);
        blobmsg_add_u8(&buf, "action", IPACL_ACTION_EDIT);
        blobmsg_add_u8(&buf, "moudle", IPACL_MOUDLE_HAL);
        blobmsg_add_u8(&buf, "type", static_cast<uint8_t>(type));
        blobmsg_add_field(&buf, BLOBMSG_TYPE_UNSPEC, "rule_struct", record,
                          static_cast<unsigned>(size));
        const int status = ipacl_action(nullptr, "action", buf.head, nullptr);
        blob_buf_free(&buf);
        return status;
    }
};

template <class Rule>
void set_figures(Rule &rule) {
    rule.port_precedence = 1;
    rule.global_precedence = 2;
    rule.vlan_precedence = 3;
    rule.slot_precedence = 4;
    rule.stat_count = 5;
}

template <class Rule>
void expect_figures(const Rule &rule) {
    EXPECT_EQ(rule.port_precedence, 1);
    EXPECT_EQ(rule.global_precedence, 2);
    EXPECT_EQ(rule.vlan_precedence, 3);
    EXPECT_EQ(rule.slot_precedence, 4);
    EXPECT_EQ(rule.stat_count, 5U);
}

TEST_F(Guards, PrecedencesAndCounterAreTakenFromAnEqualRecord) {
    ipacl_standard_rule s = standard();
    set_figures(s);
    EXPECT_EQ(send("s", 1, &s, sizeof s), 0);
    expect_figures(standard());
    ipacl_extended_rule e = extended();
    set_figures(e);
    EXPECT_EQ(send("e", 0, &e, sizeof e), 0);
    expect_figures(extended());
}

TEST_F(Guards, ARecordThatEqualsNoRuleOrNamesNoListChangesNothing) {
    ipacl_standard_rule s = standard();
    set_figures(s);
    EXPECT_EQ(do_standard_change_precedence("none", &s), 0);
    EXPECT_EQ(do_standard_change_precedence("e", &s), 0); // the other kind
    EXPECT_EQ(do_standard_change_precedence("s", nullptr), 0);
    EXPECT_EQ(do_standard_change_precedence(nullptr, &s), 0);
    s.srcaddr.s_addr = 7;
    EXPECT_EQ(do_standard_change_precedence("s", &s), 0);
    EXPECT_EQ(standard().stat_count, 0U);
    ipacl_extended_rule e = extended();
    set_figures(e);
    EXPECT_EQ(do_extended_change_precedence("none", &e), 0);
    EXPECT_EQ(do_extended_change_precedence("s", &e), 0);
    EXPECT_EQ(do_extended_change_precedence("e", nullptr), 0);
    EXPECT_EQ(extended().stat_count, 0U);
}

TEST_F(Guards, TheNamesOfARecordAreTerminatedAndItsPointersNotFollowed) {
    ipacl_extended_rule e = extended();
    set_figures(e);
    e.ipacl_next = reinterpret_cast<ipacl_extended_rule *>(1);
    e.remark = reinterpret_cast<char *>(1);
    memset(e.src_vlan_name, 'x', sizeof e.src_vlan_name);
    memset(e.dst_vlan_name, 'x', sizeof e.dst_vlan_name);
    memset(e.time_range, 'x', sizeof e.time_range);
    EXPECT_EQ(send("e", 0, &e, sizeof e), 0);
    EXPECT_EQ(extended().stat_count, 0U);
}

TEST_F(Guards, ARecordOfAnotherSizeIsRefused) {
    const char bytes[512] = {};
    EXPECT_EQ(send("s", 1, bytes, sizeof(ipacl_standard_rule) - 1), 2);
    EXPECT_EQ(send("s", 1, bytes, sizeof(ipacl_standard_rule) + 1), 2);
    EXPECT_EQ(send("s", 1, bytes, sizeof(ipacl_extended_rule)), 2);
    EXPECT_EQ(send("e", 0, bytes, sizeof(ipacl_extended_rule) - 1), 2);
}

TEST_F(Guards, AnInterfaceIsAskedForByTheFirst15CharactersAsTyped) {
    fake::take_looked_up();
    do_extended_end("e", "permit ip interface abcdefghijklmnopqrstuvwxyz any");
    EXPECT_EQ(fake::take_looked_up().back(), "abcdefghijklmno");
}

TEST_F(Guards, AThousandCommandsThatNameASourceInterfaceUseOneSocket) {
    const int before = fake::sockets().opened;
    for (int i = 0; i < 1000; i++)
        do_extended_end("e", ("permit " + std::to_string(i) + " interface vlan10 any").c_str());
    EXPECT_EQ(fake::sockets().opened, before);
    for (int i = 0; i < 10; i++)
        do_extended_end("e", ("permit " + std::to_string(i) + " any interface vlan10").c_str());
    EXPECT_EQ(fake::sockets().opened, before + 10);
    EXPECT_EQ(fake::sockets().closed, 10);
}

TEST_F(Guards, ALineWithoutATextIsIncomplete) {
    EXPECT_EQ(do_standard_end("s", nullptr), -1);
    EXPECT_EQ(do_extended_end("e", nullptr), -1);
    EXPECT_EQ(do_standard_end(nullptr, "permit any"), 0);
    EXPECT_EQ(do_extended_end(nullptr, "permit ip any any"), 0);
}

// As strtol and inet_addr read them on the device.
TEST(Words, NumbersAreClampedAndBeginBehindBlanksAndASign) {
    const struct {
        const char *word;
        int32_t value;
    } cases[] = {
        {"7", 7},
        {" 7", 7},
        {"\v\f 7", 7},
        {"+7", 7},
        {"-7", -7},
        {"\f-7", -7},
        {"--7", 0},
        {"+-7", 0},
        {"", 0},
        {" ", 0},
        {"+", 0},
        {"x7", 0},
        {"7x", 7},
        {"7/", 7},
        {"7:", 7},
        {"\x0e"
         "7",
         0},
        {"\b7", 0},
        {"2147483648", INT32_MAX},
        {"-2147483649", INT32_MIN},
        {"99999999999999999999999", INT32_MAX},
    };
    for (const auto &[word, value] : cases)
        EXPECT_EQ(acl::read_number(word), value) << word;
}

TEST(Words, AnAddressMayHaveUpTo127Characters) {
    EXPECT_EQ(acl::read_address(std::string(126, '0') + "7").s_addr, ip("0.0.0.7").s_addr);
    EXPECT_EQ(acl::read_address(std::string(127, '0') + "7").s_addr, INADDR_NONE);
}

std::vector<std::string> printed;

int keep_printed(const char *format, ...) {
    char line[4096];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(line, sizeof line, format, args);
    va_end(args);
    printed.emplace_back(line);
    return length;
}

// One line is built for all rules of a list: it grows for one and grows again for a later one.
TEST_F(Guards, ACountedLineIsAsLongAsItsRemarkAndLeftOutWhenMemoryIsShort) {
    do_standard_end("s", "permit 10.0.0.2");
    ipacl *list = ipacl_config_find("s");
    std::vector<std::string> expected{"ip access-list standard s\n"};
    size_t length = 500;
    for (auto *rule = list->ipacl_s; rule; rule = rule->ipacl_next, length += 1500) {
        rule->flags = IPACL_FLAG_REMARK;
        rule->remark = static_cast<char *>(sys_mem_malloc(length + 1));
        *std::fill_n(rule->remark, length, 'r') = '\0';
        expected.push_back(" remark  " + std::string(rule->remark) + " statistics: 7\n");
        rule->stat_count = 7;
    }
    const size_t blocks = fake::live_blocks();
    printed.clear();
    fake::fail_allocation(2);
    show_ip_acl_rule(list, 0, keep_printed);
    EXPECT_EQ(printed, std::vector<std::string>(expected.begin(), expected.begin() + 2));
    EXPECT_EQ(fake::take_log_text(), "3 %IPACL-3-show_counted(*): insufficient memory!\n");
    EXPECT_EQ(list->ipacl_s->stat_count, 0U);
    EXPECT_EQ(list->ipacl_s->ipacl_next->stat_count, 7U) << "what was not shown still counts";
    list->ipacl_s->stat_count = 7;
    printed.clear();
    show_ip_acl_rule(list, 0, keep_printed);
    EXPECT_EQ(printed, expected);
    EXPECT_EQ(fake::live_blocks(), blocks);
}

// More than is gathered before it is written.
TEST_F(Guards, AListingShowsARemarkOfAnyLength) {
    auto *rule = ipacl_config_find("s")->ipacl_s;
    rule->flags = IPACL_FLAG_REMARK;
    rule->remark = static_cast<char *>(sys_mem_malloc(5001));
    *std::fill_n(rule->remark, 5000, 'r') = '\0';
    show_acl(0);
    const std::string shown = fake::take_listing();
    EXPECT_NE(shown.find("[    1] *** " + std::string(rule->remark) + "\n"), std::string::npos);
}

TEST_F(Guards, AVeryLongLineIsReadLikeAnyOther) {
    const std::string zeroes(100000, '0');
    EXPECT_EQ(do_extended_end("e", ("permit tcp any any eq " + zeroes + "80 tos " + zeroes + "7 " +
                                    std::string(100000, 'x'))
                                       .c_str()),
              0);
    const auto *rule = ipacl_config_find("e")->ipacl_e->ipacl_next;
    ASSERT_NE(rule, nullptr);
    EXPECT_EQ(rule->dst_port, 80);
    EXPECT_EQ(rule->tos, 7);
}

TEST_F(Guards, CreateAllocatesOneRecordOfItsKind) {
    fake::take_sizes();
    const size_t mark = fake::mark();
    for (int type : {1, 0}) {
        blob_buf buf{};
        blobmsg_buf_init(&buf);
        blobmsg_add_string(&buf, "name", type ? "s" : "e");
        for (const char *name : {"action", "moudle"})
            blobmsg_add_u8(&buf, name, 0);
        blobmsg_add_u8(&buf, "type", static_cast<uint8_t>(type));
        EXPECT_EQ(ipacl_create(nullptr, "create", buf.head, nullptr), 0);
        blob_buf_free(&buf);
    }
    EXPECT_EQ(fake::take_sizes(),
              (std::vector<size_t>{sizeof(ipacl_standard_rule), sizeof(ipacl_extended_rule)}));
    EXPECT_EQ(fake::free_lost(mark), 2U) << "and loses it";
}

TEST_F(Guards, ThePolicyAndTheMethodsStandInTheirOrder) {
    const char *names[] = {"name", "action",      "moudle",     "type",
                           "rule", "rule_struct", "cmd_handler"};
    const int types[] = {BLOBMSG_TYPE_STRING, BLOBMSG_TYPE_INT8,   BLOBMSG_TYPE_INT8,
                         BLOBMSG_TYPE_INT8,   BLOBMSG_TYPE_STRING, BLOBMSG_TYPE_UNSPEC,
                         BLOBMSG_TYPE_INT32};
    for (int i = 0; i < IPACL_POLICY_MAX; i++) {
        EXPECT_STREQ(ipacl_policy[i].name, names[i]);
        EXPECT_EQ(ipacl_policy[i].type, types[i]);
    }
    const char *methods[] = {"create",     "destroy",      "action",
                             "gsync_init", "gsync_decode", "showrunning"};
    EXPECT_STREQ(ipacl_object.name, "L.IPACL");
    ASSERT_EQ(ipacl_object.n_methods, 6);
    for (int i = 0; i < 6; i++)
        EXPECT_STREQ(ipacl_object.methods[i].name, methods[i]);
}

TEST_F(Guards, JsonIsAnArrayOfObjectsOfStringsWithTheSameKeys) {
    do_extended_end("e", "deny tcp any eq www any gt 5 tos 3 ttl lt 9");
    fake::take_terminal();
    ipacl_show_json("e", 0);
    cJSON *array = cJSON_Parse(fake::take_terminal().c_str());
    ASSERT_EQ(cJSON_GetArraySize(array), 2);
    const char *keys[] = {"Authority", "MaskType",       "ProtocolNumber",  "SrcAddress",
                          "SrcPort",   "DstAddress",     "DstPort",         "TimeRange",
                          "Tos",       "Precedence",     "NotFragmentFlag", "FragmentPacket",
                          "Offset",    "LengthIpPacket", "LiveTime",        "RecordLog"};
    const cJSON *object;
    cJSON_ArrayForEach(object, array) {
        ASSERT_EQ(cJSON_GetArraySize(object), 16);
        for (int i = 0; i < 16; i++) {
            const cJSON *value = cJSON_GetArrayItem(object, i);
            EXPECT_STREQ(value->string, keys[i]);
            EXPECT_TRUE(cJSON_IsString(value));
        }
    }
    cJSON_Delete(array);
}

// Every allocation of a whole dialogue fails in turn: no crash, no list half changed, nothing lost
// but the records that are lost by design.
TEST_F(Guards, EveryAllocationOfADialogueMayFail) {
    for (int nth = 1; nth <= 12; nth++) {
        clear();
        const size_t before = fake::live_blocks();
        fake::fail_allocation(nth);
        get_ipacl_byname("web", 0);
        do_extended_end("web", "permit ip interface vlan1 interface vlan2");
        do_extended_end("web", "permit tcp any any");
        do_extended_end("web", "no permit tcp any any");
        ipacl_show_json("web", 0);
        acl_print();
        if (const ipacl *list = ipacl_config_find("web")) {
            uint32_t count = 0;
            for (const auto *rule = list->ipacl_e; rule; rule = rule->ipacl_next)
                count++;
            EXPECT_EQ(count, list->rule_count);
            ipacl_delete("web", 0);
        }
        EXPECT_EQ(fake::live_blocks(), before) << nth;
    }
}

} // namespace
