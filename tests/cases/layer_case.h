// One case of a layer: a few calls of Configure and Execute, through the plug-in's own door and on the model, compared
// in everything that a host can see.
#pragma once

#include <string>

#include "support/random.h"

namespace vek_cases {

struct CaseResult {
  std::string difference;  // empty where layer and model agree
  unsigned executed = 0;   // calls of Execute that succeeded on both
  bool skipped = false;    // the case ended early: too large to try, or beyond what the contract says
};

CaseResult RunLayerCase(const std::string& type, vek_test::Random& random);

// The parser of list attributes on one text; what differs.
std::string RunListCase(const std::string& text);

}  // namespace vek_cases
