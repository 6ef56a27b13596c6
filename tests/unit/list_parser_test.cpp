// The parser of list attributes: its quirks one by one, and random texts next to the model's.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cases/layer_case.h"
#include "custom_ops/vek_common.h"
#include "support/random.h"

namespace vek_test::list_parser {
namespace {

using zeb_custom_ops::sw_ops_parser::ParseTensor;
using Elements = std::vector<std::string>;

struct Parsed {
  bool ok;
  Elements elements;
  std::string error;
  bool operator==(const Parsed&) const = default;
  friend std::ostream& operator<<(std::ostream& out, const Parsed& parsed) {
    out << parsed.ok << " '" << parsed.error << "':";
    for (const std::string& element : parsed.elements) out << " <" << element << ">";
    return out;
  }
};

Parsed Parse(const std::string& text) {
  Parsed parsed{false, {}, "untouched"};
  parsed.ok = ParseTensor(text, &parsed.elements, &parsed.error);
  return parsed;
}
Parsed Good(Elements elements) { return {true, std::move(elements), "untouched"}; }
Parsed TooShort() { return {false, {}, "Wrongly formated parameter string (too short)"}; }
Parsed Unclosed(Elements elements) {
  return {false, std::move(elements), "Wrongly formated parameter string for software operation"};
}

TEST(ListParser, TextsOfFewerThanThreeCharactersAreTooShort) {
  for (const char* text : {"", "[", "[]", "1]", "12"}) EXPECT_EQ(Parse(text), TooShort()) << text;
}

TEST(ListParser, FlatLists) {
  EXPECT_EQ(Parse("[1]"), Good({"1"}));
  EXPECT_EQ(Parse("[1,2,3]"), Good({"1", "2", "3"}));
  EXPECT_EQ(Parse("[-1,+2,abc]"), Good({"-1", "+2", "abc"}));
}

TEST(ListParser, BlanksAreElementText) {
  EXPECT_EQ(Parse("[ ]"), Good({" "}));
  EXPECT_EQ(Parse("[1, 2]"), Good({"1", " 2"}));
}

TEST(ListParser, NestedListsAreFlattened) {
  EXPECT_EQ(Parse("[[1,2]]"), Good({"1", "2"}));
  EXPECT_EQ(Parse("[[1,2],[3,4]]"), Good({"1", "2", "3", "4"}));
  EXPECT_EQ(Parse("[[1],[2],[3]]"), Good({"1", "2", "3"}));
}

TEST(ListParser, TheFirstBracketMayBeLeftOut) { EXPECT_EQ(Parse("1,2]"), Good({"1", "2"})); }

TEST(ListParser, EmptyLists) {
  EXPECT_EQ(Parse("[]]"), Good({}));
  EXPECT_EQ(Parse("]12"), Good({}));
}

TEST(ListParser, SeveralCommasCountAsOne) {
  EXPECT_EQ(Parse("[1,,2]"), Good({"1", "2"}));
  EXPECT_EQ(Parse("[1,2,]"), Good({"1", "2"}));
}

TEST(ListParser, ACommaBeforeAnyValueIsElementText) { EXPECT_EQ(Parse("[,1]"), Good({",1"})); }

TEST(ListParser, ACharacterAfterTheFinalBracketRepeatsTheLastElement) {
  EXPECT_EQ(Parse("[1,2,3]\n"), Good({"1", "2", "3", "3"}));
  EXPECT_EQ(Parse("[1,2,3] "), Good({"1", "2", "3", "3"}));
  EXPECT_EQ(Parse("[1,2,3]]"), Good({"1", "2", "3", "3"}));
  EXPECT_EQ(Parse("[1,2,3]xyz"), Good({"1", "2", "3", "3"}));
  EXPECT_EQ(Parse("[1,[2,3]]"), Good({"1", "2", "3", "3"}));
}

TEST(ListParser, AnEmptyElementComesOutOfTheMachineWhereItEmitsOne) {
  // A nested list whose inner lists are empty: the mark stays while the token is empty.
  EXPECT_EQ(Parse("[[]]x"), Good({""}));
  EXPECT_EQ(Parse("[[,1]]"), Good({"", "1"}));
}

TEST(ListParser, AnUnclosedListFailsAndKeepsWhatItEmitted) {
  EXPECT_EQ(Parse("1,2,3"), Unclosed({"1", "2"}));
  EXPECT_EQ(Parse("[1,2,3"), Unclosed({"1", "2"}));
  EXPECT_EQ(Parse("[[1,2]"), Unclosed({"1"}));
  EXPECT_EQ(Parse("[[["), Unclosed({}));
}

TEST(ListParser, ElementsAreAppended) {
  Elements elements = {"before"};
  std::string error;
  EXPECT_TRUE(ParseTensor("[1,2]", &elements, &error));
  EXPECT_TRUE(ParseTensor("[3]", &elements, &error));
  EXPECT_EQ(elements, (Elements{"before", "1", "2", "3"}));
}

TEST(ListParser, RandomTextsEqualTheModel) {
  ForRandomCases(20000, [](Random& random) {
    std::string text;
    const unsigned length = random.Between(0, 12);
    for (unsigned i = 0; i < length; ++i) text += random.OneOf({'[', '[', ']', ']', ',', '1', ' ', '-'});
    EXPECT_EQ(vek_cases::RunListCase(text), "");
  });
}

}  // namespace
}  // namespace vek_test::list_parser
