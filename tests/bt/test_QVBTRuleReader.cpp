// BT rule and threshold readers: the three passes, field rules, limits and messages, bad input,
// and requests named by custom rules.
#include "bt/QVBTRuleReader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bt/QVBTMonitor.h"
#include "bt/QVBTMonitorDataCounters.h"
#include "bt/bt_fixture.h"
#include "qvbt/qvbt_custom_rule.h"
#include "qvbt/qvbt_rule_execute.h"

namespace {

class RuleReader : public BTConfigTest {
  protected:
    void SetUp() override {
        BTConfigTest::SetUp();
        qvbt_bt_maps_init();
        QVBTMonitorInit();
    }
    int readRules(std::string text) { return qvbt_read_rule_file(text.data()); }
    int readThresholds(std::string text) { return qvbt_read_threshold_file(text.data()); }
    std::string btName(const char* url, const char* query = nullptr) {
        BTObject* o = get_obj_from_bt_name(url, query, nullptr, nullptr);
        return o ? o->bt_name : "(excluded)";
    }
};

}  // namespace

TEST_F(RuleReader, PassesSizeBeforePatternsAndPatternsWinOverGlobalRule) {
    fileMode();
    home_.write("BTRuleFile.txt", "# rules\n#1|1|x|y|FromFirst|1|-|-|-\n\n");
    QVBTConfigModelInit();
    EXPECT_EQ(bt_rule, 0);                         // comments only: the default rule
    app_.QVBCISetting.fileBasedKeywordMode = '0';  // the character '0' means text mode

    // The size line comes after the patterns and still sizes the automaton.
    readRules("7|P1|5|0|/p1|0\n1|2|n|d|FromFirst|1|-|-|-\n5|300\n4|-3\n3|whatever\n8|m|x\n11|body\n");
    ASSERT_EQ(bt_rule, 7);
    EXPECT_EQ(stateMachine->max_state, 300);
    EXPECT_EQ(global_rule->rule_mode, 4);  // still the default: pass 3 does not run
    EXPECT_EQ(skipCount, 0);               // negative skip taken as 0
    EXPECT_EQ(btName("/p1"), "P1");

    // A later read without patterns replaces them; the first "1|" line is the one parsed.
    readRules("1|2|n|d|FromLast|1|-|-|-\n1|1|n|d|FromFirst|1|-|-|-\n");
    EXPECT_EQ(bt_rule, 1);
    EXPECT_EQ(btName("/a/b/c"), "/c");  // FromLast, 1 segment: the last segment with its '/'
}

TEST_F(RuleReader, GlobalRuleLines) {
    char shortLine[] = "1|1|n|d|FromFirst|1|-|-";
    EXPECT_EQ(parse_global_rule(shortLine), 0);  // parsed as the default line
    EXPECT_EQ(ints(global_rule->rule_mode, global_rule->seg_type, global_rule->include_uri_in_name_segment),
              ints(4, 6, 2));
    char out[256];
    char param[] = "1|2|n|d|FromFirst|1|Request-Parameter-Value|id|-|extra|more";
    parse_global_rule(param);
    EXPECT_STREQ(qvbt_execute_global_rule("/a/b", "x=1&id=9", nullptr, nullptr, out, 256), "/a.9");
    char segs[] = "1|1|n|d|neither|-|Request-URI-Segments-Numbers|2,x,,1|-";
    parse_global_rule(segs);
    EXPECT_STREQ(qvbt_execute_global_rule("/s1/s2/s3", nullptr, nullptr, nullptr, out, 256), "s2/s1");
}

