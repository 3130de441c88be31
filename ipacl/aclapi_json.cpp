// The JSON view: the directory of configured lists, or the rules of one list.
//
// Every value is a string, and a condition that a rule does not set is the empty string, so that
// all rules of a kind have the same keys in the same order. Remarks end after their first keys.

#include "acl_text.h"
#include "acl_words.h"
#include "aclapi_kind.h"
#include "platform/vty.h"

#include <arpa/inet.h>
#include <cjson/cJSON.h>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

// One value being formatted. Room for two dotted addresses, or for a VLAN name.
class Value {
  public:
    const char *text() const { return text_; }

    Value &add(const char *fmt, ...) __attribute__((format(printf, 2, 3))) {
        va_list args;
        va_start(args, fmt);
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the line above starts it
        (void)vsnprintf(end(), room(), fmt, args);
        va_end(args);
        return *this;
    }
    Value &add(in_addr address) {
        if (room() >= INET_ADDRSTRLEN)
            *acl_text::write_dotted(end(), address) = '\0';
        return *this;
    }

  private:
    char *end() { return text_ + strlen(text_); }
    size_t room() const { return sizeof text_ - strlen(text_); }

    char text_[64] = "";
};

// Adds `item` to a container; short memory loses the item and nothing else.
cJSON *add_item(cJSON *array, cJSON *item) {
    if (cJSON_AddItemToArray(array, item))
        return item;
    cJSON_Delete(item);
    return nullptr;
}

// Adds a text that is copied. Keys are never copied: they are words of tables.
void add_text(cJSON *object, const char *key, const char *text) {
    cJSON *item = *text ? cJSON_CreateString(text) : cJSON_CreateStringReference("");
    if (!cJSON_AddItemToObjectCS(object, key, item))
        cJSON_Delete(item);
}

// Adds a word that outlives the object.
void add_word(cJSON *object, const char *key, const char *word) {
    cJSON *item = cJSON_CreateStringReference(word);
    if (!cJSON_AddItemToObjectCS(object, key, item))
        cJSON_Delete(item);
}

void add_flag(cJSON *object, const char *key, bool set, const char *word) {
    add_word(object, key, set ? word : "");
}

void add_authority(cJSON *object, uint16_t flags) {
    if (flags & IPACL_FLAG_PERMIT)
        add_word(object, "Authority", "permit");
    else if (flags & IPACL_FLAG_DENY)
        add_word(object, "Authority", "deny");
}

template <class Rule>
Value range_of(const Rule &rule, const acl_words::Address<Rule> &fields) {
    return Value().add(rule.*fields.begin).add("-").add(rule.*fields.end);
}

void add_rule(cJSON *object, const ipacl_standard_rule &rule) {
    constexpr auto &fields = acl_words::kStandardSource;
    add_authority(object, rule.flags);
    if (rule.flags & IPACL_FLAG_REMARK)
        return;
    const bool by_mask = fields.by_mask(rule);
    const bool any = by_mask && fields.is_any(rule);
    Value address, mask, range;
    if (!by_mask) {
        range = range_of(rule, fields);
    } else if (!any) {
        address.add(rule.srcaddr);
        mask.add(rule.srcmsk); // kept: as stored, whatever the reverse-mask bit
    }
    add_word(object, "SrcIpType", !by_mask ? "src-range" : any ? "any" : "reverse-mask");
    add_text(object, "SrcIp", address.text());
    add_text(object, "SrcIpMask", mask.text());
    add_text(object, "Src-range", range.text());
    add_flag(object, "RecordLog", rule.flags & IPACL_FLAG_LOG, "log");
}

Value address_of(const ipacl_extended_rule &rule, const acl_words::Side &side) {
    const auto &fields = side.address;
    if (*(rule.*side.vlan_name))
        return Value().add("%s", rule.*side.vlan_name);
    if (!fields.by_mask(rule))
        return range_of(rule, fields);
    if (fields.is_any(rule))
        return Value().add("any");
    in_addr mask = rule.*fields.mask;
    if (rule.flags & IPACL_FLAG_REVERSE_MASK)
        mask.s_addr = ~mask.s_addr;
    return Value().add(rule.*fields.addr).add(" ").add(mask);
}

