/* The records of the access-list service: lists, rules, the packet descriptor and the index nodes.
 *
 * Shared by the service and by every component linked with it, in C and in C++. Addresses and
 * masks are in network byte order, exactly as they stand in an IP header, and are compared as
 * stored 32-bit words; ports, lengths and the TTL of a rule are host integers. Masks are compare
 * masks: a 1 bit is compared. Records are plain, zero-filled at creation, chained by pointers and
 * ended by a null pointer. On the 32-bit device a standard rule takes 64 bytes, an extended rule
 * 192 and a list 80.
 *
 * Range rules order addresses by the stored word, so on a little-endian processor the last octet
 * weighs most. */
#ifndef IPACL_IPACL_H
#define IPACL_IPACL_H

#include <assert.h>
#include <netinet/in.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Names of lists, VLAN interfaces and time ranges: at most 20 characters and a NUL. */
enum { IPACL_NAME_SIZE = 21, IPACL_NAME_LEN = IPACL_NAME_SIZE - 1 };

/* `status` of a list. Lists in 2 or 5 are kept but not shown; nothing here assigns them. */
enum ipacl_list_status {
    IPACL_STATUS_READY = 1,
    IPACL_STATUS_HIDDEN_2 = 2,
    IPACL_STATUS_NOTREADY = 3, /* open for editing */
    IPACL_STATUS_HIDDEN_5 = 5
};

/* `status` of a rule; any other value is an inactive rule, kept in the list and skipped. */
enum { IPACL_RULE_ACTIVE = 1 };

/* `flags` of a rule. Standard rules use permit, deny, log, remark and reverse-mask. */
enum ipacl_rule_flag {
    IPACL_FLAG_PERMIT = 0x0001,
    IPACL_FLAG_DENY = 0x0002,
    IPACL_FLAG_LOG = 0x0004,
    IPACL_FLAG_ICMP_TYPE = 0x0008, /* type held in src_port */
    IPACL_FLAG_IGMP_TYPE = 0x0010, /* type held in src_port */
    IPACL_FLAG_TIME_RANGE = 0x0020,
    IPACL_FLAG_ESTABLISHED = 0x0040,
    IPACL_FLAG_TOS = 0x0080,
    IPACL_FLAG_PRECEDENCE = 0x0100,
    IPACL_FLAG_DONT_FRAGMENT = 0x0200,
    IPACL_FLAG_FRAGMENT = 0x0400,
    IPACL_FLAG_TOTALLEN = 0x0800,
    IPACL_FLAG_TTL = 0x1000,
    IPACL_FLAG_REMARK = 0x2000,
    IPACL_FLAG_REVERSE_MASK = 0x4000, /* typed as a wildcard; the stored mask is a compare mask */
    IPACL_FLAG_OFFSET = 0x8000
};

/* Port, total-length and TTL operators. All set bits must hold; 0 is no condition. */
enum ipacl_operator {
    IPACL_OP_GT = 0x01,
    IPACL_OP_LT = 0x02,
    IPACL_OP_EQ = 0x04,
    IPACL_OP_NEQ = 0x10,  /* ports only */
    IPACL_OP_RANGE = 0x20 /* ports only: begin and end, both inclusive */
};

/* `compare_flag`, `src_compare_flag`, `dst_compare_flag`. */
enum ipacl_compare { IPACL_COMPARE_MASK = 1, IPACL_COMPARE_RANGE = 2 };

/* Bits of `fragment_flags` and `offset_flags`, in rules and in packets. */
enum ipacl_fragment_bit {
    IPACL_DONT_FRAGMENT_SET = 0x01,
    IPACL_IS_FRAGMENT = 0x02,
    IPACL_OFFSET_NOT_ZERO = 0x01
};

/* `protcol` of a rule that takes any protocol. */
enum { IPACL_PROTOCOL_IP = 0xFFFF };

struct ipacl_standard_rule {
    struct ipacl_standard_rule *ipacl_next;
    struct in_addr srcaddr;
    struct in_addr srcmsk;
    uint16_t flags; /* enum ipacl_rule_flag */
    struct in_addr src_begin_addr;
    struct in_addr src_end_addr;
    uint16_t compare_flag; /* 1: address and mask; any other value: range */
    uint16_t any_flag;     /* 0: an all-zero address and mask is shown as "any" */
    int32_t status;
    char *remark; /* owned by the rule unless a derived copy says otherwise */
    int32_t port_precedence;
    int32_t global_precedence;
    int32_t vlan_precedence;
    int32_t slot_precedence;
    uint64_t stat_count;
};

