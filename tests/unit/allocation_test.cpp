// Every allocation of every operation fails in turn: the operation says so as it should, lists stay
// as they were, and no block is lost but those that an operation is known to lose.

#include "rules.h"

#include "platform/vty.h"

#include <functional>

namespace {

struct Operation {
    const char *name;
    const char *loses;       // what it is known to lose, by name
    size_t (*lost)(int nth); // blocks lost where allocation `nth` fails; 0: where none does
    // Runs the operation, checks its result, and gives back what it made.
    std::function<void(int nth)> run;
};

size_t nothing(int) { return 0; }

class Allocations : public TwoLists {
  protected:
    Allocations() {
        standard("permit 10.0.0.1");
        standard("permit 10.0.7.2");
        extended("permit tcp any any eq www");
        extended("permit udp any any");
    }

    // A picture of both lists.
    Lines picture() const {
        Lines all = lines(*s);
        for (const auto &line : lines(*e))
            all.push_back(line);
        all.push_back(std::to_string(s->rule_count));
        all.push_back(std::to_string(e->rule_count));
        return all;
    }

    // Runs an operation while its allocation `nth` fails, and looks at what is left.
    void attempt(const Operation &operation, int nth) {
        const Lines before = picture();
        const size_t blocks = fake::live_blocks();
        const size_t mark = fake::mark();
        fake::fail_allocation(nth);
        operation.run(nth);
        fake::fail_allocation(0);
        EXPECT_EQ(picture(), before) << "allocation " << nth;
        const size_t lost = operation.lost(nth);
        EXPECT_EQ(fake::live_blocks(), blocks + lost) << "allocation " << nth;
        if (lost) {
            EXPECT_EQ(fake::free_lost(mark), lost) << operation.loses;
            EXPECT_STRNE(operation.loses, "");
        }
    }

    void control(ipacl *list, int nth) {
        list->merge_enable = list->is_change = 1;
        int notify = -1;
        EXPECT_EQ(acl_rule_merger_ctrl(list, &notify), nth ? -1 : 0);
        EXPECT_EQ(notify, nth ? 0 : 1);
        EXPECT_EQ(logged().size(), nth ? 2U : 0U);
        if (list->p_mergeacl)
            acl_rule_IPrange_delete(list->p_mergeacl);
        list->p_mergeacl = list == s ? s : nullptr;
    }

