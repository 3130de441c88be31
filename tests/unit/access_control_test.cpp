// The files that tell the bus's broker who may do what, in the form that it reads.

#include "obj_ipacl.h"

#include <cjson/cJSON.h>

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <set>
#include <sstream>

namespace {

using Names = std::set<std::string>;
using Json = std::unique_ptr<cJSON, void (*)(cJSON *)>;

Json read_file(const std::string &name) {
    std::ifstream in(std::string(PACKAGING) + "/ubus/" + name);
    std::ostringstream text;
    text << in.rdbuf();
    const char *end = nullptr;
    return {cJSON_ParseWithOpts(text.str().c_str(), &end, true), cJSON_Delete};
}

Names keys(const cJSON *object) {
    Names names;
    const cJSON *item;
    cJSON_ArrayForEach(item, object) names.insert(item->string);
    return names;
}

// The strings of an array; anything else in it is a failure.
Names strings(const cJSON *array) {
    EXPECT_TRUE(cJSON_IsArray(array));
    Names names;
    const cJSON *item;
    cJSON_ArrayForEach(item, array) {
        EXPECT_TRUE(cJSON_IsString(item));
        names.insert(cJSON_GetStringValue(item));
    }
    return names;
}

const cJSON *get(const Json &json, const char *key) {
    return cJSON_GetObjectItemCaseSensitive(json.get(), key);
}

const Names kObject{ipacl_object.name};
const Names kAnnouncement{"resource.access-list"};

// The object and all its methods, as what a user or a group may call.
void expect_every_method(const cJSON *access) {
    ASSERT_EQ(keys(access), kObject);
    ASSERT_EQ(keys(access->child), Names{"methods"});
    Names methods;
    for (int i = 0; i < ipacl_object.n_methods; i++)
        methods.insert(ipacl_object.methods[i].name);
    EXPECT_EQ(strings(access->child->child), methods);
}

TEST(AccessControl, TheServiceMayPublishItselfAnnounceAndBeAskedByItsOwnUser) {
    const Json json = read_file("ipacl.json");
    ASSERT_NE(json, nullptr);
    EXPECT_EQ(keys(json.get()), (Names{"access", "publish", "send", "user"}));
    EXPECT_STREQ(cJSON_GetStringValue(get(json, "user")), "ipacl");
    EXPECT_EQ(strings(get(json, "publish")), kObject);
    EXPECT_EQ(strings(get(json, "send")), kAnnouncement);
    expect_every_method(get(json, "access"));
}

TEST(AccessControl, OperatorsMayCallEveryMethodAndListenAndNothingElse) {
    const Json json = read_file("ipacl-operator.json");
    ASSERT_NE(json, nullptr);
    EXPECT_EQ(keys(json.get()), (Names{"access", "group", "listen"}));
    EXPECT_STREQ(cJSON_GetStringValue(get(json, "group")), "ipacl-operator");
    expect_every_method(get(json, "access"));
    EXPECT_EQ(strings(get(json, "listen")), kAnnouncement);
}

} // namespace
