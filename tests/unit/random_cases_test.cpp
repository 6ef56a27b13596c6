// Every layer on random attributes, shapes, formats, layouts, data and sequences of calls, next to the model.
#include <gtest/gtest.h>

#include "cases/layer_case.h"
#include "cases/setups.h"
#include "support/random.h"

namespace vek_cases {
namespace {

class RandomCases : public testing::TestWithParam<std::string> {};

TEST_P(RandomCases, EqualTheModel) {
  unsigned cases = 0;
  unsigned executed = 0;
  vek_test::ForRandomCases(3000, [&](Random& random) {
    const CaseResult result = RunLayerCase(GetParam(), random);
    EXPECT_EQ(result.difference, "");
    executed += result.executed;
    ++cases;
  });
  // Enough of them get as far as to move or compute something.
  if (cases >= 300) {
    EXPECT_GT(executed, cases / 2);
  }
  RecordProperty("executed", static_cast<int>(executed));
}

INSTANTIATE_TEST_SUITE_P(Layers, RandomCases, testing::ValuesIn(kLayerTypes),
                         [](const auto& test) { return test.param; });

}  // namespace
}  // namespace vek_cases
