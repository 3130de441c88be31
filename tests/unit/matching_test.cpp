// Matching by hand: result codes, each test of a rule, locks, the log line, frames and networks.

#include "rules.h"

#include <functional>

namespace {

class Matching : public TwoLists {
  protected:
    static acl_info packet(const char *src, const char *dst = "0.0.0.0", uint8_t proto = 6) {
        acl_info info{};
        info.src_ip = ip(src).s_addr;
        info.dst_ip = ip(dst).s_addr;
        info.proto = proto;
        return info;
    }
    static uint32_t check(const char *src) {
        const acl_info info = packet(src);
        return ipacl_check(&info, "s");
    }
    uint32_t check(const acl_info &info, int frag = 0) {
        return frag ? ipacl_check_frag(&info, "e") : ipacl_check(&info, "e");
    }
    static constexpr uint32_t kMiss = 34;
};

TEST_F(Matching, ResultCodes) {
    const acl_info info = packet("10.0.0.1");
    EXPECT_EQ(ipacl_check(&info, "none"), 9U);
    EXPECT_EQ(ipacl_check_frag(&info, "none"), 9U);
    EXPECT_EQ(ipacl_check(&info, "s"), 17U);
    EXPECT_EQ(ipacl_check(&info, "e"), 17U);
    EXPECT_EQ(ipacl_check_by_ptr(&info, nullptr), 9U);
    standard("permit 10.0.0.1");
    EXPECT_EQ(check("10.0.0.1"), 1U);
    EXPECT_EQ(check("10.0.0.2"), kMiss);
    EXPECT_EQ(ipacl_check_psos(nullptr, 0, 0), 1U);
}

TEST_F(Matching, ADenyRuleWithLogGivesSix) {
    standard("deny 10.0.0.1").flags |= IPACL_FLAG_LOG;
    EXPECT_EQ(check("10.0.0.1"), 6U);
}

TEST_F(Matching, OnlyTheThreeActionBitsAreReported) {
    extended("permit ip any any").flags |=
        IPACL_FLAG_TIME_RANGE | IPACL_FLAG_REVERSE_MASK | IPACL_FLAG_REMARK;
    EXPECT_EQ(check(packet("1.1.1.1")), 1U);
}

TEST_F(Matching, ARuleWithoutAnActionDecidesWithZero) {
    standard("permit 10.0.0.1").flags = IPACL_FLAG_REMARK;
    standard("permit any");
    EXPECT_EQ(check("10.0.0.1"), 0U);
}

TEST_F(Matching, InactiveRulesArePassedOver) {
    standard("deny 10.0.0.0 255.255.255.0").status = 0;
    EXPECT_EQ(check("10.0.0.1"), kMiss);
    standard("permit any").status = 2;
    EXPECT_EQ(check("10.0.0.1"), kMiss);
    standard("permit 10.0.0.1");
    EXPECT_EQ(check("10.0.0.1"), 1U);
    extended("permit ip any any").status = -1;
    EXPECT_EQ(check(packet("1.1.1.1")), kMiss);
}

TEST_F(Matching, TheFirstMatchingRuleDecides) {
    standard("deny 10.0.0.0 255.255.255.0");
    standard("permit any");
    EXPECT_EQ(check("10.0.0.7"), 2U);
    EXPECT_EQ(check("10.0.1.7"), 1U);
}

TEST_F(Matching, OnlyReadyListsAreFoundByNameButAnyByPointer) {
    standard("permit any");
    s->status = IPACL_STATUS_NOTREADY;
    const acl_info info = packet("10.0.0.1");
    EXPECT_EQ(ipacl_check(&info, "s"), 9U);
    EXPECT_EQ(ipacl_check_by_ptr(&info, s), 1U);
    EXPECT_EQ(ipacl_check_network(info.src_ip, UINT32_MAX, "s"), 9U);
    EXPECT_EQ(ipacl_check_network_by_ptr(info.src_ip, UINT32_MAX, s), 1U);
}

TEST_F(Matching, AnyOtherCompareFlagOfAStandardRuleIsARange) {
    auto &rule = standard("permit any");
    for (const uint16_t form : std::initializer_list<uint16_t>{0, 2, 3}) {
        rule.compare_flag = form;
        rule.src_begin_addr = rule.src_end_addr = ip("10.0.0.5");
        EXPECT_EQ(check("10.0.0.5"), 1U);
        EXPECT_EQ(check("10.0.0.6"), kMiss);
    }
}

TEST_F(Matching, ARangeOrdersAddressesAsStoredWords) {
    // On a little-endian processor 10.0.0.1 .. 10.0.0.9 holds every address that ends in 2 to 8.
    standard("permit src-range 10.0.0.1 10.0.0.9");
    EXPECT_EQ(check("10.0.0.5"), 1U);
    EXPECT_EQ(check("192.168.77.5"), 1U);
    EXPECT_EQ(check("9.255.255.9"), kMiss);
    EXPECT_EQ(check("10.0.0.9"), 1U);
    EXPECT_EQ(check("11.0.0.9"), kMiss);
}

TEST_F(Matching, AnExtendedRuleTestsBothSidesInEveryPairOfForms) {
    auto &rule = extended("permit ip 10.0.0.0 255.0.0.0 20.0.0.0 255.0.0.0");
    rule.src_begin_addr = rule.src_end_addr = ip("10.0.0.1");
    rule.dst_begin_addr = rule.dst_end_addr = ip("20.0.0.1");
    for (const uint16_t src : std::initializer_list<uint16_t>{1, 2}) {
        for (const uint16_t dst : std::initializer_list<uint16_t>{1, 2}) {
            rule.src_compare_flag = src;
            rule.dst_compare_flag = dst;
            EXPECT_EQ(check(packet("10.0.0.1", "20.0.0.1")), 1U);
            EXPECT_EQ(check(packet("11.0.0.1", "20.0.0.1")), kMiss);
            EXPECT_EQ(check(packet("10.0.0.1", "21.0.0.1")), kMiss);
            EXPECT_EQ(check(packet("10.0.0.2", "20.0.0.1")), src == 1 ? 1U : kMiss);
            EXPECT_EQ(check(packet("10.0.0.1", "20.0.0.2")), dst == 1 ? 1U : kMiss);
        }
    }
}

TEST_F(Matching, AnyOtherPairOfCompareFlagsTestsNoAddress) {
    auto &rule = extended("permit ip 10.0.0.0 255.0.0.0 10.0.0.0 255.0.0.0");
    const acl_info info = packet("1.1.1.1", "2.2.2.2");
    EXPECT_EQ(check(info), kMiss);
    const std::pair<uint16_t, uint16_t> others[] = {{1, 0}, {0, 1}, {0, 0}, {3, 1}, {2, 7}};
    for (const auto &[src, dst] : others) {
        rule.src_compare_flag = src;
        rule.dst_compare_flag = dst;
        EXPECT_EQ(check(info), 1U) << src << dst;
    }
}

TEST_F(Matching, InterfaceNamesTimeRangesTcpFlagsAndCosAreNotTested) {
    auto &rule = extended("permit tcp any any");
    strcpy(rule.src_vlan_name, "vlan10");
    strcpy(rule.dst_vlan_name, "vlan20");
    strcpy(rule.time_range, "night");
    rule.flags |= IPACL_FLAG_TIME_RANGE;
    rule.tcpflags = 0x3F;
    rule.cosflag = 1;
    rule.cos = 7;
    rule.port_precedence = rule.global_precedence = 9;
    EXPECT_EQ(check(packet("1.1.1.1")), 1U);
}

TEST_F(Matching, TheProtocolMustBeEqualUnlessIp) {
    auto &rule = extended("permit tcp any any");
    EXPECT_EQ(check(packet("1.1.1.1", "2.2.2.2", 17)), kMiss);
    rule.protcol = IPACL_PROTOCOL_IP;
    EXPECT_EQ(check(packet("1.1.1.1", "2.2.2.2", 17)), 1U);
    rule.protcol = 300;
    EXPECT_EQ(check(packet("1.1.1.1", "2.2.2.2", 300 & 0xFF)), kMiss);
}

// One port of a packet against operators, for each side.
TEST_F(Matching, EverySetPortOperatorMustHold) {
    struct Row {
        uint16_t bits;
        bool below, at, above; // of ports 79, 80, 81 against 80, range 80..90
    };
    const Row rows[] = {
        {0x00, true, true, true},    {0x04, false, true, false},  {0x10, true, false, true},
        {0x01, false, false, true},  {0x02, true, false, false},  {0x20, false, true, true},
        {0x03, false, false, false}, {0x05, false, false, false}, {0x06, false, false, false},
        {0x14, false, false, false}, {0x21, false, false, true},  {0x24, false, true, false},
        {0x30, false, false, true},  {0x11, false, false, true},  {0x22, false, false, false},
        {0x08, true, true, true},
    };
    auto &rule = extended("permit tcp any any");
    rule.src_port = rule.dst_port = 80;
    rule.src_begin_port = rule.dst_begin_port = 80;
    rule.src_end_port = rule.dst_end_port = 90;
    for (const uint8_t proto : std::initializer_list<uint8_t>{6, 17}) {
        rule.protcol = proto;
        for (const auto &row : rows) {
            const std::pair<uint16_t, bool> tries[] = {
                {79, row.below}, {80, row.at}, {81, row.above}};
            for (const auto &[port, hit] : tries) {
                acl_info info = packet("1.1.1.1", "2.2.2.2", proto);
                rule.src_port_flags = row.bits;
                rule.dst_port_flags = 0;
                info.src_port = port;
                EXPECT_EQ(check(info), hit ? 1U : kMiss) << row.bits << " source " << port;
                EXPECT_EQ(check(info, 1), 1U) << "a fragment has no ports";
                std::swap(rule.src_port_flags, rule.dst_port_flags);
                std::swap(info.src_port, info.dst_port);
                EXPECT_EQ(check(info), hit ? 1U : kMiss) << row.bits << " destination " << port;
                EXPECT_EQ(check(info, 1), 1U);
            }
        }
    }
}

TEST_F(Matching, TheEndsOfAPortRangeBelongToIt) {
    extended("permit udp any src-portrange 100 200 any");
    acl_info info = packet("1.1.1.1", "2.2.2.2", 17);
    for (const auto &[port, hit] : std::initializer_list<std::pair<uint16_t, bool>>{
             {99, false}, {100, true}, {200, true}, {201, false}}) {
        info.src_port = port;
        EXPECT_EQ(check(info), hit ? 1U : kMiss) << port;
    }
}

TEST_F(Matching, PortsAreTestedForTcpAndUdpOnly) {
    auto &rule = extended("permit sctp any any");
    rule.src_port_flags = rule.dst_port_flags = IPACL_OP_EQ;
    rule.src_port = rule.dst_port = 9;
    EXPECT_EQ(check(packet("1.1.1.1", "2.2.2.2", 132)), 1U);
}

TEST_F(Matching, BothTypeBitsAreTestedForIcmpAndIgmp) {
    auto &rule = extended("permit icmp any any");
    rule.src_port = 8;
    for (const uint8_t proto : std::initializer_list<uint8_t>{1, 2}) {
        rule.protcol = proto;
        acl_info info = packet("1.1.1.1", "2.2.2.2", proto);
        rule.flags = IPACL_FLAG_PERMIT | IPACL_FLAG_ICMP_TYPE;
        EXPECT_EQ(check(info), kMiss);
        EXPECT_EQ(check(info, 1), 1U) << "a fragment has no type";
        info.icmp_type = 8;
        info.icmp_code = 99; // not tested
        EXPECT_EQ(check(info), 1U);
        rule.flags = IPACL_FLAG_PERMIT | IPACL_FLAG_IGMP_TYPE;
        EXPECT_EQ(check(info), kMiss);
        info.igmp_type = 8;
        EXPECT_EQ(check(info), 1U);
        rule.flags |= IPACL_FLAG_ICMP_TYPE;
        EXPECT_EQ(check(info), 1U);
        info.icmp_type = 9;
        EXPECT_EQ(check(info), kMiss);
    }
    rule.protcol = 47; // no message types there
    EXPECT_EQ(check(packet("1.1.1.1", "2.2.2.2", 47)), 1U);
}

TEST_F(Matching, ATypeAbove255NeverMatches) {
    auto &rule = extended("permit icmp any any");
    rule.flags |= IPACL_FLAG_ICMP_TYPE;
    rule.src_port = 256 + 8;
    acl_info info = packet("1.1.1.1", "2.2.2.2", 1);
    info.icmp_type = 8;
    EXPECT_EQ(check(info), kMiss);
}

TEST_F(Matching, TosAndPrecedenceAreFieldsOfTheServiceByte) {
    auto &rule = extended("permit ip any any");
    acl_info info = packet("1.1.1.1");
    info.tos = 0xA0 | 6 << 1 | 1; // precedence 5, type of service 6, and the bit that none tests
    rule.flags = IPACL_FLAG_PERMIT | IPACL_FLAG_TOS;
    rule.tos = 6;
    EXPECT_EQ(check(info), 1U);
    rule.tos = 7;
    EXPECT_EQ(check(info), kMiss);
    EXPECT_EQ(check(info, 1), kMiss);
    rule.flags = IPACL_FLAG_PERMIT | IPACL_FLAG_PRECEDENCE;
    rule.precedence = 5;
    EXPECT_EQ(check(info), 1U);
    rule.precedence = 6;
    EXPECT_EQ(check(info), kMiss);
}

TEST_F(Matching, EstablishedNeedsAckOrRstWhateverTheProtocolAndNotInFragments) {
    for (const uint16_t protocol : std::initializer_list<uint16_t>{6, 17, 0xFFFF}) {
        auto &rule = extended("permit ip any any");
        rule.protcol = protocol;
        rule.flags |= IPACL_FLAG_ESTABLISHED;
        acl_info info = packet("1.1.1.1", "2.2.2.2", protocol == 17 ? 17 : 6);
        for (int flags = 0; flags < 256; flags++) {
            info.tcp_flags = static_cast<uint8_t>(flags);
            EXPECT_EQ(check(info), flags & 0x14 ? 1U : kMiss) << flags;
            EXPECT_EQ(check(info, 1), 1U);
        }
        delete_acl_rule_location(e, nullptr, 0);
    }
}

TEST_F(Matching, AFlagOptionComparesItsOwnBitOnly) {
    struct Row {
        uint16_t flag;
        uint8_t ipacl_extended_rule::*rule_byte;
        uint8_t acl_info::*packet_byte;
        uint8_t bit;
    };
    const Row rows[] = {
        {IPACL_FLAG_DONT_FRAGMENT, &ipacl_extended_rule::fragment_flags, &acl_info::fragment_flags,
         1},
        {IPACL_FLAG_FRAGMENT, &ipacl_extended_rule::fragment_flags, &acl_info::fragment_flags, 2},
        {IPACL_FLAG_OFFSET, &ipacl_extended_rule::offset_flags, &acl_info::offset_flags, 1},
    };
    auto &rule = extended("permit ip any any");
    for (const auto &row : rows) {
        for (int rule_byte = 0; rule_byte < 4; rule_byte++) {
            for (int packet_byte = 0; packet_byte < 4; packet_byte++) {
                acl_info info = packet("1.1.1.1");
                rule.flags = static_cast<uint16_t>(IPACL_FLAG_PERMIT | row.flag);
                rule.*row.rule_byte = static_cast<uint8_t>(rule_byte);
                info.*row.packet_byte = static_cast<uint8_t>(packet_byte);
                const bool hit = ((rule_byte ^ packet_byte) & row.bit) == 0;
                EXPECT_EQ(check(info), hit ? 1U : kMiss) << row.flag << rule_byte << packet_byte;
                EXPECT_EQ(check(info, 1), hit ? 1U : kMiss);
                rule.flags = IPACL_FLAG_PERMIT;
                EXPECT_EQ(check(info), 1U) << "without its flag nothing is compared";
            }
        }
    }
}

TEST_F(Matching, LengthAndTtlTakeThreeOperators) {
    struct Row {
        uint16_t bits;
        bool below, at, above;
    };
    const Row rows[] = {
        {0, true, true, true},    {4, false, true, false},    {1, false, false, true},
        {2, true, false, false},  {3, false, false, false},   {5, false, false, false},
        {6, false, false, false}, {0x14, false, true, false}, {0x21, false, false, true},
    };
    auto &rule = extended("permit ip any any");
    rule.totallen = rule.ttl = 100;
    for (const auto &row : rows) {
        rule.totallen_flags = rule.ttl_flags = row.bits;
        const std::pair<uint8_t, bool> tries[] = {{99, row.below}, {100, row.at}, {101, row.above}};
        for (const auto &[value, hit] : tries) {
            acl_info info = packet("1.1.1.1");
            info.totallen = value;
            rule.flags = IPACL_FLAG_PERMIT | IPACL_FLAG_TOTALLEN;
            EXPECT_EQ(check(info), hit ? 1U : kMiss) << "length " << row.bits << ' ' << int{value};
            EXPECT_EQ(check(info, 1), hit ? 1U : kMiss);
            info.totallen = 0;
            info.ttl = value;
            rule.flags = IPACL_FLAG_PERMIT | IPACL_FLAG_TTL;
            EXPECT_EQ(check(info), hit ? 1U : kMiss) << "ttl " << row.bits << ' ' << int{value};
        }
    }
}

TEST_F(Matching, AnIpRuleStillTestsItsOptions) {
    auto &rule = extended("permit ip any any");
    rule.flags |= IPACL_FLAG_TTL;
    rule.ttl = 64;
    rule.ttl_flags = IPACL_OP_EQ;
    acl_info info = packet("1.1.1.1");
    EXPECT_EQ(check(info), kMiss);
    info.ttl = 64;
    EXPECT_EQ(check(info), 1U);
}

TEST_F(Matching, TheLengthOfAPacketHas32Bits) {
    auto &rule = extended("permit ip any any");
    rule.flags |= IPACL_FLAG_TOTALLEN;
    rule.totallen = 5;
    rule.totallen_flags = IPACL_OP_EQ;
    acl_info info = packet("1.1.1.1");
    info.totallen = 0x10005;
    EXPECT_EQ(check(info), kMiss);
}

TEST_F(Matching, MatchingAllocatesNothing) {
    standard("permit any");
    extended("permit tcp any any eq www");
    const size_t before = fake::allocations();
    const acl_info info = packet("1.1.1.1");
    ipacl_check(&info, "s");
    ipacl_check_frag(&info, "e");
    ipacl_check_network(1, 1, "s");
    EXPECT_EQ(fake::allocations(), before);
}

// --- Locks ---

TEST_F(Matching, TheLockIsTakenAndReleasedOnEveryPath) {
    standard("permit any");
    const acl_info info = packet("1.1.1.1");
    const std::function<void()> variants[] = {
        [&] { ipacl_check(&info, "s"); },
        [&] { ipacl_check(&info, "e"); },
        [&] { ipacl_check(&info, "none"); },
        [&] { ipacl_check(&info, nullptr); },
        [&] { ipacl_check_frag(&info, "s"); },
        [&] { ipacl_check_frag(&info, nullptr); },
        [&] { ipacl_check_by_ptr(&info, s); },
        [&] { ipacl_check_by_ptr(&info, nullptr); },
        [&] { ipacl_check_network(1, 1, "s"); },
        [&] { ipacl_check_network(1, 1, "e"); },
        [&] { ipacl_check_network(1, 1, "none"); },
        [&] { ipacl_check_network(1, 1, nullptr); },
        [&] { ipacl_check_network_by_ptr(1, 1, s); },
        [&] { ipacl_check_network_by_ptr(1, 1, nullptr); },
        [&] { ipacl_check_log(&info, "s", 6, nullptr); },
        [&] { ipacl_check_log(&info, nullptr, 6, nullptr); },
        [&] { ipacl_check_frag_log(&info, "e", 6, nullptr); },
    };
    int expected = fake::mutexes().locks;
    for (const auto &variant : variants) {
        variant();
        EXPECT_EQ(fake::mutexes().locks, ++expected);
        EXPECT_EQ(fake::mutexes().unlocks, expected);
        EXPECT_EQ(fake::mutexes().errors, 0);
    }
}

TEST_F(Matching, FramesAndTheFormerCheckTakeNoLock) {
    const int before = fake::mutexes().locks;
    const message empty{nullptr, nullptr};
    ipacl_check_test(&empty, "e");
    ipacl_check_psos(&empty, 1, 2);
    EXPECT_EQ(fake::mutexes().locks, before);
}

// --- The log ---

TEST_F(Matching, ALoggedMatchIsWrittenToTheSystemLog) {
    auto &rule = extended("permit tcp any any");
    const acl_info info = packet("10.0.0.1", "10.0.0.2");
    EXPECT_EQ(ipacl_check_log(&info, "e", 6, nullptr), 1U);
    EXPECT_EQ(logged(), Lines{}) << "the rule has no log bit";
    rule.flags |= IPACL_FLAG_LOG;
    EXPECT_EQ(ipacl_check_log(&info, "e", 6, nullptr), 5U);
    EXPECT_EQ(logged(),
              Lines{"6 list e permitted packet(proto = 6) 10.0.0.1 -> 10.0.0.2, 1 packet\n"});
    rule.flags = IPACL_FLAG_DENY | IPACL_FLAG_LOG;
    EXPECT_EQ(ipacl_check_frag_log(&info, "e", 4, nullptr), 6U);
    EXPECT_EQ(logged(),
              Lines{"4 list e denied packet(proto = 6) 10.0.0.1 -> 10.0.0.2, 1 packet\n"});
}

TEST_F(Matching, TheCallersTextIsTheWholeFormat) {
    extended("permit tcp any any").flags |= IPACL_FLAG_LOG;
    const acl_info info = packet("10.0.0.1", "10.0.0.2");
    EXPECT_EQ(ipacl_check_frag_log(&info, "e", 2, "mine, 100%%"), 5U);
    EXPECT_EQ(logged(), Lines{"2 mine, 100%"});
}

TEST_F(Matching, AFragmentIsLoggedAsTheFragmentMatcherDecides) {
    extended("deny tcp any any eq www").flags |= IPACL_FLAG_LOG;
    const acl_info info = packet("10.0.0.1", "10.0.0.2");
    EXPECT_EQ(ipacl_check_log(&info, "e", 6, nullptr), kMiss);
    EXPECT_EQ(logged(), Lines{});
    EXPECT_EQ(ipacl_check_frag_log(&info, "e", 6, nullptr), 6U);
    EXPECT_EQ(logged().size(), 1U);
}

TEST_F(Matching, AMissingListIsNotLogged) {
    const acl_info info = packet("10.0.0.1");
    EXPECT_EQ(ipacl_check_log(&info, "none", 6, nullptr), 9U);
    EXPECT_EQ(ipacl_check_frag_log(&info, "none", 6, nullptr), 9U);
    EXPECT_EQ(logged(), Lines{});
}

// --- Networks ---

TEST_F(Matching, ANetworkMatchesARuleThatIsNoLonger) {
    standard("permit 10.1.0.0 255.255.0.0");
    const auto network = [](const char *addr, const char *mask) {
        return ipacl_check_network(ip(addr).s_addr, ip(mask).s_addr, "s");
    };
    EXPECT_EQ(network("10.1.0.0", "255.255.0.0"), 1U);
    EXPECT_EQ(network("10.1.7.0", "255.255.255.0"), 1U);
    EXPECT_EQ(network("10.0.0.0", "255.0.0.0"), kMiss) << "the rule is longer";
    EXPECT_EQ(network("10.2.0.0", "255.255.0.0"), kMiss);
}

TEST_F(Matching, MasksOfNetworksAreComparedAsStored) {
    // 0.255.0.0 is the larger word on a little-endian processor: no rule of that mask is shorter.
    auto &rule = standard("permit 0.1.0.0 0.255.0.0");
    EXPECT_EQ(ipacl_check_network(ip("9.1.0.0").s_addr, ip("255.0.0.0").s_addr, "s"),
              rule.srcmsk.s_addr <= ip("255.0.0.0").s_addr ? 1U : kMiss);
    EXPECT_EQ(ipacl_check_network(ip("9.1.0.0").s_addr, ip("0.255.0.0").s_addr, "s"), 1U);
}

TEST_F(Matching, ARangeRuleHoldsTheNetworksAddressWhateverItsMask) {
    standard("permit src-range 10.0.0.1 10.0.0.9");
    for (const char *mask : {"0.0.0.0", "255.255.255.255"}) {
        EXPECT_EQ(ipacl_check_network(ip("10.0.0.5").s_addr, ip(mask).s_addr, "s"), 1U);
        EXPECT_EQ(ipacl_check_network(ip("10.0.0.10").s_addr, ip(mask).s_addr, "s"), kMiss);
    }
}

TEST_F(Matching, NetworksAreTestedAgainstActiveRulesOfStandardListsOnly) {
    extended("permit ip any any");
    EXPECT_EQ(ipacl_check_network(1, 1, "e"), 9U);
    EXPECT_EQ(ipacl_check_network_by_ptr(1, 1, e), 9U);
    EXPECT_EQ(ipacl_check_network_by_ptr(1, 1, nullptr), 9U);
    EXPECT_EQ(ipacl_check_network(1, 1, "none"), 9U);
    EXPECT_EQ(ipacl_check_network(1, 1, "s"), 17U);
    auto &rule = standard("deny any");
    EXPECT_EQ(ipacl_check_network(1, 1, "s"), 2U);
    rule.status = 0;
    EXPECT_EQ(ipacl_check_network(1, 1, "s"), kMiss);
}

// --- Frames ---

// An Ethernet frame with an IPv4 header of `words` 32-bit words.
struct Raw {
    uint8_t bytes[14 + 60 + 20] = {};

