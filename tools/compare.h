/// \file
/// The command that tells whether two tensors agree, and how they differ.
#pragma once

#include <string>

#include "element_values.h"
#include "tolerance.h"

namespace CLI {
class App;
}

namespace vekrun {

struct ReportRequest {
  Tolerance tolerance;
  std::string json;     ///< path of the report as JSON; empty for none
  std::string picture;  ///< path of a picture of |a - b|; empty for none
};

/// Compares, prints the report, and writes what else is asked for. Shapes that differ are a difference.
/// Throws `UsageError`.
/// \return whether all elements agree within the tolerance.
bool ReportComparison(const LaidOut& a, const LaidOut& b, const ReportRequest& request);

/// Adds the options of a tolerance and of the report: --atol, --rtol, --ulp, --bits, --real, --picture.
void AddToleranceOptions(CLI::App* app, ReportRequest* request);

struct CompareRequest {
  std::string a, b;  ///< FILE[,option=value]...
  ReportRequest report;
};

/// Adds `vekrun compare`.
/// \return it.
CLI::App* AddCompare(CLI::App* app, CompareRequest* request);
/// \return whether the two files agree. Throws `UsageError`.
bool Compare(const CompareRequest& request);

}  // namespace vekrun