struct ipacl_extended_rule {
    struct ipacl_extended_rule *ipacl_next;
    uint16_t protcol; /* 0..255, or IPACL_PROTOCOL_IP */
    char src_vlan_name[IPACL_NAME_SIZE];
    struct in_addr srcaddr;
    struct in_addr srcmsk;
    uint16_t src_port;
    uint16_t src_port_flags; /* enum ipacl_operator */
    struct in_addr src_begin_addr;
    struct in_addr src_end_addr;
    uint16_t src_begin_port;
    uint16_t src_end_port;
    char dst_vlan_name[IPACL_NAME_SIZE];
    struct in_addr dstaddr;
    struct in_addr dstmsk;
    uint16_t dst_port;
    uint16_t dst_port_flags;
    struct in_addr dst_begin_addr;
    struct in_addr dst_end_addr;
    uint16_t dst_begin_port;
    uint16_t dst_end_port;
    uint16_t src_compare_flag; /* enum ipacl_compare */
    uint16_t dst_compare_flag;
    uint16_t src_any_flag;
    uint16_t dst_any_flag;
    char time_range[IPACL_NAME_SIZE];
    uint8_t tos;
    uint8_t precedence;
    uint16_t flags; /* enum ipacl_rule_flag */
    uint16_t tcpflags;
    uint16_t cosflag;
    uint16_t cos;
    int32_t is_act;
    uint8_t fragment_flags; /* enum ipacl_fragment_bit */
    uint8_t offset_flags;
    uint16_t totallen;
    uint16_t totallen_flags;
    uint16_t ttl;
    uint16_t ttl_flags;
    int32_t status;
    char *remark;
    int32_t port_precedence;
    int32_t global_precedence;
    int32_t vlan_precedence;
    int32_t slot_precedence;
    uint64_t stat_count;
};

struct ipacl {
    uint32_t id; /* resource identity; assigned by nothing here */
    char name[IPACL_NAME_SIZE];
    int32_t is_standard; /* 1: rules in ipacl_s; 0: rules in ipacl_e */
    int32_t is_dynamic;
    struct ipacl_standard_rule *ipacl_s;
    struct ipacl_extended_rule *ipacl_e;
    struct ipacl *next; /* in the same registry bucket */
    uint32_t rule_count;
    uint32_t flag;
    int32_t is_change; /* rules changed since the derived copies were rebuilt */
    int32_t merge_enable;
    struct ipacl *p_mergeacl; /* owned, unless null or the list itself */
    int32_t status;           /* enum ipacl_list_status */
    int32_t refcnt;
    struct ipacl *p_cleanacl; /* owned, unless null or the list itself */
};

/* The header fields of one packet, as the matchers take them. */
struct acl_info {
    uint32_t src_ip; /* network byte order */
    uint32_t dst_ip;
    uint16_t src_port;
    uint16_t dst_port;
    uint8_t proto;
    uint8_t tos; /* the whole type-of-service byte */
    uint8_t tcp_flags;
    uint8_t igmp_type;
    uint8_t icmp_type;
    uint8_t icmp_code;
    uint8_t ttl;
    uint8_t fragment_flags;
    uint8_t offset_flags;
    uint32_t totallen;
};

/* One rule that names a VLAN interface. `rule` is 0 once that record was freed without its node
 * being removed: such a node keeps its names and is skipped by everything that reads rules. */
struct _ipacl_rule_vlanname {
    uintptr_t ipacl;
    uintptr_t rule;
    char srcvlan_name[IPACL_NAME_SIZE];
    char dstvlan_name[IPACL_NAME_SIZE];
    struct _ipacl_rule_vlanname *next;
};

/* One node of a configuration snapshot: a list's name and a private copy of its rules. */
struct ipacl_configure {
    char name[IPACL_NAME_SIZE];
    bool is_standard;
    bool merge_enable;
    int32_t count;
    struct ipacl_extended_rule *rule_e; /* of an extended list; else not to be read */
    struct ipacl_standard_rule *rule_s; /* of a standard list; else not to be read */
    struct ipacl_configure *next;
};

/* The time-range index: time ranges, the lists that use one, the rules of such a list. */
struct ipacl_tmrg_rule_node {
    uintptr_t p_erule;
    struct ipacl_tmrg_rule_node *p_rule_next;
};

struct ipacl_tmrg_ipacl_control {
    uintptr_t p_ipacl;
    uint16_t rule_num;
    struct ipacl_tmrg_rule_node *p_rule_next;
    struct ipacl_tmrg_ipacl_control *p_ipacl_next;
};

