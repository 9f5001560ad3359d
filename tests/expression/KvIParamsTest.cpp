// Parameters: naming, lookup, and giving them values before a run through the prompt interface.

#include "expression/KvIParams.h"
#include "expression/KvIPars.h"
#include "platform/FrontEnd.h"

#include <gtest/gtest.h>

namespace kv {
namespace {

// A front end that answers the prompt with prepared texts and records what it was asked.
class ScriptedFrontEnd : public IKvFrontEnd {
public:
    bool PromptValues(const std::string& caption, std::vector<TPromptField>& fields) override {
        askedCaption = caption;
        asked = fields;
        if (cancel) return false;
        for (size_t i = 0; i < fields.size() && i < answers.size(); ++i) {
            fields[i].Text = answers[i];
            fields[i].Checked = answers[i] == "yes";
        }
        return true;
    }
    std::vector<std::string> answers;
    bool cancel = false;
    std::string askedCaption;
    std::vector<TPromptField> asked;
};

class Parameters : public ::testing::Test {
protected:
    void SetUp() override { SetFrontEnd(&frontEnd); }
    void TearDown() override { SetFrontEnd(nullptr); }

    static Variant Compute(const std::string& text) {
        TKvIParser parser;
        parser.SetText(text);
        parser.Compile(true);
        return parser.Value();
    }

    ScriptedFrontEnd frontEnd;
    TKvIParameters params;
};

TEST_F(Parameters, NamesCaptionsAndLookup) {
    TKvIParameter& p1 = params.Add();
    TKvIParameter& p2 = params.Add();
    EXPECT_EQ(p1.Name(), "Parameter1");
    EXPECT_EQ(p2.Name(), "Parameter2");
    EXPECT_EQ(p1.ParameterMode(), ipmCalculateAndAsk);
    p1.SetCaption(p1.Name());
    p1.SetName("Rate");
    EXPECT_EQ(p1.Caption(), "Rate"); // the caption followed the name
    p1.SetCaption("Exchange rate");
    p1.SetName("FX");
    EXPECT_EQ(p1.Caption(), "Exchange rate");
    EXPECT_EQ(params.ParamByName("FX"), &p1);
    EXPECT_EQ(params.ParamByName("fx"), nullptr); // names are case-sensitive

    TKvIParameters copy;
    p1.ParamPromptValues().Add("1.0");
    copy.Assign(params);
    ASSERT_EQ(copy.Count(), 2);
    EXPECT_EQ(copy.Items(0).Caption(), "Exchange rate");
    EXPECT_EQ(copy.Items(0).ParamPromptValues().Count(), 1);
}

TEST_F(Parameters, ModesDecideWhatIsComputedAndAsked) {
    TKvIParameter& empty = params.Add();
    empty.SetParameterMode(ipmCalculate);
    TKvIParameter& computed = params.Add();
    computed.SetExpression("1+1");
    computed.SetParameterMode(ipmCalculate);
    TKvIParameter& offered = params.Add();
    offered.SetExpression("1+1");
    offered.SetParameterMode(ipmAsk);
    offered.SetCaption("Offered");
    TKvIParameter& both = params.Add();
    both.SetExpression("2*3");
    both.SetParameterEditor(ipeCheckBox);

    frontEnd.answers = {"typed", "yes"};
    ASSERT_TRUE(AskParameters(params, Compute));
    EXPECT_TRUE(empty.Value.IsNull());
    EXPECT_EQ(computed.Value.AsString(), "2");
    EXPECT_EQ(frontEnd.askedCaption, "Parameter properties");
    ASSERT_EQ(frontEnd.asked.size(), 2u);
    EXPECT_EQ(frontEnd.asked[0].Caption, "Offered");
    EXPECT_EQ(frontEnd.asked[0].Text, "1+1"); // offered as text, not computed
    EXPECT_EQ(frontEnd.asked[1].Text, "6");
    EXPECT_EQ(frontEnd.asked[1].Editor, peCheckBox);
    EXPECT_EQ(offered.Value.AsString(), "typed");
    EXPECT_EQ(both.Value.AsString(), "True"); // a check box answers with the texts of True and False
}

TEST_F(Parameters, CancelOrNobodyToAskStopsTheRun) {
    params.Add().SetExpression("'x'");
    frontEnd.cancel = true;
    EXPECT_FALSE(AskParameters(params, Compute));
    SetFrontEnd(nullptr); // the silent default cannot ask
    EXPECT_FALSE(AskParameters(params, Compute));
    params.Items(0).SetParameterMode(ipmCalculate);
    EXPECT_TRUE(AskParameters(params, Compute));
    EXPECT_EQ(params.Items(0).Value.AsString(), "x");
}

TEST_F(Parameters, RequiredNeedsAnAnswer) {
    TKvIParameter& p = params.Add();
    p.SetRequired(true);
    frontEnd.answers = {""};
    EXPECT_FALSE(AskParameters(params, Compute));
    frontEnd.answers = {"given"};
    EXPECT_TRUE(AskParameters(params, Compute));
}

} // namespace
} // namespace kv
