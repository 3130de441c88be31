// Strict reading by the tool's commands: what is held back, what is said, and lint's three forms.

#include "daemon.h"

#include <cjson/cJSON.h>

namespace {

class Lint : public System {
  protected:
    static const cJSON *at(const cJSON *json, std::initializer_list<const char *> path) {
        for (const char *step : path)
            json = cJSON_IsArray(json) ? cJSON_GetArrayItem(json, atoi(step))
                                       : cJSON_GetObjectItem(json, step);
        return json;
    }
    const std::string doubtful = "ip access-list extended web\n"
                                 " permit ip 10.0.0.0 0.0.0.255 any\n"
                                 " permit tcp any any established\n";
};

TEST_F(Lint, AFileIsLoadedDespiteWarningsAndNotDespiteErrors) {
    const Outcome loaded = ctl({"load", "-v", "-"}, doubtful);
    EXPECT_EQ(loaded.status, 1);
    EXPECT_EQ(loaded.errors, "stdin:2:21: warning: the mask 0.0.0.255 looks like a wildcard, and "
                             "here a bit that is 1 is compared: write 255.255.255.0\n"
                             "stdin:3:21: established is skipped by the service, and the rule "
                             "would match more: leave it out\n"
                             "1 lists, 1 rules, 1 errors, 1 warnings\n");
    EXPECT_EQ(running(), "ip access-list extended web\n permit ip 10.0.0.0 0.0.0.255 any\n!\n");
}

TEST_F(Lint, ForceLoadsWhatHasErrors) {
    const Outcome loaded = ctl({"load", "-v", "--force", "-"}, doubtful);
    EXPECT_EQ(loaded.status, 0);
    EXPECT_TRUE(loaded.errors.ends_with("1 lists, 2 rules, 0 errors, 2 warnings\n"));
    EXPECT_EQ(running(), "ip access-list extended web\n permit ip 10.0.0.0 0.0.0.255 any\n"
                         " permit tcp any any\n!\n");
}

TEST_F(Lint, ATypedRuleIsHeldBackByWarningsToo) {
    ctl({"create", "web", "--type", "extended"});
    const std::string wildcard = "permit ip 10.0.0.0 0.0.0.255 any";
    const std::string said = "ipaclctl: column 20: the mask 0.0.0.255 looks like a wildcard, and "
                             "here a bit that is 1 is compared: write 255.255.255.0\n";
    Outcome outcome = ctl({"rule", "web", wildcard});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors, said);
    EXPECT_EQ(running(), "ip access-list extended web\n!\n");
    outcome = ctl({"rule", "web", "--force", wildcard});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.errors, said);
    EXPECT_EQ(running(), "ip access-list extended web\n " + wildcard + "\n!\n");
    EXPECT_EQ(ctl({"rule", "web", "no " + wildcard}).errors, "");
    EXPECT_EQ(running(), "ip access-list extended web\n!\n");
}

TEST_F(Lint, WhatTheServiceRefusesCanNotBeForced) {
    ctl({"create", "web", "--type", "standard"});
    const Outcome outcome = ctl({"rule", "web", "-f", "permit src-range 10.0.0.200 10.0.1.1"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.errors.find("is refused"), std::string::npos);
}

TEST_F(Lint, TextNamesFileLineColumnSeverityAndCheck) {
    end_daemon(SIGTERM); // it is not asked
    const std::string file = write_file("web.conf", doubtful);
    const Outcome outcome = ctl({"lint", file});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output,
              file +
                  ":2:21: warning: the mask 0.0.0.255 looks like a wildcard, and here a bit "
                  "that is 1 is compared: write 255.255.255.0 [wildcard-mask]\n" +
                  file +
                  ":3:21: error: established is skipped by the service, and the rule would "
                  "match more: leave it out [skipped-word]\n");
    EXPECT_EQ(ctl({"lint", directory + "/none"}).status, 2);
}

TEST_F(Lint, WarningsAloneAreNoErrorUnlessTheyAreToBe) {
    const std::string rule = "ip access-list extended web\n permit tcp any any eq ftp-data\n";
    EXPECT_EQ(ctl({"lint", "-"}, rule).status, 0);
    EXPECT_EQ(ctl({"lint", "-W", "-"}, rule).status, 1);
    EXPECT_EQ(ctl({"lint", "-W", "-"}, "ip access-list extended web\n permit ip any any\n").output,
              "");
}

TEST_F(Lint, JsonIsAnArrayOfFindings) {
    cJSON *json = cJSON_Parse(ctl({"lint", "--format", "json", "-"}, doubtful).output.c_str());
    ASSERT_EQ(cJSON_GetArraySize(json), 2);
    EXPECT_STREQ(cJSON_GetStringValue(at(json, {"1", "file"})), "stdin");
    EXPECT_EQ(cJSON_GetNumberValue(at(json, {"1", "line"})), 3);
    EXPECT_EQ(cJSON_GetNumberValue(at(json, {"1", "column"})), 21);
    EXPECT_STREQ(cJSON_GetStringValue(at(json, {"1", "severity"})), "error");
    EXPECT_STREQ(cJSON_GetStringValue(at(json, {"0", "check"})), "wildcard-mask");
    cJSON_Delete(json);
}

TEST_F(Lint, SarifHasARuleForEveryResult) {
    const std::string file = write_file("a web.conf", doubtful);
    cJSON *log = cJSON_Parse(ctl({"lint", "--format", "sarif", file}).output.c_str());
    EXPECT_STREQ(cJSON_GetStringValue(at(log, {"version"})), "2.1.0");
    const cJSON *run = at(log, {"runs", "0"});
    const cJSON *results = at(run, {"results"});
    ASSERT_EQ(cJSON_GetArraySize(results), 2);
    const cJSON *result, *rule;
    cJSON_ArrayForEach(result, results) {
        const std::string id = cJSON_GetStringValue(at(result, {"ruleId"}));
        int found = 0;
        cJSON_ArrayForEach(rule, at(run, {"tool", "driver", "rules"})) found +=
            id == cJSON_GetStringValue(at(rule, {"id"}));
        EXPECT_EQ(found, 1) << id;
    }
    const cJSON *place = at(results, {"0", "locations", "0", "physicalLocation"});
    EXPECT_STREQ(cJSON_GetStringValue(at(place, {"artifactLocation", "uri"})),
                 (directory + "/a%20web.conf").c_str());
    EXPECT_EQ(cJSON_GetNumberValue(at(place, {"region", "startLine"})), 2);
    EXPECT_EQ(cJSON_GetNumberValue(at(place, {"region", "startColumn"})), 21);
    cJSON_Delete(log);
}

} // namespace
