// The notation of nox-run: what it means, and where it is wrong.

#include "notation.h"

#include <gtest/gtest.h>

TEST(Notation, ElementsOptionsNamesAndBranchesAreRead)
{
    const auto elements = parse_notation(
        "src location=\"a \\\"b\\\".wav\" loop=(uint32)2 ! tee name=t ! sink location='c\\d e' "
        "sync=true t. ! sink\n\tt.   !  gain ! sink src2 ! sink path=a\\ b!=c");
    ASSERT_EQ(elements.size(), 8u);
    EXPECT_EQ(elements[0].options[0].value, "a \"b\".wav");
    EXPECT_EQ(elements[0].options[1].type, "uint32");
    EXPECT_EQ(elements[0].options[1].value, "2");
    EXPECT_EQ(elements[2].options[0].value, "c\\d e");
    EXPECT_EQ(elements[7].options[0].value, "a b!=c");
    const std::vector<std::string> names = {"src",  "t",     "sink", "sink2",
                                            "gain", "sink3", "src2", "sink4"};
    const std::vector<int> upstream = {-1, 0, 1, 1, 1, 4, -1, 6};
    for (size_t index = 0; index < elements.size(); ++index) {
        EXPECT_EQ(elements[index].name, names[index]);
        const auto &fed_by = elements[index].upstream;
        EXPECT_EQ(fed_by ? static_cast<int>(*fed_by) : -1, upstream[index]);
    }
}

TEST(Notation, AMadeNameAvoidsAGivenOneThatComesLater)
{
    const auto elements = parse_notation("a ! b ! c name=b");
    EXPECT_EQ(elements[1].name, "b2");
}

struct BadNotation {
    const char *text;
    size_t place; // where the error points
    const char *message;
};

class NotationErrors : public testing::TestWithParam<BadNotation>
{
};

TEST_P(NotationErrors, PointAtThePlace)
{
    try {
        parse_notation(GetParam().text);
        FAIL() << "was taken: " << GetParam().text;
    } catch (const NotationError &error) {
        EXPECT_EQ(error.place.begin, GetParam().place) << error.message;
        EXPECT_NE(error.message.find(GetParam().message), std::string::npos) << error.message;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Notation, NotationErrors,
    testing::Values(
        BadNotation{"", 0, "no elements"}, BadNotation{" \t", 0, "no elements"},
        BadNotation{"! a", 0, "before this \"!\""}, BadNotation{"a ! ! b", 4, "between this"},
        BadNotation{"a !", 2, "follows this \"!\""}, BadNotation{"a!b", 0, "blank on both sides"},
        BadNotation{"k=v a", 0, "follows no element"},
        BadNotation{"a ! k=v", 4, "follows no element"}, BadNotation{"a k=1 k=2", 6, "given twice"},
        BadNotation{"a k='x", 4, "not closed"}, BadNotation{"a k=\"x\\", 6, "after this backslash"},
        BadNotation{"a k=(uint32 3", 4, "not closed"}, BadNotation{"a k=()3", 4, "type is missing"},
        BadNotation{"a name=", 7, "at least one"}, BadNotation{"a name=x. ! b", 7, "no dot"},
        BadNotation{"a name=x name=y", 9, "given twice"},
        BadNotation{"a name=x ! b name=x", 18, "has this name already"},
        BadNotation{"a ! b t. ! c", 6, "has name=t"},
        BadNotation{"t. ! a ! b name=t", 0, "has name=t"},
        BadNotation{"a name=t ! b t.", 13, "must follow this branch"},
        BadNotation{"a name=t ! b t. k=v ! c", 16, "follows no element"},
        BadNotation{"a name=a ! b ! a.", 15, "cycle: a ! b ! a"},
        BadNotation{"a ! b name=b b. ! c ! b.", 22, "cycle: b ! c ! b"},
        BadNotation{"a name=a ! b name=b c ! b.", 24, "one input"},
        BadNotation{"a \"quoted\"", 2, "no element"}, BadNotation{"a =v", 2, "no element"}));

TEST(Notation, CaretsStandUnderThePlaceWhateverIsBeforeIt)
{
    EXPECT_EQ(show_place("a ! b", {4, 1}), "  a ! b\n      ^");
    EXPECT_EQ(show_place("\xC3\xA4\t! bc", {5, 2}), "  \xC3\xA4 ! bc\n      ^^");
    const std::string far = show_place(std::string(5000, 'x'), {4000, 900});
    EXPECT_LT(far.size(), 200u);
    EXPECT_EQ(far.substr(far.rfind(' ') + 1), std::string(28, '^'));
    EXPECT_EQ(show_place("", {0, 0}), "  \n  ^");
}