    explicit Raw(uint8_t proto, uint8_t words = 5) {
        ipv4()[0] = static_cast<uint8_t>(0x40 | words);
        ipv4()[9] = proto;
        memcpy(ipv4() + 12, "\x0A\x00\x00\x01", 4);
        memcpy(ipv4() + 16, "\x0A\x00\x00\x02", 4);
    }
    uint8_t *ipv4() { return bytes + 14; }
    uint8_t *transport() { return ipv4() + 4 * (ipv4()[0] & 0xF); }
    uint32_t check(const char *list, size_t size = sizeof bytes) const {
        const message m{bytes, bytes + size};
        return ipacl_check_test(&m, list);
    }
};

TEST_F(Matching, AFrameOfAMissingListIsPermitted) {
    EXPECT_EQ(Raw(6).check("none"), 1U);
    s->status = IPACL_STATUS_NOTREADY;
    EXPECT_EQ(Raw(6).check("s"), 1U);
}

TEST_F(Matching, AFramesAddressesProtocolAndTosAreRead) {
    auto &rule = extended("deny udp 10.0.0.1 255.255.255.255 10.0.0.2 255.255.255.255");
    rule.flags |= IPACL_FLAG_TOS;
    rule.tos = 3;
    Raw frame(17);
    EXPECT_EQ(frame.check("e"), kMiss);
    frame.ipv4()[1] = 3 << 1;
    EXPECT_EQ(frame.check("e"), 2U);
    frame.ipv4()[19] = 9;
    EXPECT_EQ(frame.check("e"), kMiss);
    EXPECT_EQ(Raw(6).check("s"), 17U);
    standard("deny 10.0.0.1");
    EXPECT_EQ(Raw(6).check("s"), 2U);
}

TEST_F(Matching, AFramesPortsStayInNetworkByteOrder) {
    auto &rule = extended("permit tcp any any");
    rule.src_port_flags = rule.dst_port_flags = IPACL_OP_EQ;
    for (const uint8_t proto : std::initializer_list<uint8_t>{6, 17}) {
        for (const uint8_t words : std::initializer_list<uint8_t>{5, 15}) {
            Raw frame(proto, words);
            rule.protcol = proto;
            memcpy(frame.transport(), "\x12\x34\x00\x50", 4);
            rule.src_port = htons(0x1234);
            rule.dst_port = htons(80);
            EXPECT_EQ(frame.check("e"), 1U) << int{words};
            rule.dst_port = 80;
            EXPECT_EQ(frame.check("e"), kMiss);
        }
    }
}

TEST_F(Matching, AFramesTcpFlagsAreItsLowSixBits) {
    extended("permit tcp any any").flags |= IPACL_FLAG_ESTABLISHED;
    Raw frame(6);
    frame.transport()[13] = 0xC0;
    EXPECT_EQ(frame.check("e"), kMiss);
    frame.transport()[13] = 0xD0;
    EXPECT_EQ(frame.check("e"), 1U);
    Raw udp(17);
    extended("permit udp any any").flags |= IPACL_FLAG_ESTABLISHED;
    udp.transport()[13] = 0x10;
    EXPECT_EQ(udp.check("e"), kMiss) << "only TCP has flags";
}

TEST_F(Matching, AFramesMessageTypeIsReadForIcmpAndIgmp) {
    auto &rule = extended("permit icmp any any");
    rule.src_port = 8;
    for (const uint8_t proto : std::initializer_list<uint8_t>{1, 2}) {
        rule.protcol = proto;
        rule.flags = static_cast<uint16_t>(
            IPACL_FLAG_PERMIT | (proto == 1 ? IPACL_FLAG_ICMP_TYPE : IPACL_FLAG_IGMP_TYPE));
        Raw frame(proto);
        EXPECT_EQ(frame.check("e"), kMiss);
        frame.transport()[0] = 8;
        EXPECT_EQ(frame.check("e"), 1U);
    }
}

TEST_F(Matching, ANonFirstFragmentIsSeenInTheRawWord) {
    extended("permit tcp any any eq www");
    Raw frame(6);
    EXPECT_EQ(frame.check("e"), kMiss);
    frame.ipv4()[6] = 0x01; // as it lies in memory: the low byte
    EXPECT_EQ(frame.check("e"), 1U);
    frame.ipv4()[6] = 0x20; // "more fragments" too, for the same reason
    EXPECT_EQ(frame.check("e"), 1U);
    frame.ipv4()[6] = 0;
    frame.ipv4()[7] = 0xE0; // while the top of an offset is not
    EXPECT_EQ(frame.check("e"), kMiss);
    frame.ipv4()[7] = 0x1F;
    EXPECT_EQ(frame.check("e"), 1U);
}

TEST_F(Matching, AFrameGivesNoTtlLengthOrFragmentFlags) {
    auto &rule = extended("permit ip any any");
    rule.flags |= IPACL_FLAG_TTL | IPACL_FLAG_TOTALLEN | IPACL_FLAG_DONT_FRAGMENT |
                  IPACL_FLAG_FRAGMENT | IPACL_FLAG_OFFSET;
    rule.ttl_flags = rule.totallen_flags = IPACL_OP_EQ;
    Raw frame(6);
    memset(frame.ipv4() + 2, 0xFF, 7);
    EXPECT_EQ(frame.check("e"), 1U) << "they are zero, whatever the frame says";
}

TEST_F(Matching, WhatLiesBeyondTheEndOfAFrameIsZero) {
    extended("deny udp 10.0.0.1 255.255.255.255 any");
    const Raw frame(17, 15);
    for (size_t size = 0; size < sizeof frame.bytes; size++) {
        // A copy of just that size: a read behind it is seen by the sanitizer.
        const std::vector<uint8_t> cut(frame.bytes, frame.bytes + size);
        const message m{cut.data(), cut.data() + size};
        EXPECT_EQ(ipacl_check_test(&m, "e"), size >= 30 ? 2U : kMiss) << size;
    }
    const message none{nullptr, nullptr};
    EXPECT_EQ(ipacl_check_test(&none, "e"), kMiss);
    EXPECT_EQ(ipacl_check_test(nullptr, "e"), kMiss);
    const message turned{frame.bytes + 10, frame.bytes};
    EXPECT_EQ(ipacl_check_test(&turned, "e"), kMiss);
}

TEST_F(Matching, AFieldThatTheEndOfAFrameCutsIsFilledUpWithZeroes) {
    extended("permit ip 10.0.0.0 255.255.255.255 any");
    const Raw frame(6); // from 10.0.0.1
    EXPECT_EQ(frame.check("e", 26), kMiss);
    for (const size_t size : {27U, 28U, 29U})
        EXPECT_EQ(frame.check("e", size), 1U) << size;
    EXPECT_EQ(frame.check("e", 30), kMiss);
}

} // namespace
