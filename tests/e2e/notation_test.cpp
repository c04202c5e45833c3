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

TEST(Notation, TheWorkGrowsNoFasterThanTheText)
{
    constexpr size_t kMany = 50000; // a look at each for each would take hours
    std::string chain = "a name=a", options = "a";
    for (size_t index = 2; index <= kMany; ++index) {
        chain += " ! a";
        options += " k" + std::to_string(index) + "=";
    }
    EXPECT_EQ(parse_notation(chain).back().name, "a" + std::to_string(kMany));
    EXPECT_EQ(parse_notation(options)[0].options.size(), kMany - 1);
    EXPECT_THROW(parse_notation(chain + " ! a."), NotationError);
}

TEST(Notation, ErrorsPointAtThePlace)
{
    const struct {
        const char *text;
        size_t place; // where the error points
        const char *message;
    } cases[] = {{"", 0, "no elements"},
                 {" \t", 0, "no elements"},
                 {"! a", 0, "before this \"!\""},
                 {"a ! ! b", 4, "between this"},
                 {"a !", 2, "follows this \"!\""},
                 {"a!b", 0, "blank on both sides"},
                 {"k=v a", 0, "follows no element"},
                 {"a ! k=v", 4, "follows no element"},
                 {"a k=1 k=2", 6, "given twice"},
                 {"a k='x", 4, "not closed"},
                 {"a k=\"x\\", 6, "after this backslash"},
                 {"a k=(uint32 3", 4, "not closed"},
                 {"a k=()3", 4, "type is missing"},
                 {"a name=", 7, "at least one"},
                 {"a name=x. ! b", 7, "no dot"},
                 {"a name=x name=y", 9, "given twice"},
                 {"a name=x ! b name=x", 18, "has this name already"},
                 {"a ! b t. ! c", 6, "has name=t"},
                 {"t. ! a ! b name=t", 0, "has name=t"},
                 {"a name=t ! b t.", 13, "must follow this branch"},
                 {"a name=t ! b t. k=v ! c", 16, "follows no element"},
                 {"a name=a ! b ! a.", 15, "cycle: a ! b ! a"},
                 {"a ! b name=b b. ! c ! b.", 22, "cycle: b ! c ! b"},
                 {"a name=a ! a.", 11, "cycle: a ! a"},
                 {"s ! t name=t ! b t. ! c ! t.", 26, "cycle: t ! c ! t"},
                 {"a ! t. b name=t", 4, "has name=t"},
                 {"a name=a ! b name=b c ! b.", 24, "one input"},
                 {"a \"quoted\"", 2, "no element"},
                 {"a =v", 2, "no element"},
                 {"a \x1b[2J. ! b", 2, "no NAME."},
                 {"a ! b!c.", 4, "blank on both sides"}};
    for (const auto &[text, place, message] : cases) {
        try {
            parse_notation(text);
            ADD_FAILURE() << "was taken: " << text;
        } catch (const NotationError &error) {
            EXPECT_EQ(error.place.begin, place) << text << ": " << error.message;
            EXPECT_NE(error.message.find(message), std::string::npos) << error.message;
        }
    }
}

TEST(Notation, CaretsStandUnderThePlaceWhateverIsBeforeIt)
{
    EXPECT_EQ(show_place("a ! b", {4, 1}), "  a ! b\n      ^");
    EXPECT_EQ(show_place("\xC3\xA4\t! bc", {5, 2}), "  \xC3\xA4 ! bc\n      ^^");
    const std::string far = show_place(std::string(5000, 'x'), {4000, 900});
    EXPECT_LT(far.size(), 200u);
    EXPECT_EQ(far.substr(far.rfind(' ') + 1), std::string(28, '^'));
    EXPECT_EQ(show_place("", {0, 0}), "  \n  ^");

    std::string notes; // of three bytes each, none of which is cut
    for (int count = 0; count < 50; ++count)
        notes += "\xE2\x99\xAB";
    EXPECT_EQ(show_place(notes, {75, 3}),
              "  " + notes.substr(27, 75) + "\n  " + std::string(16, ' ') + "^");
    const std::string more = notes + "!" + notes;
    EXPECT_EQ(show_place(more, {151, 3}),
              "  " + more.substr(102, 76) + "\n  " + std::string(17, ' ') + "^");
}