    std::vector<Operation> operations();
};

std::vector<Operation> Allocations::operations() {
    return {
        {"acl_rule_IPrange_decompose", "the scratch list and the rules made so far",
         [](int nth) { return static_cast<size_t>(nth ? nth - 1 : 0); },
         [](int nth) {
             ipacl_standard_rule rule{};
             rule.src_begin_addr = ip("10.0.0.1");
             rule.src_end_addr = ip("10.0.0.4");
             ipacl *list = acl_rule_IPrange_decompose(&rule, 1);
             EXPECT_EQ(list == nullptr, nth != 0);
             EXPECT_EQ(fake::take_answers().empty(), nth == 0);
             if (list)
                 acl_rule_IPrange_delete(list);
         }},
        {"acl_rule_merger_create_upper_ipacl of a standard list", "", nothing,
         [this](int nth) {
             ipacl *upper = nullptr;
             EXPECT_EQ(acl_rule_merger_create_upper_ipacl(s, &upper), nth ? -1 : 0);
             EXPECT_EQ(logged().empty(), nth == 0);
             EXPECT_EQ(upper == nullptr, nth != 0);
             if (upper)
                 acl_rule_IPrange_delete(upper);
         }},
        {"acl_rule_merger_create_upper_ipacl of an extended list", "", nothing,
         [this](int nth) {
             ipacl *upper = nullptr;
             EXPECT_EQ(acl_rule_merger_create_upper_ipacl(e, &upper), nth ? -1 : 0);
             EXPECT_EQ(logged().empty(), nth == 0);
             if (upper)
                 acl_rule_IPrange_delete(upper);
         }},
        {"acl_rule_merger_ctrl of a standard list", "", nothing,
         [this](int nth) { control(s, nth); }},
        {"acl_rule_merger_ctrl of an extended list", "", nothing,
         [this](int nth) { control(e, nth); }},
        {"deepcopy_ipacl_ext_rule", "", nothing,
         [this](int nth) {
             ipacl *copy = deepcopy_ipacl_ext_rule(e);
             EXPECT_EQ(copy == nullptr, nth != 0);
             EXPECT_EQ(logged().empty(), nth == 0);
             if (copy)
                 acl_rule_IPrange_delete(copy);
         }},
        {"deepcopy_ipacl_clean", "", nothing,
         [this](int nth) {
             ipacl copy{};
             EXPECT_EQ(deepcopy_ipacl_clean(s, &copy), nth ? -1 : 0);
             EXPECT_EQ(logged().empty(), nth == 0);
             delete_acl_rule_location(&copy, nullptr, 0); // what was copied is the caller's
         }},
        {"get_ipacl_config_info", "", nothing,
         [](int nth) {
             ipacl_configure *snapshot = nullptr;
             EXPECT_EQ(get_ipacl_config_info(&snapshot), nth ? -1 : 6);
             EXPECT_EQ(logged().empty(), nth == 0);
             if (snapshot)
                 free_ipacl_config_info(&snapshot);
         }},
        {"ipacl_insert", "", nothing,
         [](int nth) {
             EXPECT_EQ(ipacl_insert("new", 1, 0, 1), 1) << "short memory looks like success";
             EXPECT_EQ(ipacl_config_find("new") == nullptr, nth != 0);
             if (nth == 0)
                 ipacl_delete("new", 1);
         }},
        {"ipacl_insert without a name", "the record that no bucket takes",
         [](int nth) { return static_cast<size_t>(nth == 0); },
         [](int nth) {
             EXPECT_EQ(ipacl_insert(nullptr, 1, 0, 1), nth ? 1 : 0);
             logged();
         }},
        {"rewrite_acle_rule", "", nothing,
         [this](int nth) {
             const ipacl_extended_rule target = *e->ipacl_e;
             EXPECT_EQ(rewrite_acle_rule("e", 1, &target), nth ? 0 : 1);
         }},
        {"rewrite_acle_rule of a missing list", "the new record",
         [](int nth) { return static_cast<size_t>(nth == 0); },
         [this](int) { EXPECT_EQ(rewrite_acle_rule("none", 1, e->ipacl_e), 0); }},
        {"add_ipacl_vlanname_list", "", nothing,
         [this](int nth) {
             int result = 1;
             const std::string said = fake::stdout_of(
                 [&] { result = add_ipacl_vlanname_list("vlan1", e, e->ipacl_e, 1); });
             EXPECT_EQ(result, nth ? -1 : 0);
             EXPECT_EQ(said, nth ? "Can't allocate ipacl_vlanname memory\n" : "");
             delete_ipacl_vlanname_list("vlan1", e, e->ipacl_e);
         }},
        {"a rule command", "", nothing,
         [this](int nth) {
             do_standard_end("s", "permit 10.0.9.9");
             EXPECT_EQ(s->rule_count, nth ? 2U : 3U);
             if (s->rule_count == 3)
                 delete_acl_rule_location(s, nullptr, 3);
             fake::take_terminal();
         }},
    };
}

TEST_F(Allocations, EachFailureIsSaidAndLosesOnlyWhatItIsKnownToLose) {
    for (const auto &operation : operations()) {
        SCOPED_TRACE(operation.name);
        const size_t start = fake::allocations();
        attempt(operation, 0);
        const int wanted = static_cast<int>(fake::allocations() - start);
        ASSERT_GE(wanted, 1) << "an operation that allocates nothing proves nothing";
        for (int nth = 1; nth <= wanted; nth++)
            attempt(operation, nth);
    }
}

} // namespace