struct ipacl_tmrg_info_control {
    char tmrg_name[IPACL_NAME_SIZE];
    uint32_t res_id;
    struct ipacl_tmrg_ipacl_control *p_ipacl_next;
    struct ipacl_tmrg_info_control *p_info_ctrl_next;
};

/* The resource service's synchronisation record of one list. */
typedef struct tag_ACL_RESOURCE_SYN_INFO {
    uint32_t is_set;
    uint32_t owner_id;
    uintptr_t acl_addr;
    char name[IPACL_NAME_SIZE];
} ACL_RESOURCE_SYN_INFO_STRU;

#ifdef __cplusplus
}
#endif

/* Records cross the bus and the resource service as they lie in the device's memory. */
#if UINTPTR_MAX == UINT32_MAX
#define IPACL_AT(record, field, offset)                                                            \
    static_assert(offsetof(struct record, field) == (offset), #record "." #field)
static_assert(sizeof(struct ipacl_standard_rule) == 64, "size of ipacl_standard_rule");
IPACL_AT(ipacl_standard_rule, srcaddr, 4);
IPACL_AT(ipacl_standard_rule, srcmsk, 8);
IPACL_AT(ipacl_standard_rule, flags, 12);
IPACL_AT(ipacl_standard_rule, src_begin_addr, 16);
IPACL_AT(ipacl_standard_rule, src_end_addr, 20);
IPACL_AT(ipacl_standard_rule, compare_flag, 24);
IPACL_AT(ipacl_standard_rule, any_flag, 26);
IPACL_AT(ipacl_standard_rule, status, 28);
IPACL_AT(ipacl_standard_rule, remark, 32);
IPACL_AT(ipacl_standard_rule, port_precedence, 36);
IPACL_AT(ipacl_standard_rule, slot_precedence, 48);
IPACL_AT(ipacl_standard_rule, stat_count, 56);
static_assert(sizeof(struct ipacl_extended_rule) == 192, "size of ipacl_extended_rule");
IPACL_AT(ipacl_extended_rule, protcol, 4);
IPACL_AT(ipacl_extended_rule, src_vlan_name, 6);
IPACL_AT(ipacl_extended_rule, srcaddr, 28);
IPACL_AT(ipacl_extended_rule, src_port, 36);
IPACL_AT(ipacl_extended_rule, src_begin_addr, 40);
IPACL_AT(ipacl_extended_rule, src_end_port, 50);
IPACL_AT(ipacl_extended_rule, dst_vlan_name, 52);
IPACL_AT(ipacl_extended_rule, dstaddr, 76);
IPACL_AT(ipacl_extended_rule, dst_port, 84);
IPACL_AT(ipacl_extended_rule, dst_begin_addr, 88);
IPACL_AT(ipacl_extended_rule, dst_end_port, 98);
IPACL_AT(ipacl_extended_rule, src_compare_flag, 100);
IPACL_AT(ipacl_extended_rule, time_range, 108);
IPACL_AT(ipacl_extended_rule, tos, 129);
IPACL_AT(ipacl_extended_rule, precedence, 130);
IPACL_AT(ipacl_extended_rule, flags, 132);
IPACL_AT(ipacl_extended_rule, cos, 138);
IPACL_AT(ipacl_extended_rule, is_act, 140);
IPACL_AT(ipacl_extended_rule, fragment_flags, 144);
IPACL_AT(ipacl_extended_rule, totallen, 146);
IPACL_AT(ipacl_extended_rule, ttl_flags, 152);
IPACL_AT(ipacl_extended_rule, status, 156);
IPACL_AT(ipacl_extended_rule, remark, 160);
IPACL_AT(ipacl_extended_rule, port_precedence, 164);
IPACL_AT(ipacl_extended_rule, slot_precedence, 176);
IPACL_AT(ipacl_extended_rule, stat_count, 184);
static_assert(sizeof(struct ipacl) == 80, "size of ipacl");
IPACL_AT(ipacl, name, 4);
IPACL_AT(ipacl, is_standard, 28);
IPACL_AT(ipacl, ipacl_s, 36);
IPACL_AT(ipacl, ipacl_e, 40);
IPACL_AT(ipacl, rule_count, 48);
IPACL_AT(ipacl, p_mergeacl, 64);
IPACL_AT(ipacl, status, 68);
IPACL_AT(ipacl, p_cleanacl, 76);
#undef IPACL_AT
#endif

#endif