TEST_F(RuleReader, PatternLines) {
    int first = 1;
    for (std::string bad : {"7|a|3|0|/a", "#7|a|3|0|/a|0", "7|a|3|0|/a|0|3|p=1"})
        EXPECT_EQ(parse_pattern_rule(bad.data(), &first), -1) << bad;
    // A pattern the automaton refuses still makes its BT, and pattern naming is in force.
    readRules("7|a|3|0|/a\x01|0\n7|b|4|0\n");
    EXPECT_EQ(bt_rule, 7);
    BTObject* a = find_bt_obj_in_manager_map("a");
    ASSERT_TRUE(a != nullptr && a->bt_id == 3);
    EXPECT_EQ(QVBTMonitor.aggBTDataArr[3].tlBTObj, a);
    EXPECT_EQ(btName("/a"), "Others");
    // Parameter mode: URL, anything, parameter text, anything.
    readRules("7|Q|9|0|/q|0|1|mode=x|-\n");
    EXPECT_EQ(btName("/q", "a=1&mode=x&b=2"), "Q");
    EXPECT_EQ(btName("/q", "a=1"), "Others");
}

TEST_F(RuleReader, ThresholdLines) {
    EXPECT_EQ(ints(qvbt_read_threshold_file(nullptr), readThresholds("")), ints(-1, -1));
    readThresholds("ALL|100|100\r\nALL|0|50\nx|1\n#ALL|1|2\n/ok|5|6\r\n/bad|9|8\n/neg|-1|5\nall|70|90\r\n");
    EXPECT_EQ(ints(allSlow, allVerySlow), ints(70, 90));
    EXPECT_EQ(thresholds(find_bt_obj_in_config_map("/ok", -1, 1, 2)), ints(5, 6));
    EXPECT_EQ(find_bt_obj_in_manager_map("/ok"), nullptr);
    EXPECT_EQ(find_bt_obj_in_config_map("/bad", -1, 1, 2)->bt_threshold.slow, 1);  // made only now
}

TEST_F(RuleReader, LineAndFileLimits) {
    std::string text = std::string(1023, 'a') + "\n" + std::string(1030, 'b') + "\r\nlast";
    char* cur = text.data();
    char line[1024];
    std::vector<std::string> lines;
    while (getNextLine(line, sizeof(line), &cur) != nullptr) lines.emplace_back(line);
    // The second line is cut; the rest of it is skipped.
    EXPECT_EQ(lines, (std::vector<std::string>{std::string(1023, 'a'), std::string(1023, 'b'), "last"}));

    char buf[1024];
    home_.write("fits.txt", std::string(1022, 'x') + "\n");
    EXPECT_EQ(getLineFromFile(home_.file("fits.txt").c_str(), buf), 0);
    EXPECT_EQ(strlen(buf), 1023u);
    home_.write("big.txt", std::string(1024, 'x'));
    EXPECT_EQ(getLineFromFile(home_.file("big.txt").c_str(), buf), -1);
    EXPECT_STREQ(buf, "");

    // A refused rule file reads as a source without lines.
    fileMode();
    home_.write("BTRuleFile.txt", "1|1|n|d|FromFirst|1|-|-|-\n" + std::string(1100, '#'));
    EXPECT_EQ(qvbt_read_rule_file(const_cast<char*>(home_.file("BTRuleFile.txt").c_str())), 0);
    EXPECT_EQ(bt_rule, 0);
}

