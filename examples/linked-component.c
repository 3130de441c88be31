/* What a component linked with libipacl does: read a configuration, ask lists about packets, turn a
 * range and a list into what a hardware table takes, and look at everything at leisure.
 *
 *     cc linked-component.c $(pkg-config --cflags --libs ipacl)
 *     ./a.out branch-office.conf
 *
 * Prints one line a step, each as the comment above it promises. Exit status 0; 1 when a step did
 * not do what it should.
 *
 * The access lists of this process are its own: a device's service and its components share them
 * where the device's platform library says so. */

#include <aclapi.h>
#include <ipaclext.h>
#include <ipaclstd.h>
#include <platform/resource.h>

#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>

/* Reads a configuration file: "ip access-list KIND NAME" opens a list, the lines below are its
 * rules, "!" closes it. Returns the number of rule lines, or -1. */
static int read_configuration(const char *path) {
    FILE *file = fopen(path, "r");
    char line[1024], name[IPACL_NAME_SIZE] = "";
    int standard = 0, rules = 0;

    if (!file)
        return -1;
    while (fgets(line, sizeof line, file)) {
        char kind[16];
        line[strcspn(line, "\n")] = '\0';
        if (sscanf(line, "ip access-list %15s %20s", kind, name) == 2) {
            standard = strcmp(kind, "standard") == 0;
            if (!get_ipacl_byname(name, standard))
                break;
        } else if (line[0] == ' ' && name[0]) {
            /* The same commands as over the bus; a refusal is said on the terminal. */
            if ((standard ? do_standard_end(name, line) : do_extended_end(name, line)) != 0)
                break;
            rules++;
        }
    }
    const int whole = feof(file);
    fclose(file);
    return whole ? rules : -1;
}

/* Says what a result means; the codes of missing lists and rules are no permission. */
static const char *verdict(uint32_t result) {
    if (result == IPACL_CHECK_NO_LIST || result == IPACL_CHECK_NO_RULES)
        return "denied";
    return result & IPACL_FLAG_PERMIT ? "permitted" : "denied";
}

int main(int argc, char **argv) {
    ipacl_init();

    /* "read N rules" */
    const int rules = argc == 2 ? read_configuration(argv[1]) : -1;
    if (rules < 0)
        return fprintf(stderr, "usage: linked-component CONFIGURATION\n"), 1;
    printf("read %d rules\n", rules);

    /* A list by its name, as any user of resources reads it: "guest-in has N rules". */
    struct ipacl *list = NULL;
    if (resource_read(RESOURCE_TYPE_ACCESSLIST, RESOURCE_INDEX_TYPE_STRING, "guest-in", &list, NULL,
                      NULL, NULL) != 0 ||
        !list)
        return 1;
    printf("%s has %u rules\n", list->name, list->rule_count);

    /* A packet that somebody else has taken apart: "packet permitted" or "packet denied". */
    struct acl_info packet = {.src_ip = inet_addr("172.29.3.7"),
                              .dst_ip = inet_addr("198.51.100.1"),
                              .proto = 6,
                              .dst_port = 443};
    printf("packet %s\n", verdict(ipacl_check_by_ptr(&packet, list)));

    /* A raw Ethernet frame, TCP from 172.29.3.7 to 10.0.0.1: "frame permitted" or "denied". Ports
     * of a frame stay in network byte order. */
    uint8_t frame[14 + 20 + 20] = {0};
    frame[14] = 0x45;
    frame[14 + 9] = 6;
    memcpy(frame + 14 + 12, &packet.src_ip, 4);
    memcpy(frame + 14 + 16, (const uint8_t[]){10, 0, 0, 1}, 4);
    const struct message buffer = {frame, frame + sizeof frame};
    printf("frame %s\n", verdict(ipacl_check_test(&buffer, list->name)));

    /* A range as the fewest address/mask entries, highest first: "entry ADDRESS MASK" a line. The
     * range is taken in host byte order here, and by stored words in matching. */
    struct ipacl_standard_rule range = {.flags = IPACL_FLAG_PERMIT, .status = IPACL_RULE_ACTIVE};
    range.src_begin_addr.s_addr = inet_addr("10.0.0.1");
    range.src_end_addr.s_addr = inet_addr("10.0.0.6");
    struct ipacl *entries = acl_rule_IPrange_decompose(&range, 1);
    if (!entries)
        return 1;
    for (const struct ipacl_standard_rule *rule = entries->ipacl_s; rule; rule = rule->ipacl_next) {
        printf("entry %s", inet_ntoa(rule->srcaddr));
        printf(" %s\n", inet_ntoa(rule->srcmsk));
    }
    acl_rule_IPrange_delete(entries);

    /* A list that keeps a merged copy for a hardware table: "merged from N to M rules". The copy
     * belongs to the list. Merging can change verdicts; see aclrule.h. */
    int notify = 0;
    struct ipacl *blocks = get_ipacl_byname("blocks", 1);
    if (!blocks || do_standard_end("blocks", "permit 10.0.0.0 255.255.255.0") != 0 ||
        do_standard_end("blocks", "permit 10.0.1.0 255.255.255.0") != 0)
        return 1;
    blocks->merge_enable = 1;
    if (acl_rule_merger_ctrl(blocks, &notify) != IPACL_MERGE_RC_OK || !notify)
        return 1;
    printf("merged from %u to %u rules\n", blocks->rule_count, blocks->p_mergeacl->rule_count);

    /* Everything at once, without holding the lock: "snapshot of N blocks", one "  NAME: N" a list,
     * then "freed N blocks". */
    struct ipacl_configure *snapshot = NULL;
    printf("snapshot of %d blocks\n", get_ipacl_config_info(&snapshot));
    for (const struct ipacl_configure *node = snapshot; node; node = node->next)
        printf("  %s: %d\n", node->name, node->count);
    printf("freed %d blocks\n", free_ipacl_config_info(&snapshot));
    return 0;
}
