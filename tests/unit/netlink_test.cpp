// The address listener, fed with datagrams.

#include "fixture.h"

#include "ipacl_netlink.h"
#include "netlink_message.h"
#include "platform/sys.h"

#include <cstring>

namespace {

using namespace netlink;

class Netlink : public ServiceTest {
  protected:
    Netlink() {
        fake::set_interface("vlan10", 10, "10.0.0.1", "255.255.255.0");
        ipacl_insert("web", 0, 0, IPACL_STATUS_READY);
    }
    ipacl_extended_rule *add(const char *src, const char *dst, const char *list = "web") {
        auto *rule =
            static_cast<ipacl_extended_rule *>(sys_mem_malloc(sizeof(ipacl_extended_rule)));
        *rule = ipacl_extended_rule{};
        strcpy(rule->src_vlan_name, src);
        strcpy(rule->dst_vlan_name, dst);
        add_acl_rule_location(ipacl_config_find(list), rule, 0, 0);
        return rule;
    }
    // The number of announcements that a datagram causes.
    size_t receive(const Bytes &datagram) {
        fake::queue_datagram(datagram);
        uloop_fd u{};
        ipacl_cb(&u, 0);
        return fake::take_syncs().size();
    }
};

TEST_F(Netlink, ASourceTakesTheAddressAndItsListIsAnnounced) {
    auto *rule = add("vlan10", "");
    EXPECT_EQ(receive(notification(RTM_NEWADDR, 10)), 1U);
    EXPECT_EQ(rule->srcaddr.s_addr, ip("10.0.0.1").s_addr);
    EXPECT_EQ(rule->srcmsk.s_addr, ip("255.255.255.0").s_addr);
    EXPECT_EQ(rule->dstaddr.s_addr, 0U);
    EXPECT_EQ(fake::take_slept(), 0U);
    EXPECT_EQ(fake::sockets().opened, fake::sockets().closed);
}

TEST_F(Netlink, AnUnchangedSourceIsNotAnnounced) {
    add("vlan10", "");
    receive(notification(RTM_NEWADDR, 10));
    EXPECT_EQ(receive(notification(RTM_NEWADDR, 10)), 0U);
    fake::set_interface("vlan10", 10, "10.0.0.1", "255.255.0.0"); // the mask alone
    EXPECT_EQ(receive(notification(RTM_NEWADDR, 10)), 1U);
}

TEST_F(Netlink, ADestinationIsRewrittenAndAnnouncedEveryTime) {
    auto *rule = add("", "vlan10");
    EXPECT_EQ(receive(notification(RTM_NEWADDR, 10)), 1U);
    EXPECT_EQ(receive(notification(RTM_NEWADDR, 10)), 1U);
    EXPECT_EQ(rule->dstaddr.s_addr, ip("10.0.0.1").s_addr);
    EXPECT_EQ(rule->dstmsk.s_addr, ip("255.255.255.0").s_addr);
}

TEST_F(Netlink, ARemovalWaitsAndLeavesAddressZeroWithAHostMask) {
    auto *rule = add("vlan10", "");
    receive(notification(RTM_NEWADDR, 10));
    fake::set_interface("vlan10", 10, "", "");
    EXPECT_EQ(receive(notification(RTM_DELADDR, 10)), 1U);
    EXPECT_EQ(fake::take_slept(), 10000U);
    EXPECT_EQ(rule->srcaddr.s_addr, 0U);
    EXPECT_EQ(rule->srcmsk.s_addr, INADDR_BROADCAST);
}

TEST_F(Netlink, AddressAndMaskAreReadIndependently) {
    auto *rule = add("vlan10", "");
    fake::set_interface("vlan10", 10, "", "255.255.255.0");
    receive(notification(RTM_NEWADDR, 10));
    EXPECT_EQ(rule->srcaddr.s_addr, 0U);
    EXPECT_EQ(rule->srcmsk.s_addr, ip("255.255.255.0").s_addr);
    fake::set_interface("vlan10", 10, "10.0.0.1", "");
    receive(notification(RTM_NEWADDR, 10));
    EXPECT_EQ(rule->srcaddr.s_addr, ip("10.0.0.1").s_addr);
    EXPECT_EQ(rule->srcmsk.s_addr, INADDR_BROADCAST);
}

TEST_F(Netlink, AnyOtherMessageTypeIsHandledAlike) {
    add("vlan10", "");
    EXPECT_EQ(receive(notification(99, 10)), 1U);
    EXPECT_EQ(fake::take_slept(), 0U);
}

TEST_F(Netlink, AnInterfaceNameMatchesAsAPrefix) {
    fake::set_interface("vlan1", 1, "10.1.0.1", "255.255.255.0");
    auto *ten = add("vlan10", "");
    auto *one = add("vlan1", "");
    receive(notification(RTM_NEWADDR, 1));
    EXPECT_EQ(ten->srcaddr.s_addr, ip("10.1.0.1").s_addr);
    receive(notification(RTM_NEWADDR, 10));
    EXPECT_EQ(ten->srcaddr.s_addr, ip("10.0.0.1").s_addr);
    EXPECT_EQ(one->srcaddr.s_addr, ip("10.1.0.1").s_addr);
}

TEST_F(Netlink, OnceSomethingChangedEveryLaterNodeAnnouncesTheLastListAgain) {
    ipacl_insert("other", 0, 0, IPACL_STATUS_READY);
    add("eth0", "");
    add("vlan10", "");
    add("eth1", "", "other");
    add("eth2", "", "other");
    fake::queue_datagram(notification(RTM_NEWADDR, 10) + notification(RTM_NEWADDR, 10));
    uloop_fd u{};
    ipacl_cb(&u, 0);
    const auto syncs = fake::take_syncs();
    ASSERT_EQ(syncs.size(), 3U + 4U); // and still so in the second message
    for (const auto &sync : syncs)
        EXPECT_EQ(sync.name, "web");
    EXPECT_EQ(receive(notification(RTM_NEWADDR, 10)), 0U); // a new datagram begins anew
}

TEST_F(Netlink, AMarkedNodeIsSkipped) {
    for (const auto &[src, dst] : {std::pair{"vlan10", ""}, {"", "vlan10"}}) {
        add(src, dst);
        delete_acl_rule_location(ipacl_config_find("web"), nullptr, 1);
        ASSERT_NE(ipacl_vlanname_list_head, nullptr);
        EXPECT_EQ(receive(notification(RTM_NEWADDR, 10)), 0U);
    }
}

TEST_F(Netlink, AnEmptyIndexReadsTheInterfaceButAnnouncesNothing) {
    EXPECT_EQ(receive(notification(RTM_NEWADDR, 10)), 0U);
    EXPECT_EQ(fake::take_looked_up(), (std::vector<std::string>{"vlan10", "vlan10"}));
}

TEST_F(Netlink, TheLabelNamesAnInterfaceThatIsGone) {
    auto *rule = add("vlan20", "");
    rule->srcaddr = ip("10.2.0.1");
    EXPECT_EQ(
        receive(notification(RTM_DELADDR, 20, attribute(IFA_LABEL, std::string("vlan20\0", 7)))),
        1U);
    EXPECT_EQ(rule->srcaddr.s_addr, 0U);
}

TEST_F(Netlink, ALabelWithoutATerminatorOrTooLongIsBounded) {
    add("vlan20", "");
    EXPECT_EQ(receive(notification(RTM_DELADDR, 20, attribute(IFA_LABEL, "vlan20"))), 1U);
    receive(notification(RTM_DELADDR, 20, attribute(IFA_LABEL, std::string(40, 'x'))));
    EXPECT_EQ(fake::take_looked_up().back(), std::string(15, 'x'));
}

TEST_F(Netlink, AnEmptyNameMatchesNoNode) {
    auto *rule = add("vlan10", "vlan10");
    EXPECT_EQ(receive(notification(RTM_NEWADDR, 77)), 0U);
    EXPECT_EQ(rule->dstmsk.s_addr, 0U);
    EXPECT_EQ(receive(notification(RTM_NEWADDR, 77, attribute(IFA_LABEL, ""))), 0U);
}

TEST_F(Netlink, ShortDatagramsAreIgnoredInSilence) {
    add("", "vlan10");
    Bytes whole = notification(RTM_NEWADDR, 10);
    for (size_t size : {0U, 1U, 15U, 16U, 23U})
        EXPECT_EQ(receive(Bytes(whole.begin(), whole.begin() + static_cast<long>(size))), 0U);
    whole[0] = 15; // a length below the header's
    EXPECT_EQ(receive(whole), 0U);
    EXPECT_EQ(fake::take_log_text(), "");
}

TEST_F(Netlink, ABrokenSizeIsLoggedAndDropsTheRest) {
    add("", "vlan10");
    Bytes broken = notification(RTM_NEWADDR, 10);
    for (int length : {16, 20, 23}) {
        broken[0] = static_cast<unsigned char>(length);
        EXPECT_EQ(receive(broken + notification(RTM_NEWADDR, 10)), 0U);
        EXPECT_EQ(fake::take_log_text(),
                  "3 ipacl: Message received from netlink is of a broken size\n");
    }
    EXPECT_EQ(receive(notification(RTM_NEWADDR, 10) + broken), 1U);
}

TEST_F(Netlink, AFailureToReceiveIsLogged) {
    fake::fail_recvmsg(true);
    uloop_fd u{};
    ipacl_cb(&u, 0);
    EXPECT_EQ(fake::take_log_text(), "3 ipacl: Message received from netlink error(-1).\n");
}

TEST_F(Netlink, AfterAnOverrunEveryNamedInterfaceIsAskedForAgain) {
    fake::set_interface("vlan1", 1, "10.1.0.1", "255.255.0.0");
    ipacl_insert("other", 0, 0, IPACL_STATUS_READY);
    ipacl_insert("still", 0, 0, IPACL_STATUS_READY);
    auto *both = add("vlan10", "vlan1");
    auto *source = add("vlan1", "", "other");
    auto *gone = add("vlan30", "", "other");
    gone->srcaddr = ip("10.3.0.1");
    auto *same = add("vlan10", "", "still");
    same->srcaddr = ip("10.0.0.1");
    same->srcmsk = ip("255.255.255.0");
    fake::overrun(2);
    fake::queue_datagram(notification(RTM_NEWADDR, 10));
    fake::queue_datagram(notification(RTM_NEWADDR, 10));
    uloop_fd u{};
    ipacl_cb(&u, 0);
    EXPECT_EQ(both->srcaddr.s_addr, ip("10.0.0.1").s_addr); // vlan1's is not taken for vlan10's
    EXPECT_EQ(both->dstaddr.s_addr, ip("10.1.0.1").s_addr);
    EXPECT_EQ(source->srcmsk.s_addr, ip("255.255.0.0").s_addr);
    EXPECT_EQ(gone->srcaddr.s_addr, 0U);
    EXPECT_EQ(gone->srcmsk.s_addr, INADDR_BROADCAST);
    std::string announced;
    for (const auto &sync : fake::take_syncs())
        announced += sync.name + " ";
    EXPECT_EQ(announced, "web other other ");
    EXPECT_EQ(fake::take_log_text(), "3 ipacl: Message received from netlink error(-1).\n");
    EXPECT_EQ(fake::sockets().opened, fake::sockets().closed);
    ipacl_cb(&u, 0); // what had been left in the socket is read and dropped
    EXPECT_EQ(fake::take_log_text(), "3 ipacl: Message received from netlink error(-1).\n");
}

TEST_F(Netlink, AnOverrunThatDoesNotEndOrHasNoSocketEndsTheHandler) {
    auto *rule = add("vlan10", "vlan10");
    fake::overrun(1000000);
    uloop_fd u{};
    ipacl_cb(&u, 0);
    EXPECT_EQ(rule->srcaddr.s_addr, ip("10.0.0.1").s_addr);
    fake::take_log();
    fake::fail_socket(true);
    ipacl_cb(&u, 0);
    EXPECT_EQ(fake::take_log_text(), "3 ipacl: Message received from netlink error(-1).\n"
                                     "3 ipacl socket error\n");
}

TEST_F(Netlink, AnOverrunWithoutASocketLeavesADestinationAlone) {
    auto *rule = add("", "vlan10");
    rule->dstaddr = ip("10.9.0.1");
    fake::overrun(1);
    fake::fail_socket(true);
    uloop_fd u{};
    ipacl_cb(&u, 0);
    EXPECT_EQ(rule->dstaddr.s_addr, ip("10.9.0.1").s_addr);
    EXPECT_TRUE(fake::take_syncs().empty());
    EXPECT_EQ(fake::take_log_text(), "3 ipacl: Message received from netlink error(-1).\n"
                                     "3 ipacl socket error\n");
}

TEST_F(Netlink, ANodeOfAListThatIsDeletedIsMarkedWhateverItsRule) {
    ipacl *list = ipacl_config_find("web");
    add("vlan10", "");
    add("", "vlan10");
    ipacl_extended_rule loose{}; // a linked component's own, in no list
    add_ipacl_vlanname_list("vlan10", list, &loose, 1);
    ipacl_insert("other", 0, 0, IPACL_STATUS_READY);
    auto *kept = add("vlan10", "", "other");
    EXPECT_EQ(ipacl_delete("web", 0), 1);
    for (const auto *node = ipacl_vlanname_list_head; node; node = node->next)
        EXPECT_EQ(node->rule, node->next ? 0U : reinterpret_cast<uintptr_t>(kept));
    EXPECT_EQ(receive(notification(RTM_NEWADDR, 10)), 1U);
    EXPECT_EQ(loose.srcaddr.s_addr, 0U);
}

TEST_F(Netlink, AMarkedNodeIsSkippedAfterAnOverrunToo) {
    add("vlan10", "");
    delete_acl_rule_location(ipacl_config_find("web"), nullptr, 1);
    fake::overrun(1);
    uloop_fd u{};
    ipacl_cb(&u, 0);
    EXPECT_EQ(fake::take_syncs().size(), 0U);
}

TEST_F(Netlink, ADescriptorThatTheLoopLetGoOfIsWatchedAgain) {
    fake::overrun(1);
    uloop_fd u{};
    ipacl_cb(&u, 0);
    EXPECT_TRUE(fake::take_calls().empty());
    u.error = true;
    ipacl_cb(&u, 0);
    EXPECT_EQ(fake::take_calls(), (std::vector<std::string>{"uloop_fd_add 1"}));
}

TEST_F(Netlink, WithoutASocketTheRestIsDropped) {
    add("", "vlan10");
    fake::fail_socket(true);
    EXPECT_EQ(receive(notification(RTM_NEWADDR, 10) + notification(RTM_NEWADDR, 10)), 0U);
    EXPECT_EQ(fake::take_log_text(), "3 ipacl socket error\n");
}

class Attributes : public testing::Test {
  protected:
    void parse(Bytes bytes, int length) {
        bytes_ = std::move(bytes);
        bytes_.resize(256);
        netlink_parse_rtattr(tb_, 4, reinterpret_cast<rtattr *>(bytes_.data()), length);
    }
    long offset(int type) const {
        return reinterpret_cast<unsigned char *>(tb_[type]) - bytes_.data();
    }
    alignas(8) Bytes bytes_;
    rtattr *tb_[5] = {};
};

TEST_F(Attributes, LaterOnesReplaceEarlierOnesAndHighTypesAreSkipped) {
    const Bytes bytes =
        attribute(1, "abcde") + attribute(5, "x") + attribute(4, "") + attribute(1, "y");
    parse(bytes, static_cast<int>(bytes.size()));
    EXPECT_EQ(offset(1), 24);
    EXPECT_EQ(offset(4), 20);
    EXPECT_EQ(tb_[0], nullptr);
}

TEST_F(Attributes, TheTableIsNotCleared) {
    rtattr mine{};
    tb_[2] = &mine;
    parse(attribute(1, "a"), 5);
    EXPECT_EQ(tb_[2], &mine);
    EXPECT_EQ(offset(1), 0);
}

TEST_F(Attributes, FewerThanFourBytesOrABadLengthEndTheWalk) {
    parse(attribute(1, "a"), 3);
    EXPECT_EQ(tb_[1], nullptr);
    Bytes bad = attribute(1, "a") + attribute(2, "b");
    bad[8] = 3;
    parse(bad, 16);
    EXPECT_EQ(offset(1), 0);
    EXPECT_EQ(tb_[2], nullptr);
    bad[8] = 9; // longer than what is left
    parse(bad, 16);
    EXPECT_EQ(tb_[2], nullptr);
}

} // namespace
