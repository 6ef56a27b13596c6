// One case of a layer: a few calls of Configure and Execute, through the plug-in's own door and on the model, compared
// in everything that a host can see.
#pragma once

#include <string>
#include <vector>

#include "support/fake_buf_attrs.h"
#include "support/log_capture.h"
#include "support/random.h"

namespace vek_cases {

struct CaseResult {
  std::string difference;  // empty where layer and model agree
  unsigned executed = 0;   // calls of Execute that succeeded on both
  bool skipped = false;    // the case ended early: too large to try, or beyond what the contract says
  vek_test::Log log;       // of the layer's last call
};

CaseResult RunLayerCase(const std::string& type, vek_test::Random& random);
// The same for setups that a test has chosen: one layer is configured with each and executed twice after it, against
// an unmapped page on either side. Nothing is skipped.
CaseResult RunSetups(const std::string& type, const std::vector<vek_test::Setup>& setups,
                     vek_test::Random& random);

// The parser of list attributes on one text; what differs.
std::string RunListCase(const std::string& text);

}  // namespace vek_cases