TEST_F(RuleReader, CustomRulesNameRequests) {
    readRules(
        "2|2|r1|CheckoutBT|d|1|5|[input1=startswith&&input2=/checkout]|-\n"
        "2|3|r2|ParamBT|d|1|1|[input1=checkForValue&&input2=id&&input3=EQUALS&&input4=7],[input1="
        "checkForExistance&&input2=debug]|-\n"
        "2|1|r3|Posts|d|1|9|POST|-\n"
        "2|2|r4|NotApi|d|1|8|[input1=startswith && input2=/api && input3=ActivateReverseCondition]|-\n"
        "2|2|r5|Disabled|d|0|0|[input1=contains&&input2=/]|-\n"
        "2|2|r6|Bad|d|1|0|[input1=contains&&input9=/]|-\n"
        "2|2|r7|Short|d|1|0|[input1=contains]\n"
        "2|4|r8|Mode|d|1|0|x|-\n"
        "2|1|r9|Patch|d|1|0|PATCH|-\n"
        "2|2|r10|NoCrit|d|1|0|-|-\n");
    EXPECT_EQ(bt_rule, 0);
    EXPECT_EQ(btName("/checkout/pay"), "CheckoutBT");
    EXPECT_EQ(btName("/x"), "NotApi");
    EXPECT_EQ(btName("/api/x", "id=7&debug"), "others");  // requests are named without their query
    char out[129];
    EXPECT_STREQ(qvbt_execute_custom_rule("/api/x", "id=7&debug", nullptr, out, sizeof(out)), "ParamBT");
    EXPECT_STREQ(qvbt_execute_custom_rule("/api/x", "id=7", nullptr, out, sizeof(out)), "others");
    EXPECT_STREQ(qvbt_execute_custom_rule("/api/x", nullptr, "post", out, sizeof(out)), "Posts");
    EXPECT_STREQ(qvbt_execute_custom_rule("/api/x", nullptr, "PATCH", out, sizeof(out)), "others");

    // A custom rule that names nothing still replaces the global rule.
    QVBTConfigModelInit();
    readRules("2|2|r5|Disabled|d|0|0|[input1=contains&&input2=/]|-\n");
    EXPECT_EQ(btName("/a/b/c"), "others");
    // With a pattern rule in force the custom automaton is not built.
    readRules("2|1|r3|Posts|d|1|9|POST|-\n7|P|5|0|/p|0\n");
    EXPECT_EQ(trie_node, nullptr);
    EXPECT_EQ(bt_rule, 7);
}

// Bad sources: no crash (ASan/UBSan run), messages and fallbacks; naming keeps working.
TEST_F(RuleReader, BadInputCorpus) {
    std::string longPattern = "7|Long|3|0|/" + std::string(900, 'p') + "|0\n";
    std::string manySegs = "1|2|n|d|FromFirst|2|Request-URI-Segments-Numbers|";
    for (int i = 0; i < 40; ++i) manySegs += std::to_string(i % 5) + ",";
    manySegs += "|-\n";
    const std::string corpus[] = {
        "",
        "\n\n\r\n",
        "\x01\x02|\xff\n\x7f",
        "7|Neg|-5|0|/neg|0\n7|Huge|99999999999|0|/huge|0\n7|Max|2147483647|1|/max|0\n",
        "5|-1\n7|A|3|0|/a|0\n",
        "5|99999999999\n7|A|3|0|/a|0\n",
        "5|1\n" + longPattern,
        "4|9999\n7|A|3|0|/a|0\n",
        "1|||||\n2|\n3\n4\n5\n7|\n",
        "1|2|n|d|FromFirst|99999999999|-|-|-\r\n",
        manySegs,
        "2|3|r|N|d|1|1|[input1=checkForValue&&input2=a&&input3=bogus&&input4=1]|-\n",
        "2|2|r|N|d|1|1|[input1=contains&&input2=|-\n",
        "2|3|r|N|d|1|1|" + std::string(900, '[') + "|-\n"};
    for (const std::string& text : corpus) {
        readRules(text);
        readThresholds(text);
        EXPECT_NE(get_obj_from_bt_name("/a/b/c", "x=1", nullptr, nullptr), nullptr) << text.substr(0, 40);
        get_obj_from_bt_name("/neg", nullptr, nullptr, nullptr);
        get_obj_from_bt_name(nullptr, nullptr, nullptr, nullptr);
    }
    readRules("7|Neg|-5|0|/neg|0\n");
    EXPECT_EQ(btName("/neg"), "Others");  // an id below 1 counts as Others
    readRules("5|1\n" + longPattern);
    // Pattern and lookup text are both cut at 255 characters; the automaton grew past its 1 state.
    EXPECT_EQ(btName(("/" + std::string(900, 'p')).c_str()), "Long");
    EXPECT_EQ(skipCount, 0);  // each read starts from the defaults
}