// kept: bounds include the operand itself, and a combination of operators shows nothing.
Value ports_of(const ipacl_extended_rule &rule, const acl_words::Side &side) {
    const int port = rule.*side.port;
    Value value;
    switch (rule.*side.port_flags) {
    case IPACL_OP_GT:
        value.add("%d-%d", port, UINT16_MAX);
        break;
    case IPACL_OP_LT:
        value.add("%d-%d", 0, port);
        break;
    case IPACL_OP_EQ:
        value.add("%d", port);
        break;
    case IPACL_OP_NEQ:
        value.add("%d-%d,%d-%d", 0, port - 1, port + 1, UINT16_MAX);
        break;
    case IPACL_OP_RANGE:
        value.add("%d-%d", rule.*side.begin_port, rule.*side.end_port);
        break;
    case 0:
        // kept: a rule that asks for a message type shows its protocol number as destination port
        if (!side.is_src && acl_words::shows_message_type(rule))
            value.add("%d", rule.protcol);
        break;
    default:
        break;
    }
    return value;
}

Value option_of(const ipacl_extended_rule &rule, const acl_words::Option &option) {
    Value value;
    if (!(rule.flags & option.flag))
        return value;
    switch (option.shape) {
    case acl_words::Option::kNumber:
        value.add("%d", rule.*option.byte);
        break;
    case acl_words::Option::kChoice:
        value.add("%s", rule.*option.byte & option.bit ? option.word : option.other);
        break;
    case acl_words::Option::kCompare:
        for (const auto &row : acl_words::kOperators)
            if (row.sign && row.bit == rule.*option.op)
                value.add("%s,%d", row.sign, rule.*option.value);
        break;
    }
    return value;
}

void add_rule(cJSON *object, const ipacl_extended_rule &rule) {
    add_authority(object, rule.flags);
    add_word(object, "MaskType", rule.flags & IPACL_FLAG_REVERSE_MASK ? "mask" : "remask");
    if (rule.flags & IPACL_FLAG_REMARK)
        return;
    const char *protocol = acl_text::protocol_word(rule.protcol, false);
    add_text(object, "ProtocolNumber",
             protocol ? protocol : Value().add("%d", rule.protcol).text());
    for (const auto *side : {&acl_words::kSource, &acl_words::kDestination}) {
        add_text(object, side->json_address, address_of(rule, *side).text());
        add_text(object, side->json_port, ports_of(rule, *side).text());
    }
    add_word(object, "TimeRange", ""); // kept: the name is not shown here
    for (const auto &option : acl_words::kOptions)
        add_text(object, option.json, option_of(rule, option).text());
    add_flag(object, "RecordLog", rule.flags & IPACL_FLAG_LOG, "log");
}

void add_directory(cJSON *array) {
    acl::for_each_list([&](const ipacl &list) {
        if (!acl::configured(list))
            return;
        cJSON *object = add_item(array, cJSON_CreateObject());
        add_text(object, "IpAccessListName", list.name);
        add_text(object, "IpAccessListAttribute", list.is_standard ? "standard" : "extended");
    });
}

template <class Kind>
void add_rules(cJSON *array, const char *name) {
    const ipacl *list = acl::config_find<Kind>(name);
    if (!list)
        return;
    for (const auto *rule = Kind::head(*list); rule; rule = rule->ipacl_next)
        if (rule->status == IPACL_RULE_ACTIVE)
            add_rule(add_item(array, cJSON_CreateObject()), *rule);
}

} // namespace

void ipacl_show_json(const char *name, int32_t type) {
    cJSON *array = cJSON_CreateArray();
    if (!name)
        add_directory(array);
    else
        acl::with_kind(type != 0, [&]<class Kind>(Kind) { add_rules<Kind>(array, name); });
    if (char *text = cJSON_Print(array)) {
        vty_printf("%s\n", text);
        free(text);
    }
    cJSON_Delete(array);
}
