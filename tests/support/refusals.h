// The order of refusals, generated from one table of faults per operator.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "support/plugin.h"

namespace vek_test {

// One way to spoil a valid setup, and what the layer then says. Rows stand in the order of the checks. Two
// rows of the same (non-empty) group spoil the same thing and are not combined.
struct Fault {
  std::string name;
  std::function<void(Setup&)> spoil;
  Log lines;
  std::string group = {};
};

// Whether the layer takes itself for configured: Execute then complains of the null arrays it is given
// instead.
inline bool IsConfigured(Layer& layer) {
  EXPECT_FALSE(layer.ExecuteRaw(nullptr, nullptr));
  EXPECT_EQ(layer.log.size(), 1U);
  return !layer.log.empty() && layer.log[0].text.find("NULL") != std::string::npos;
}

// Each fault alone gives exactly its lines, and none where the log is silenced; of every two together, the
// earlier one speaks alone. A layer that was configured before stays configured: `IsConfigured(layer)` is asked
// after each refusal.
inline void CheckOrderOfRefusals(const std::string& type, const Setup& valid,
                                 const std::vector<Fault>& faults) {
  const ScopedThreshold threshold(kInfo);
  const ExpectNoLeakedClones no_leaks;

  const auto expect_refused = [&](const Setup& setup, const Fault& speaks) {
    Layer fresh(type);
    EXPECT_FALSE(fresh.Configure(setup.attrs, setup.in, setup.out));
    EXPECT_EQ(fresh.log, speaks.lines);
    EXPECT_FALSE(IsConfigured(fresh)) << "a refused Configure configured a new layer";

    Layer configured(type);
    EXPECT_TRUE(configured.Configure(valid.attrs, valid.in, valid.out)) << "the setup is not valid";
    EXPECT_FALSE(configured.Configure(setup.attrs, setup.in, setup.out));
    EXPECT_EQ(configured.log, speaks.lines);
    EXPECT_TRUE(IsConfigured(configured)) << "a refused Configure took the configuration away";
  };

  for (std::size_t i = 0; i < faults.size(); ++i) {
    {
      SCOPED_TRACE(faults[i].name);
      Setup setup = valid;
      faults[i].spoil(setup);
      expect_refused(setup, faults[i]);

      const ScopedThreshold silence(kNone);
      Layer quiet(type);
      EXPECT_FALSE(quiet.Configure(setup.attrs, setup.in, setup.out));
      EXPECT_EQ(quiet.log, Log{});
    }
    for (std::size_t j = i + 1; j < faults.size(); ++j) {
      if (!faults[i].group.empty() && faults[i].group == faults[j].group) continue;
      SCOPED_TRACE(faults[i].name + " before " + faults[j].name);
      Setup setup = valid;
      faults[j].spoil(setup);
      faults[i].spoil(setup);
      expect_refused(setup, faults[i]);
    }
  }
}

}  // namespace vek_test
